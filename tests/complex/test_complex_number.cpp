// CComplexNumber: values and failures under callers of different x87 environments; the text form.
#include "complex/complex_number.h"
#include "frame/module.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace vx::test {
namespace {

using number = com_ptr<_CComplexNumber>;
constexpr double infinity = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
constexpr HRESULT overflow = automation_error_number(6), division_by_zero = automation_error_number(11),
                  object_not_set = automation_error_number(91);

// c with c² = 0.4 of the smallest subnormal: a power-made square rounds to
// 0, while c·c + c·c in extended precision rounds s up to that subnormal.
const double tiny = std::sqrt(0.4) * std::ldexp(1.0, -537);
struct value { double real, imaginary; };

// Bit for bit, so that -0 and +0 differ; any NaN matches any NaN.
bool same(double a, double b) {
    return std::isnan(a) || std::isnan(b) ? std::isnan(a) && std::isnan(b) : !std::memcmp(&a, &b, sizeof a);
}
::testing::AssertionResult holds(_CComplexNumber* z, value expected) {
    value v{-7, -7};
    if (!z || z->get_Real(&v.real) != S_OK || z->get_Imaginary(&v.imaginary) != S_OK) return testing::AssertionFailure();
    if (same(v.real, expected.real) && same(v.imaginary, expected.imaginary)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "holds " << v.real << ", " << v.imaginary << "i";
}

// Objects of the test program's own frame, whose count shows whether a
// failed operation released the result it had made.
number make(value v) {
    number z = create_local<_CComplexNumber>(CLSID_CComplexNumber, IID__CComplexNumber);
    if (z) z->put_Real(v.real), z->put_Imaginary(v.imaginary);
    return z;
}
enum operation { Add, Add2, Subtract2, Multiply2, Multiply, Divide, Reciprocal, Divide2, Magnitude, Text };
const wchar_t* const names[] = {L"Add",    L"Add2",       L"Subtract2", L"Multiply2", L"Multiply",
                                L"Divide", L"Reciprocal", L"Divide2",   L"Magnitude", L"Text"};

// What a call gave, and whether a failed call left the retval alone.
struct outcome { HRESULT hr; number result; double magnitude; std::wstring text; bool retval_untouched; };

// The operand c + di goes as Doubles to the members that take them, as the object to the others.
outcome apply(_CComplexNumber* z, operation o, value operand, _CComplexNumber* object) {
    double c = operand.real, d = operand.imaginary, magnitude = -12345;
    _CComplexNumber *const untouched = reinterpret_cast<_CComplexNumber*>(0x5A5A5A5A), *raw = untouched;
    unique_bstr text;
    outcome out{};
    switch (o) {
    case Add: out.hr = z->Add(&object, &raw); break;
    case Multiply: out.hr = z->Multiply(&object, &raw); break;
    case Divide: out.hr = z->Divide(&object, &raw); break;
    case Add2: out.hr = z->Add2(&c, &d, &raw); break;
    case Subtract2: out.hr = z->Subtract2(&c, &d, &raw); break;
    case Multiply2: out.hr = z->Multiply2(&c, &d, &raw); break;
    case Divide2: out.hr = z->Divide2(&c, &d, &raw); break;
    case Reciprocal: out.hr = z->Reciprocal(&raw); break;
    case Magnitude: out.hr = z->Magnitude(&magnitude); break;
    case Text: out.hr = z->Text(text.put()); break;
    }
    if (raw != untouched) out.result = number::attach(raw);
    out.magnitude = magnitude, out.text = text_of(text.get());
    out.retval_untouched = raw == untouched && magnitude == -12345;
    EXPECT_TRUE(same(c, operand.real) && same(d, operand.imaginary)) << "the arguments were written";
    return out;
}

unsigned short control_word() { unsigned short word; asm volatile("fnstcw %0" : "=m"(word)); return word; }
unsigned short exception_flags() { unsigned short status; asm volatile("fnstsw %0" : "=m"(status)); return status & 0x3F; }
void load_control_word(unsigned short word) { asm volatile("fnclex\n\tfldcw %0" : : "m"(word)); }

// An x87 trap would end the program: counted, and resumed with all masked.
volatile LONG float_traps = 0;
LONG CALLBACK count_float_trap(EXCEPTION_POINTERS* info) {
    const DWORD code = info->ExceptionRecord->ExceptionCode;
    if (code < EXCEPTION_FLT_DENORMAL_OPERAND || code > EXCEPTION_FLT_UNDERFLOW) return EXCEPTION_CONTINUE_SEARCH;
    if (InterlockedIncrement(&float_traps) > 100) return EXCEPTION_CONTINUE_SEARCH;
    info->ContextRecord->FloatSave.ControlWord |= 0x3F;
    info->ContextRecord->FloatSave.StatusWord &= ~0x80FFu;
    return EXCEPTION_CONTINUE_EXECUTION;
}

// Every operation computes in its own x87 environment and gives the caller's
// back, flags included. Every operation but Add leaves z and its operand alone.
TEST(ComplexNumber, ValuesAndFailuresWhateverTheCallersX87Environment) {
    const double max = std::numeric_limits<double>::max(), one_plus = 1 + 0x1p-30;
    // expected: the result (Magnitude's as real); after a failure, what z holds
    struct row { const char* name; value z; operation o; value operand; HRESULT hr; value expected; bool unset = false; };
    const row rows[] = {
        {"product of Doubles", {1, 2}, Multiply2, {3, 4}, S_OK, {-5, 10}},
        {"product of objects", {1, 2}, Multiply, {3, 4}, S_OK, {-5, 10}},
        {"quotient by Divide", {1, 2}, Divide, {3, 4}, S_OK, {0.44, 0.08}},
        {"reciprocal, rounded to nearest", {10, 0}, Reciprocal, {}, S_OK, {0.1, -0.0}},
        {"magnitude", {3, 4}, Magnitude, {}, S_OK, {25, 0}}, {"Reciprocal of zero", {0, 0}, Reciprocal, {}, S_OK, {0, 0}},
        {"magnitude of squares underflowing one by one", {tiny, tiny}, Magnitude, {}, S_OK, {0, 0}},
        {"53-bit intermediate product", {one_plus, 1}, Multiply2, {one_plus, 1}, S_OK, {0x1p-29, 2 + 0x1p-29}},
        {"products beyond Double cancel", {1e200, 1e200}, Multiply2, {1e200, 1e200}, S_OK, {0, infinity}},
        {"largest Double doubled by Add2", {max, 0}, Add2, {max, 0}, S_OK, {infinity, 0}},
        {"numerator beyond Double", {0x1p700, 0x1p700}, Divide, {0x1p500, 0x1p500}, S_OK, {0x1p200, 0}},
        {"Divide by zero", {1, 2}, Divide, {0, 0}, S_OK, {0, 0}}, {"Text, comparing a NaN part", {1, nan}, Text, {}, S_OK, {}},
        {"Divide2, s rounded up to a subnormal", {1, 0}, Divide2, {tiny, tiny}, S_OK,
         {std::ldexp(tiny, 1074), -std::ldexp(tiny, 1074)}},
        {"inf - inf", {0, infinity}, Subtract2, {0, infinity}, overflow, {0, infinity}},
        {"Divide2 by 0 + 0i", {1, 2}, Divide2, {0, 0}, overflow, {1, 2}},
        {"Multiply by nothing", {1, 2}, Multiply, {}, object_not_set, {1, 2}, true},
        {"0 * inf in the imaginary part only", {1, 0}, Multiply2, {infinity, 0}, overflow, {1, 0}},
        {"Divide2 by an s underflowing to zero", {1, 0}, Divide2, {1e-170, 0}, division_by_zero, {1, 0}},
        {"Magnitude with an imaginary part of -1e160", {0, -1e160}, Magnitude, {}, overflow, {0, -1e160}},
        {"Divide with s beyond Double", {1, 1}, Divide, {1e160, 0}, overflow, {1, 1}},
        {"Reciprocal with s beyond Double", {1e160, 1}, Reciprocal, {}, overflow, {1e160, 1}},
        {"largest Double doubled by Add", {max, 1}, Add, {max, 0}, overflow, {infinity, 1}},
        {"Add of inf and -inf", {infinity, 1}, Add, {-infinity, 1}, overflow, {nan, 1}},
    };
    const PVOID handler = AddVectoredExceptionHandler(1, count_float_trap);
    // 64-bit precision (the C runtime's), 53-bit (new threads'), toward zero, invalid, zero-divide and overflow unmasked
    for (unsigned short caller : {0x037F, 0x027F, 0x0E7F, 0x0272})
        for (const row& r : rows) {
            const std::string name = hex(caller) + ", " + r.name;
            {
                number z = make(r.z), operand = r.unset ? number() : make(r.operand);
                const unsigned short ours = control_word();
                float_traps = 0, load_control_word(caller);
                volatile long double inexact = 1.0L;  // the caller's own sticky flag, precision, on the x87
                inexact = inexact / 3;
                const outcome out = apply(z.get(), r.o, r.operand, operand.get());
                const unsigned short control_after = control_word(), flags_after = exception_flags();
                load_control_word(ours);
                EXPECT_TRUE(float_traps == 0 && control_after == caller && flags_after == 0x20)
                    << name << ": traps " << float_traps << ", control " << control_after << ", flags " << flags_after;
                EXPECT_EQ(hex(r.hr), hex(out.hr)) << name;
                EXPECT_TRUE(holds(z.get(), FAILED(r.hr) ? r.expected : r.z) && (r.unset || holds(operand.get(), r.operand)))
                    << name << ": what the inputs hold afterwards";
                if (FAILED(r.hr)) {
                    const error_info error = take_error_info();
                    EXPECT_TRUE(out.retval_untouched) << name;
                    EXPECT_EQ(std::wstring(L"CComplexNumber.") + names[r.o], error.source) << name;
                    EXPECT_EQ(r.hr == overflow ? L"Overflow" : r.hr == division_by_zero ? L"Division by zero"
                              : L"Object variable or With block variable not set", error.description) << name;
                } else if (r.o == Text) {
                    EXPECT_EQ(L"11.#QNANi", out.text) << name;
                } else if (r.o == Magnitude) {
                    EXPECT_TRUE(same(r.expected.real, out.magnitude)) << name << ": " << out.magnitude;
                } else {
                    EXPECT_TRUE(holds(out.result.get(), r.expected) && out.result.get() != z.get() &&
                                out.result.get() != operand.get()) << name;
                }
            }
            EXPECT_FALSE(module::in_use()) << name << ": an object was left alive";
        }
    RemoveVectoredExceptionHandler(handler);
}

TEST(ComplexNumber, TextFollowsItsFourRules) {
    struct row { value z; const wchar_t *point, *comma; };  // with "." and with "," as the separator
    const row rows[] = {{{3, 4}, L"3+4i", L"3+4i"}, {{3, -4}, L"3-4i", L"3-4i"}, {{0, 2.5}, L"2.5i", L"2,5i"},
                        {{-1.5, 0}, L"-1.5", L"-1,5"}, {{0, 0}, L"0", L"0"}, {{-0.0, 5}, L"5i", L"5i"},
                        {{-0.125, -1234567.5}, L"-0.125-1234567.5i", L"-0,125-1234567,5i"},
                        {{1e20, -1e-20}, L"1E+20-1E-20i", L"1E+20-1E-20i"}};
    // The seam replaces the locale in this program's frame; the user's settings would reach the whole prefix.
    for (LCID locale : {LCID(0x0409), LCID(0x0407)}) {
        const scoped_complex_text_locale replaced(locale);
        for (const row& r : rows)
            EXPECT_EQ(locale == 0x0409 ? r.point : r.comma, apply(make(r.z).get(), Text, {}, nullptr).text);
    }
}

}  // namespace
}  // namespace vx::test

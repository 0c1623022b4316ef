// CComplexNumber: the worked values, the failures and what they leave
// behind, the text form, and the caller's x87 environment.
#include "complex/complex_number.h"
#include "frame/module.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace vx::test {
namespace {

using number = com_ptr<_CComplexNumber>;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr HRESULT overflow = static_cast<HRESULT>(0x800A0006);
constexpr HRESULT division_by_zero = static_cast<HRESULT>(0x800A000B);
constexpr HRESULT object_not_set = static_cast<HRESULT>(0x800A005B);

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
    if (!z || z->get_Real(&v.real) != S_OK || z->get_Imaginary(&v.imaginary) != S_OK)
        return ::testing::AssertionFailure() << "no object";
    if (same(v.real, expected.real) && same(v.imaginary, expected.imaginary)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "holds " << v.real << ", " << v.imaginary << "i; expected "
                                         << expected.real << ", " << expected.imaginary << "i";
}

// Objects of the test program's own frame (local) let its count show
// whether a failed operation released the result it had made.
number make(value v, bool local = false) {
    number z = local ? create_local<_CComplexNumber>(CLSID_CComplexNumber, IID__CComplexNumber)
                     : create<_CComplexNumber>(CLSID_CComplexNumber, IID__CComplexNumber);
    if (z) z->put_Real(v.real), z->put_Imaginary(v.imaginary);
    return z;
}

enum class operation { Add, Add2, Subtract2, Multiply2, Multiply, Divide, Reciprocal, Divide2, Magnitude, Text };
const wchar_t* const names[] = {L"Add",    L"Add2",       L"Subtract2", L"Multiply2", L"Multiply",
                                L"Divide", L"Reciprocal", L"Divide2",   L"Magnitude", L"Text"};

// What a call gave, and whether a failed call left the retval alone.
struct outcome {
    HRESULT hr = E_UNEXPECTED;
    number result;
    double magnitude = 0;
    std::wstring text;
    bool retval_untouched = true;
};

// Calls the operation on z with operand c + di: as arguments for the
// members that take Doubles, as the object given for the others.
outcome apply(_CComplexNumber* z, operation o, value operand, _CComplexNumber* object) {
    double c = operand.real, d = operand.imaginary, magnitude = -12345;
    _CComplexNumber* const untouched = reinterpret_cast<_CComplexNumber*>(0x5A5A5A5A);
    _CComplexNumber* raw = untouched;
    unique_bstr text;
    outcome out;
    switch (o) {
    case operation::Add: out.hr = z->Add(&object, &raw); break;
    case operation::Add2: out.hr = z->Add2(&c, &d, &raw); break;
    case operation::Subtract2: out.hr = z->Subtract2(&c, &d, &raw); break;
    case operation::Multiply2: out.hr = z->Multiply2(&c, &d, &raw); break;
    case operation::Multiply: out.hr = z->Multiply(&object, &raw); break;
    case operation::Divide: out.hr = z->Divide(&object, &raw); break;
    case operation::Reciprocal: out.hr = z->Reciprocal(&raw); break;
    case operation::Divide2: out.hr = z->Divide2(&c, &d, &raw); break;
    case operation::Magnitude: out.hr = z->Magnitude(&magnitude); break;
    case operation::Text: out.hr = z->Text(text.put()); break;
    }
    out.magnitude = magnitude;
    out.text = text_of(text.get());
    if (raw != untouched) out.result = number::attach(raw);
    out.retval_untouched = raw == untouched && magnitude == -12345;
    EXPECT_TRUE(same(c, operand.real) && same(d, operand.imaginary)) << "the arguments were written";
    return out;
}

TEST(ComplexNumber, WorkedValues) {
    const double max = DBL_MAX;
    struct row { const char* name; value z; operation o; value operand, expected; };  // Magnitude's as real
    const row rows[] = {
        {"product of Doubles", {1, 2}, operation::Multiply2, {3, 4}, {-5, 10}},
        {"product of objects", {1, 2}, operation::Multiply, {3, 4}, {-5, 10}},
        {"quotient by Divide", {1, 2}, operation::Divide, {3, 4}, {0.44, 0.08}},
        {"reciprocal", {3, 4}, operation::Reciprocal, {}, {0.12, -0.16}},
        {"magnitude", {3, 4}, operation::Magnitude, {}, {25, 0}},
        {"magnitude of squares underflowing one by one", {tiny, tiny}, operation::Magnitude, {}, {0, 0}},
        {"products beyond Double cancel", {1e200, 1e200}, operation::Multiply2, {1e200, 1e200}, {0, infinity}},
        {"largest Double doubled by Add2", {max, 0}, operation::Add2, {max, 0}, {infinity, 0}},
        {"numerator beyond Double", {std::ldexp(1.0, 700), std::ldexp(1.0, 700)}, operation::Divide,
         {std::ldexp(1.0, 500), std::ldexp(1.0, 500)}, {std::ldexp(1.0, 200), 0}},
        {"Divide by zero", {1, 2}, operation::Divide, {0, 0}, {0, 0}},
        {"Reciprocal of zero", {0, 0}, operation::Reciprocal, {}, {0, 0}},
        {"Divide2 by an s rounded up to the smallest subnormal", {1, 0}, operation::Divide2, {tiny, tiny},
         {std::ldexp(tiny, 1074), -std::ldexp(tiny, 1074)}},
    };
    // Every operation but Add leaves the object and its operand alone.
    for (const row& r : rows) {
        number z = make(r.z), operand = make(r.operand);
        outcome out = apply(z.get(), r.o, r.operand, operand.get());
        ASSERT_EQ(S_OK, out.hr) << r.name << ": " << hex(out.hr);
        if (r.o == operation::Magnitude)
            EXPECT_TRUE(same(r.expected.real, out.magnitude)) << r.name << ": " << out.magnitude;
        else
            EXPECT_TRUE(holds(out.result.get(), r.expected) && out.result.get() != z.get() && out.result.get() != operand.get()) << r.name;
        EXPECT_TRUE(holds(z.get(), r.z) && holds(operand.get(), r.operand)) << r.name << ": an input changed";
    }
}

TEST(ComplexNumber, FailuresRaiseTheRuntimesErrorsAndLeaveNothingBehind) {
    const double max = DBL_MAX;
    struct row { const char* name; value z; operation o; value operand; HRESULT expected; value z_after; bool unset = false; };
    const row rows[] = {
        {"inf - inf", {0, infinity}, operation::Subtract2, {0, infinity}, overflow, {0, infinity}},
        {"0 * inf in the imaginary part only", {1, 0}, operation::Multiply2, {infinity, 0}, overflow, {1, 0}},
        {"Divide2 by 0 + 0i", {1, 2}, operation::Divide2, {0, 0}, overflow, {1, 2}},
        {"Divide2 by an s underflowing to zero", {1, 0}, operation::Divide2, {1e-170, 0}, division_by_zero, {1, 0}},
        {"Magnitude with an imaginary part of -1e160", {0, -1e160}, operation::Magnitude, {}, overflow, {0, -1e160}},
        {"Divide with s beyond Double", {1, 1}, operation::Divide, {1e160, 0}, overflow, {1, 1}},
        {"Reciprocal with s beyond Double", {1e160, 1}, operation::Reciprocal, {}, overflow, {1e160, 1}},
        {"largest Double doubled by Add", {max, 1}, operation::Add, {max, 0}, overflow, {infinity, 1}},
        {"Add of inf and -inf", {infinity, 1}, operation::Add, {-infinity, 1}, overflow, {not_a_number, 1}},
        {"Multiply by nothing", {1, 2}, operation::Multiply, {}, object_not_set, {1, 2}, true},
    };
    for (const row& r : rows) {
        {
            number z = make(r.z, true), operand = r.unset ? number() : make(r.operand, true);
            outcome out = apply(z.get(), r.o, r.operand, operand.get());
            EXPECT_EQ(hex(r.expected), hex(out.hr)) << r.name;
            EXPECT_TRUE(out.retval_untouched) << r.name;
            const error_info error = take_error_info();
            EXPECT_EQ(std::wstring(L"CComplexNumber.") + names[static_cast<int>(r.o)], error.source) << r.name;
            const wchar_t* description = r.expected == overflow           ? L"Overflow"
                                         : r.expected == division_by_zero ? L"Division by zero"
                                                                          : L"Object variable or With block variable not set";
            EXPECT_EQ(description, error.description) << r.name;
            EXPECT_TRUE(holds(z.get(), r.z_after)) << r.name;
        }
        EXPECT_FALSE(module::in_use()) << r.name << ": an object was left alive";
    }
}

TEST(ComplexNumber, TextFollowsItsFourRules) {
    struct row { value z; const wchar_t *point, *comma; };  // with "." and with "," as the separator
    const row rows[] = {
        {{3, 4}, L"3+4i", L"3+4i"},         {{3, -4}, L"3-4i", L"3-4i"},  {{0, 2.5}, L"2.5i", L"2,5i"},
        {{-1.5, 0}, L"-1.5", L"-1,5"},      {{0, 0}, L"0", L"0"},         {{-0.0, 5}, L"5i", L"5i"},
        {{-0.125, -1234567.5}, L"-0.125-1234567.5i", L"-0,125-1234567,5i"},
        {{1e20, -1e-20}, L"1E+20-1E-20i", L"1E+20-1E-20i"},
    };
    // The seam replaces the user's locale in the test program's own frame;
    // changing the user's settings would reach every process of the prefix.
    for (LCID locale : {LCID(0x0409), LCID(0x0407)}) {
        const scoped_complex_text_locale replaced(locale);
        for (const row& r : rows) {
            number z = make(r.z, true);
            EXPECT_EQ(locale == 0x0409 ? r.point : r.comma, apply(z.get(), operation::Text, {}, nullptr).text);
        }
    }
}

// clang-format off
unsigned short control_word() { unsigned short word; asm volatile("fnstcw %0" : "=m"(word)); return word; }
unsigned short exception_flags() { unsigned short status; asm volatile("fnstsw %0" : "=m"(status)); return status & 0x3F; }
// clang-format on
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

TEST(ComplexNumber, SetsItsOwnX87EnvironmentAndGivesTheCallersBack) {
    PVOID handler = AddVectoredExceptionHandler(1, count_float_trap);
    const double one_plus = 1 + std::ldexp(1.0, -30);
    struct caller { const char* name; unsigned short control; };
    const caller callers[] = {
        {"53-bit precision, as Windows starts threads", 0x027F},
        {"rounding toward zero", 0x0E7F},
        {"invalid, zero-divide and overflow unmasked", 0x0272},
    };
    struct row { const char* name; value z; operation o; value operand; HRESULT expected_hr; value expected; };
    const row rows[] = {
        {"53-bit intermediate product", {one_plus, 1}, operation::Multiply2, {one_plus, 1}, S_OK,
         {std::ldexp(1.0, -29), 2 + std::ldexp(1.0, -29)}},
        {"rounded to nearest", {10, 0}, operation::Reciprocal, {}, S_OK, {0.1, -0.0}},
        {"overflow at the rounding", {DBL_MAX, 0}, operation::Add2, {DBL_MAX, 0}, S_OK, {infinity, 0}},
        {"invalid", {1, 2}, operation::Divide2, {0, 0}, overflow, {}},
        {"division by zero", {1, 0}, operation::Divide2, {1e-170, 0}, division_by_zero, {}},
        {"Text, comparing a NaN part", {1, not_a_number}, operation::Text, {}, S_OK, {}},
    };
    for (const caller& c : callers) {
        for (const row& r : rows) {
            const std::string name = std::string(c.name) + ", " + r.name;
            number z = make(r.z);
            const unsigned short ours = control_word();
            float_traps = 0;
            load_control_word(c.control);
            volatile long double inexact = 1.0L;  // the x87 in 32-bit and 64-bit code
            inexact = inexact / 3;  // the caller's own sticky flag: precision
            outcome out = apply(z.get(), r.o, r.operand, nullptr);
            const unsigned short control_after = control_word(), flags_after = exception_flags();
            load_control_word(ours);
            EXPECT_EQ(0, float_traps) << name;
            EXPECT_EQ(c.control, control_after) << name << ": control word not restored";
            EXPECT_EQ(0x20, flags_after) << name << ": the caller's flags not restored";
            EXPECT_EQ(hex(r.expected_hr), hex(out.hr)) << name;
            if (r.o == operation::Text) {
                EXPECT_EQ(L"11.#QNANi", out.text) << name;
            } else if (SUCCEEDED(r.expected_hr)) {
                EXPECT_TRUE(holds(out.result.get(), r.expected)) << name;
            }
        }
    }
    RemoveVectoredExceptionHandler(handler);
}

}  // namespace
}  // namespace vx::test

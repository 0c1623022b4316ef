#include "complex/complex_number.h"

#include "frame/runtime.h"

#include <cmath>
#include <cstring>
#include <string>

// The results depend on the x87's wide exponent range for intermediates and
// on its exception flags for the errors; the build compiles this file with
// -mfpmath=387 and must not relax IEEE semantics.
#if !defined(__i386__) && !defined(__x86_64__)
#error "complex_number.cpp is written for the x87 of x86 and x86-64"
#endif
#if defined(__FAST_MATH__)
#error "complex_number.cpp needs IEEE arithmetic: build it without -ffast-math"
#endif

namespace vx {

namespace {

using extended = long double;  // the x87's 80-bit format, its range at least
static_assert(sizeof(extended) > sizeof(double), "long double must be the x87 extended format");

LCID text_locale = LOCALE_USER_DEFAULT;

// ---- The x87 environment ----------------------------------------------------
// Precision control and exception masks belong to the host process: Windows
// and Wine start threads at 53-bit precision, and a host may unmask
// exceptions. The arithmetic sets what it needs and gives the caller's
// environment back whole, its sticky flags included.

constexpr unsigned short x87_invalid = 0x01;
constexpr unsigned short x87_zero_divide = 0x04;
constexpr unsigned short x87_overflow = 0x08;

// 53-bit precision, as compiled code of the platform runs, keeping the wide
// exponent range; rounding to nearest; every exception masked. The precision
// is a Double's so that a numerator rounds exactly as the divisor s does:
// with 64 bits, a·a + b·b kept bits that s had lost, and z / z missed 1.
constexpr unsigned short arithmetic_control_word = 0x027F;

// The 28-byte layout that fnstenv stores, in 32-bit and in 64-bit mode.
struct x87_environment {
    unsigned short control, unused0, status, unused1, tag, unused2;
    unsigned long instruction_pointer, instruction_selector, operand_pointer, operand_selector;
};
static_assert(sizeof(x87_environment) == 28, "fnstenv stores 28 bytes");

// Out of line and opaque to the optimiser: at a call the x87 register stack
// is empty, so the whole environment, tag word included, can be saved and
// loaded back.
__attribute__((noinline, noipa)) void enter_arithmetic(x87_environment& caller) {
    asm volatile(
        "fnstenv %0\n\t"  // masks every exception as a side effect
        "fldcw %1\n\t"
        "fnclex"
        : "=m"(caller)
        : "m"(arithmetic_control_word)
        : "memory");
}

// fldenv replaces the status word as well, so no flag of ours reaches the
// caller, where an unmasked one would trap at its next x87 instruction.
__attribute__((noinline, noipa)) void leave_arithmetic(const x87_environment& caller) {
    asm volatile("fldenv %0" : : "m"(caller) : "memory");
}

class arithmetic_environment {
public:
    arithmetic_environment() { enter_arithmetic(caller_); }
    arithmetic_environment(const arithmetic_environment&) = delete;
    arithmetic_environment& operator=(const arithmetic_environment&) = delete;
    ~arithmetic_environment() { leave_arithmetic(caller_); }

private:
    x87_environment caller_;
};

// A member that computes: the x87 set up for it, errors raised to the caller.
template <class Body>
HRESULT arithmetic(const wchar_t* source, Body&& body) {
    return com_boundary(source, [&] {
        const arithmetic_environment environment;
        body();
    });
}

// ---- One part of a result ---------------------------------------------------

// The values one part is computed from: left and right added or
// subtracted, or their product and that of other_left and other_right;
// a quotient divides that once by divisor.
struct operands {
    double left = 0, right = 0;
    double other_left = 0, other_right = 0;
    double divisor = 1;
};

// Clears the exception flags and hands the operands back through the same
// statement, so the arithmetic on them cannot start before the flags are
// clear.
inline void clear_flags_for(operands& values) { asm volatile("fnclex" : "+m"(values)); }

// The flags once value is complete: it is an input, so it is computed first.
inline unsigned short flags_after(const extended& value) {
    unsigned short status;
    asm volatile("fnstsw %0" : "=m"(status) : "m"(value));
    return status;
}
inline unsigned short flags_after_store(const double& stored) {
    unsigned short status;
    asm volatile("fnstsw %0" : "=m"(status) : "m"(stored));
    return status;
}

// Rounded through memory: a cast alone may leave the extended value in its
// register.
inline double to_double(extended value) {
    volatile double rounded = static_cast<double>(value);
    return rounded;
}

// Each part is one expression: products first, then added or subtracted; a
// quotient divides once by s.
extended sum(const operands& o) { return extended(o.left) + o.right; }
extended difference(const operands& o) { return extended(o.left) - o.right; }
extended products_added(const operands& o) {
    return extended(o.left) * o.right + extended(o.other_left) * o.other_right;
}
extended products_subtracted(const operands& o) {
    return extended(o.left) * o.right - extended(o.other_left) * o.other_right;
}
extended quotient_of_products_added(const operands& o) {
    return (extended(o.left) * o.right + extended(o.other_left) * o.other_right) / o.divisor;
}
extended quotient_of_products_subtracted(const operands& o) {
    return (extended(o.left) * o.right - extended(o.other_left) * o.other_right) / o.divisor;
}
extended quotient(const operands& o) { return extended(o.left) / o.divisor; }
extended negated_quotient(const operands& o) { return -extended(o.left) / o.divisor; }

// A part of a value operation: tested before it is rounded, so a part that
// is finite but beyond the Double range becomes an infinity without error.
template <class Expression>
double value_part(operands values, Expression expression, const wchar_t* source) {
    clear_flags_for(values);
    const extended part = expression(values);
    const unsigned short flags = flags_after(part);
    if (flags & x87_invalid) raise_error(error_overflow, source);
    if (flags & x87_zero_divide) raise_error(error_division_by_zero, source);
    return to_double(part);
}

// Add's part: stored first and tested after, so the object keeps an
// infinite or NaN sum when the error is raised.
void add_in_place(double& field, double addend, const wchar_t* source) {
    operands values;
    values.left = field;
    values.right = addend;
    clear_flags_for(values);
    field = to_double(sum(values));
    if (flags_after_store(field) & (x87_invalid | x87_overflow)) raise_error(error_overflow, source);
}

// The sum of squares, rounded before it is tested or used.
double checked_sum_of_squares(operands values, extended (*expression)(const operands&), const wchar_t* source) {
    clear_flags_for(values);
    const double s = to_double(expression(values));
    if (std::isinf(s)) raise_error(error_overflow, source);
    return s;
}

// Divide, Reciprocal and Magnitude square with the power operation, whose
// squares are Doubles already: a subnormal square has lost its low bits.
double sum_of_powers(double x, double y, const wchar_t* source) {
    operands values;
    values.left = power(x, 2.0);
    values.right = power(y, 2.0);
    return checked_sum_of_squares(values, sum, source);
}

// Divide2 multiplies each part by itself, in the x87's range.
double sum_of_products(double x, double y, const wchar_t* source) {
    operands values;
    values.left = values.right = x;
    values.other_left = values.other_right = y;
    return checked_sum_of_squares(values, products_added, source);
}

operands operands_of(double left, double right, double other_left = 0, double other_right = 0,
                     double divisor = 1) {
    operands values;
    values.left = left;
    values.right = right;
    values.other_left = other_left;
    values.other_right = other_right;
    values.divisor = divisor;
    return values;
}

// ---- Operands and values ----------------------------------------------------

// A Double stored exactly as it came: an x87 load would turn a signalling
// NaN into a quiet one.
// The address is hidden from the optimiser, which would otherwise copy a
// Double with fld/fstp.
inline void copy_double(double& to, const double& from) {
    const void* bits = &from;
    asm("" : "+r"(bits));
    std::memcpy(&to, bits, sizeof to);
}

// The operand's failure raised as that error, with what the operand said
// about it when it supports error info.
[[noreturn]] void raise_operand_failure(_CComplexNumber* operand, HRESULT failure, const wchar_t* source) {
    const long number = error_number_from_hresult(failure);
    std::wstring error_source = source;
    std::wstring description = standard_error_description(number);
    if (description.empty()) description = L"Automation error";
    com_ptr<ISupportErrorInfo> support;
    com_ptr<IErrorInfo> info;
    if (SUCCEEDED(operand->QueryInterface(IID_ISupportErrorInfo, support.put_void())) && support &&
        support->InterfaceSupportsErrorInfo(IID__CComplexNumber) == S_OK && GetErrorInfo(0, info.put()) == S_OK &&
        info) {
        unique_bstr text;
        if (SUCCEEDED(info->GetSource(text.put())) && text.length()) error_source.assign(text.get(), text.length());
        if (SUCCEEDED(info->GetDescription(text.put())) && text.length())
            description.assign(text.get(), text.length());
    }
    raise_error(number, error_source, description);
}

enum class part { real, imaginary };

// Operands are read only through their getters, so any implementation of
// the interface serves, this object included.
double read(_CComplexNumber* operand, part which, const wchar_t* source) {
    double value = 0;
    const HRESULT hr = which == part::real ? operand->get_Real(&value) : operand->get_Imaginary(&value);
    if (FAILED(hr)) raise_operand_failure(operand, hr, source);
    return value;
}

// The operand as this interface: a late-bound caller may hand over an
// object of another class unqueried, whose vtable has no getters to call.
// Unset is error 91; an object without the interface, 13.
com_ptr<_CComplexNumber> operand_of(_CComplexNumber** argument, const wchar_t* source) {
    IUnknown* const object = argument ? *argument : nullptr;
    if (!object) raise_error(error_object_not_set, source);
    com_ptr<_CComplexNumber> operand;
    if (FAILED(object->QueryInterface(IID__CComplexNumber, operand.put_void())) || !operand)
        raise_error(error_type_mismatch, source);
    return operand;
}

std::wstring part_text(double value) {
    std::wstring text = double_to_text(value, text_locale);
    text.erase(0, text.find_first_not_of(L' '));
    return text;
}

}  // namespace

LCID set_complex_text_locale(LCID locale) {
    const LCID previous = text_locale;
    text_locale = locale;
    return previous;
}

com_ptr<complex_number> complex_number::new_number() {
    return com_ptr<complex_number>::copy(new complex_number(entry()));
}

_CComplexNumber* complex_number::itself() {
    AddRef();
    return this;
}

HRESULT complex_number::get_Real(DOUBLE* result) {
    if (!result) return E_POINTER;
    copy_double(*result, real_);
    return S_OK;
}

HRESULT complex_number::put_Real(DOUBLE value) {
    copy_double(real_, value);
    return S_OK;
}

HRESULT complex_number::get_Imaginary(DOUBLE* result) {
    if (!result) return E_POINTER;
    copy_double(*result, imaginary_);
    return S_OK;
}

HRESULT complex_number::put_Imaginary(DOUBLE value) {
    copy_double(imaginary_, value);
    return S_OK;
}

HRESULT complex_number::Init(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    copy_double(real_, *Real);
    copy_double(imaginary_, *Imaginary);
    *result = itself();
    return S_OK;
}

HRESULT complex_number::Complex(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    return com_boundary(L"CComplexNumber.Complex", [&] {
        com_ptr<complex_number> number = new_number();
        copy_double(number->real_, *Real);
        copy_double(number->imaginary_, *Imaginary);
        *result = number.detach();
    });
}

HRESULT complex_number::Add(_CComplexNumber** other, _CComplexNumber** result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Add";
    return arithmetic(source, [&] {
        const com_ptr<_CComplexNumber> operand = operand_of(other, source);
        add_in_place(real_, read(operand.get(), part::real, source), source);
        add_in_place(imaginary_, read(operand.get(), part::imaginary, source), source);
        *result = itself();
    });
}

HRESULT complex_number::Add2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Add2";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        number->real_ = value_part(operands_of(real_, *Real), sum, source);
        number->imaginary_ = value_part(operands_of(imaginary_, *Imaginary), sum, source);
        *result = number.detach();
    });
}

HRESULT complex_number::Subtract2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Subtract2";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        number->real_ = value_part(operands_of(real_, *Real), difference, source);
        number->imaginary_ = value_part(operands_of(imaginary_, *Imaginary), difference, source);
        *result = number.detach();
    });
}

HRESULT complex_number::Multiply2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Multiply2";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        const double c = *Real, d = *Imaginary;
        number->real_ = value_part(operands_of(real_, c, imaginary_, d), products_subtracted, source);
        number->imaginary_ = value_part(operands_of(imaginary_, c, real_, d), products_added, source);
        *result = number.detach();
    });
}

HRESULT complex_number::Multiply(_CComplexNumber** cVal, _CComplexNumber** result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Multiply";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        const com_ptr<_CComplexNumber> operand = operand_of(cVal, source);
        // Each part reads the operand afresh, as its own expression.
        double c = read(operand.get(), part::real, source), d = read(operand.get(), part::imaginary, source);
        number->real_ = value_part(operands_of(real_, c, imaginary_, d), products_subtracted, source);
        c = read(operand.get(), part::real, source);
        d = read(operand.get(), part::imaginary, source);
        number->imaginary_ = value_part(operands_of(imaginary_, c, real_, d), products_added, source);
        *result = number.detach();
    });
}

HRESULT complex_number::Divide(_CComplexNumber** cVal, _CComplexNumber** result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Divide";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        const com_ptr<_CComplexNumber> operand = operand_of(cVal, source);
        double c = read(operand.get(), part::real, source), d = read(operand.get(), part::imaginary, source);
        const double s = sum_of_powers(c, d, source);
        // An s that underflowed to zero counts as zero: 0 + 0i, silently.
        if (s > 0) {
            c = read(operand.get(), part::real, source);
            d = read(operand.get(), part::imaginary, source);
            number->real_ = value_part(operands_of(real_, c, imaginary_, d, s), quotient_of_products_added, source);
            c = read(operand.get(), part::real, source);
            d = read(operand.get(), part::imaginary, source);
            number->imaginary_ =
                value_part(operands_of(imaginary_, c, real_, d, s), quotient_of_products_subtracted, source);
        }
        *result = number.detach();
    });
}

HRESULT complex_number::Reciprocal(_CComplexNumber** result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Reciprocal";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        const double s = sum_of_powers(real_, imaginary_, source);
        if (s > 0) {
            number->real_ = value_part(operands_of(real_, 0, 0, 0, s), quotient, source);
            number->imaginary_ = value_part(operands_of(imaginary_, 0, 0, 0, s), negated_quotient, source);
        }
        *result = number.detach();
    });
}

HRESULT complex_number::Magnitude(DOUBLE* result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Magnitude";
    return arithmetic(source, [&] {
        const double s = sum_of_powers(real_, imaginary_, source);
        copy_double(*result, s);
    });
}

HRESULT complex_number::Divide2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) {
    if (!Real || !Imaginary || !result) return E_POINTER;
    const wchar_t* const source = L"CComplexNumber.Divide2";
    return arithmetic(source, [&] {
        com_ptr<complex_number> number = new_number();
        const double c = *Real, d = *Imaginary;
        // No test of s: a zero s divides by zero.
        const double s = sum_of_products(c, d, source);
        number->real_ = value_part(operands_of(real_, c, imaginary_, d, s), quotient_of_products_added, source);
        number->imaginary_ =
            value_part(operands_of(imaginary_, c, real_, d, s), quotient_of_products_subtracted, source);
        *result = number.detach();
    });
}

HRESULT complex_number::Text(BSTR* result) {
    if (!result) return E_POINTER;
    // Under the arithmetic environment too: comparing a NaN part raises the
    // invalid-operation exception.
    return arithmetic(L"CComplexNumber.Text", [&] {
        const double real = real_, imaginary = imaginary_;
        std::wstring text;
        if (imaginary == 0)
            text = part_text(real);
        else if (real == 0)
            text = part_text(imaginary) + L"i";
        else if (imaginary > 0)
            text = part_text(real) + L"+" + part_text(imaginary) + L"i";
        else
            text = part_text(real) + part_text(imaginary) + L"i";  // the minus sign comes with the text
        *result = bstr_from(text).release();
    });
}

HRESULT create_complex_number(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<complex_number>(entry, iid, object);
}

}  // namespace vx

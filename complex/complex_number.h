// CComplexNumber: one complex number in double precision, with arithmetic
// whose rounding and failures are part of the class's contract: every part
// of a result is evaluated in the x87's extended format and rounded to a
// Double once, and the floating-point exceptions of that evaluation decide
// the errors.
#pragma once

#include "frame/automation_object.h"
#include "vxTypes32_types.h"

namespace vx {

class complex_number final : public automation_object<_CComplexNumber> {
public:
    using automation_object::automation_object;

    HRESULT STDMETHODCALLTYPE get_Real(DOUBLE* result) override;
    HRESULT STDMETHODCALLTYPE put_Real(DOUBLE value) override;
    HRESULT STDMETHODCALLTYPE get_Imaginary(DOUBLE* result) override;
    HRESULT STDMETHODCALLTYPE put_Imaginary(DOUBLE value) override;
    HRESULT STDMETHODCALLTYPE Init(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Complex(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Add(_CComplexNumber** other, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Add2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Subtract2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Multiply2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Multiply(_CComplexNumber** cVal, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Divide(_CComplexNumber** cVal, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Reciprocal(_CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Magnitude(DOUBLE* result) override;
    HRESULT STDMETHODCALLTYPE Divide2(DOUBLE* Real, DOUBLE* Imaginary, _CComplexNumber** result) override;
    HRESULT STDMETHODCALLTYPE Text(BSTR* result) override;

private:
    // A result of a value operation: a new object of this class, 0 + 0i.
    com_ptr<complex_number> new_number();
    // This object for Init and Add to return, with one more reference.
    _CComplexNumber* itself();

    // The two fields, in this order; a new object is 0 + 0i.
    double real_ = 0;
    double imaginary_ = 0;
};

// Seam for tests: the locale whose Double-to-text conversion Text uses,
// LOCALE_USER_DEFAULT unless a test replaces it, so that a test can try
// another decimal separator without changing the user's settings, which
// every process of the prefix shares. Process-wide; returns the locale that
// was in place.
LCID set_complex_text_locale(LCID locale);

class scoped_complex_text_locale {
public:
    explicit scoped_complex_text_locale(LCID locale) : previous_(set_complex_text_locale(locale)) {}
    scoped_complex_text_locale(const scoped_complex_text_locale&) = delete;
    scoped_complex_text_locale& operator=(const scoped_complex_text_locale&) = delete;
    ~scoped_complex_text_locale() { set_complex_text_locale(previous_); }

private:
    LCID previous_;
};

}  // namespace vx

// Runtime services: power, whole-number conversions and the mapping of
// failed HRESULTs to the runtime's error numbers.
#include "frame/runtime.h"

#include "frame/automation_error.h"

#include <cmath>

namespace vx {

long error_number_from_hresult(HRESULT failure) {
    switch (failure) {
    case DISP_E_OVERFLOW: return error_overflow;
    case DISP_E_TYPEMISMATCH: return error_type_mismatch;
    case E_OUTOFMEMORY: return 7;
    default: break;
    }
    // Errors that travel as 0x800A0000 + n are the runtime's own numbers.
    if (FAILED(failure) && HRESULT_FACILITY(failure) == FACILITY_CONTROL && HRESULT_CODE(failure) != 0)
        return HRESULT_CODE(failure);
    return failure;
}

void raise_hresult(HRESULT failure, const wchar_t* source) {
    const long number = error_number_from_hresult(failure);
    std::wstring description = standard_error_description(number);
    if (description.empty()) description = L"Automation error";
    raise_error(number, source, description);
}

double power(double base, double exponent) {
    // Forced through memory: on the x87 the result would otherwise stay in
    // extended precision, and a subnormal square would keep bits that a
    // Double does not have until some later store.
    volatile double rounded = std::pow(base, exponent);
    return rounded;
}

// The Var*FromR8 conversions round halves to even as the runtime does, but
// Wine's let NaN through as the type's largest value, so NaN is refused here.
long to_long(double value, const wchar_t* source) {
    if (std::isnan(value)) raise_error(error_overflow, source);
    LONG result = 0;
    const HRESULT hr = VarI4FromR8(value, &result);
    if (FAILED(hr)) raise_hresult(hr, source);
    return result;
}

short to_integer(double value, const wchar_t* source) {
    if (std::isnan(value)) raise_error(error_overflow, source);
    SHORT result = 0;
    const HRESULT hr = VarI2FromR8(value, &result);
    if (FAILED(hr)) raise_hresult(hr, source);
    return result;
}

unsigned char to_byte(double value, const wchar_t* source) {
    if (std::isnan(value)) raise_error(error_overflow, source);
    BYTE result = 0;
    const HRESULT hr = VarUI1FromR8(value, &result);
    if (FAILED(hr)) raise_hresult(hr, source);
    return result;
}

double int_floor(double value) { return std::floor(value); }

long variant_to_long(const VARIANT& value, const wchar_t* source) {
    unique_variant plain;
    HRESULT hr = VariantCopyInd(plain.get(), const_cast<VARIANT*>(&value));
    if (FAILED(hr)) raise_hresult(hr, source);
    switch (V_VT(plain.get())) {
    case VT_NULL: raise_error(error_invalid_use_of_null, source);
    case VT_R8: return to_long(V_R8(plain.get()), source);
    case VT_R4: return to_long(V_R4(plain.get()), source);
    default: break;
    }
    unique_variant converted;
    hr = VariantChangeTypeEx(converted.get(), plain.get(), LOCALE_USER_DEFAULT, 0, VT_I4);
    if (FAILED(hr)) raise_hresult(hr, source);
    return V_I4(converted.get());
}

}  // namespace vx

// Automation errors: how every member of the component reports a failure.
//
// Members that raise throw automation_error; the one adapter at the
// interface boundary (com_boundary) turns it into an HRESULT plus the
// thread's error info. Classes that report statuses catch it with
// trap_status instead.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace vx {

// The automation runtime's standard error numbers.
enum standard_error : long {
    error_overflow = 6,  // also an invalid floating-point operation
    error_subscript_out_of_range = 9,
    error_division_by_zero = 11,
    error_type_mismatch = 13,
    error_object_not_set = 91,
    error_invalid_use_of_null = 94,
};

struct automation_error {
    long number = 0;  // 1..65535, or a failure HRESULT
    std::wstring source;
    std::wstring description;

    // The HRESULT a client sees: 0x800A0000 + number for automation numbers,
    // an HRESULT number unchanged.
    HRESULT hresult() const;
};

// Description the runtime gives a standard error number ("Overflow", ...);
// empty for numbers it has no text for.
std::wstring standard_error_description(long number);

// Throws the error with the runtime's own description for the number.
[[noreturn]] void raise_error(long number, const std::wstring& source);
[[noreturn]] void raise_error(long number, const std::wstring& source,
                              const std::wstring& description);

// Turns whatever is in flight into the HRESULT of a failed member and sets
// the thread's error info. Call only from inside a catch block.
HRESULT current_exception_to_hresult(const wchar_t* default_source);

// Sets or clears the calling thread's error info.
void set_error_info(const automation_error& error);
void clear_error_info();

// Runs body and converts anything it throws into the failed HRESULT: the
// adapter every raising member uses at the interface boundary.
template <class Body>
HRESULT com_boundary(const wchar_t* source, Body&& body) noexcept {
    try {
        body();
        return S_OK;
    } catch (...) {
        return current_exception_to_hresult(source);
    }
}

// Runs body and gives the number of any error it raised, 0 when none: the
// status style. Leaves no error info behind.
long current_exception_number() noexcept;

template <class Body>
long trap_status(Body&& body) noexcept {
    try {
        body();
        return 0;
    } catch (...) {
        return current_exception_number();
    }
}

}  // namespace vx

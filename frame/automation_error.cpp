#include "frame/automation_error.h"

#include "frame/handles.h"

#include <new>
#include <stdexcept>

namespace vx {

namespace {

constexpr HRESULT automation_facility_base = static_cast<HRESULT>(0x800A0000);

automation_error error_in_flight(const wchar_t* default_source) {
    try {
        throw;
    } catch (const automation_error& error) {
        return error;
    } catch (const std::bad_alloc&) {
        return {7, default_source, standard_error_description(7)};
    } catch (...) {
        // Anything else is a fault of ours; report it rather than crash.
        return {51, default_source, standard_error_description(51)};
    }
}

}  // namespace

HRESULT automation_error::hresult() const {
    if (number < 0) return static_cast<HRESULT>(number);
    return automation_facility_base + static_cast<HRESULT>(number & 0xFFFF);
}

std::wstring standard_error_description(long number) {
    switch (number) {
    case 5: return L"Invalid procedure call or argument";
    case 6: return L"Overflow";
    case 7: return L"Out of memory";
    case 9: return L"Subscript out of range";
    case 11: return L"Division by zero";
    case 13: return L"Type mismatch";
    case 51: return L"Internal error";
    case 91: return L"Object variable or With block variable not set";
    case 94: return L"Invalid use of Null";
    default: return {};
    }
}

void raise_error(long number, const std::wstring& source) {
    throw automation_error{number, source, standard_error_description(number)};
}

void raise_error(long number, const std::wstring& source, const std::wstring& description) {
    throw automation_error{number, source, description};
}

void set_error_info(const automation_error& error) {
    com_ptr<ICreateErrorInfo> create;
    if (FAILED(CreateErrorInfo(create.put()))) return;
    create->SetGUID(GUID_NULL);
    create->SetSource(const_cast<LPOLESTR>(error.source.c_str()));
    create->SetDescription(const_cast<LPOLESTR>(error.description.c_str()));
    com_ptr<IErrorInfo> info;
    if (SUCCEEDED(create->QueryInterface(IID_IErrorInfo, info.put_void()))) SetErrorInfo(0, info.get());
}

void clear_error_info() { SetErrorInfo(0, nullptr); }

HRESULT current_exception_to_hresult(const wchar_t* default_source) {
    const automation_error error = error_in_flight(default_source);
    set_error_info(error);
    return error.hresult();
}

long current_exception_number() noexcept {
    try {
        return error_in_flight(L"").number;
    } catch (...) {
        return 7;
    }
}

}  // namespace vx

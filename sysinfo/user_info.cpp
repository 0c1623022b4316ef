#include "sysinfo/user_info.h"

#include "frame/runtime.h"

#include <string>

namespace vx {

namespace {

// Both queries take a buffer one character longer than the capacity they
// are told, and differ in whether the capacity they report back counts the
// terminating NUL.
template <class Query>
void read_name(VARIANT* result, DWORD capacity, bool reported_length_counts_nul, Query query,
               const wchar_t* source, const wchar_t* description) {
    VariantInit(result);
    std::string buffer(capacity + 1, '\0');
    if (!query(buffer.data(), &capacity)) {
        const DWORD code = GetLastError();
        raise_error(static_cast<long>(code), source, description);
    }
    DWORD length = capacity;
    if (reported_length_counts_nul) length = length > 0 ? length - 1 : 0;
    if (length > buffer.size()) length = static_cast<DWORD>(buffer.size());
    unique_bstr name = bstr_from(from_ansi(buffer.data(), length));
    V_VT(result) = VT_BSTR;
    V_BSTR(result) = name.release();
}

}  // namespace

HRESULT user_info::get_Logon(VARIANT* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"UserInfo.Logon", [&] {
        read_name(result, 256, true, GetUserNameA, L"UserInfo.Logon", L"Failed to get user logon name.");
    });
}

HRESULT user_info::get_ComputerName(VARIANT* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"UserInfo.ComputerName", [&] {
        read_name(result, 31, false, GetComputerNameA, L"UserInfo.ComputerName", L"Failed to get computer name.");
    });
}

HRESULT create_user_info(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<user_info>(entry, iid, object);
}

}  // namespace vx

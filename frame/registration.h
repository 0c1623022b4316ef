// Self-registration: the type library, its interfaces and, for every row of
// the class table, the CLSID and ProgID keys. Machine-wide under
// HKEY_CLASSES_ROOT, or for the current user alone under
// HKEY_CURRENT_USER\Software\Classes, which needs no administrator rights.
#pragma once

#include "frame/class_table.h"

#include <oaidl.h>
#include <windows.h>

#include <string>
#include <vector>

namespace vx {

enum class registration_scope { machine, user };

// The library's ProgID prefix, a dot and the class name.
std::wstring prog_id(const class_entry& entry);

// What every class is registered with.
inline constexpr const wchar_t* threading_model = L"Apartment";

// An interface the marshaller serves from the type library: its IID, name
// and proxy-stub class.
struct marshalled_interface {
    std::wstring iid, name;
    const wchar_t* proxy_stub;
};
std::vector<marshalled_interface> marshalled_interfaces(ITypeLib* library);

std::wstring guid_text(REFGUID guid);

HRESULT register_server(registration_scope scope);
HRESULT unregister_server(registration_scope scope);

}  // namespace vx

// Self-registration: the type library, its interfaces and, for every row of
// the class table, the CLSID and ProgID keys. Machine-wide under
// HKEY_LOCAL_MACHINE\Software\Classes, or for the current user alone under
// HKEY_CURRENT_USER\Software\Classes, which needs no administrator rights.
// What is written is described first, as rows, and then written.
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

// One build of the DLL: its file, and its platform (SYS_WIN32 or
// SYS_WIN64), which names its path key under the library's version and
// picks its registry view. The two builds share everything else.
struct registered_module {
    std::wstring path;
    SYSKIND platform;
};

// The registry views a row goes to: the module's own, or both, for what
// the marshallers and type-library loaders of either platform read.
enum class registry_views { module, both };

// The step a row belongs to, which names the failure of its write.
enum class registration_part { type_library, classes };

// One string value that registration writes, under the scope's classes key.
struct registration_row {
    registration_part part;
    registry_views views;
    std::wstring key;
    std::wstring name;   // empty: the key's default value
    std::wstring value;
    // The key this row comes and goes with: unregistration removes it and
    // everything under it, unless the other platform's build has it too.
    std::wstring owner;
};

// Every row that registering the module writes, in the order written: the
// library, its interfaces, then the classes. It reads the library and the
// class table and writes nothing, so a build-time tool can list the rows.
std::vector<registration_row> registration_rows(ITypeLib* library, const registered_module& module);

// A failed registration leaves the registry as it found it. Unregistration
// leaves the other platform's build, when registered, as if it were
// registered alone.
HRESULT register_module(registration_scope scope, ITypeLib* library, const registered_module& module);
HRESULT unregister_module(registration_scope scope, ITypeLib* library, const registered_module& module);

// The same for this DLL.
HRESULT register_server(registration_scope scope);
HRESULT unregister_server(registration_scope scope);

}  // namespace vx

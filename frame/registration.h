// Self-registration: the type library, its interfaces and, for every row of
// the class table, the CLSID and ProgID keys. Machine-wide under
// HKEY_CLASSES_ROOT, or for the current user alone under
// HKEY_CURRENT_USER\Software\Classes, which needs no administrator rights.
#pragma once

#include <windows.h>

namespace vx {

enum class registration_scope { machine, user };

HRESULT register_server(registration_scope scope);
HRESULT unregister_server(registration_scope scope);

}  // namespace vx

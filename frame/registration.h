// Self-registration: the type library, its interfaces and, for every row of
// the class table, the CLSID and ProgID keys.
#pragma once

#include <windows.h>

namespace vx {

HRESULT register_server();
HRESULT unregister_server();

}  // namespace vx

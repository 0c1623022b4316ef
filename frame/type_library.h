// The component's own type library, loaded once from the TYPELIB resource of
// this DLL and kept until the DLL may be unloaded.
#pragma once

#include "frame/handles.h"

#include <oaidl.h>

namespace vx::type_library {

// The library; throws automation_error when it cannot be loaded.
com_ptr<ITypeLib> get();
com_ptr<ITypeInfo> type_info_of(REFGUID guid);

// Drops the cached library; called when nothing of ours is alive.
void release_cache();

}  // namespace vx::type_library

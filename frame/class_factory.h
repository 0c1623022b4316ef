// The class objects: one per row of the class table.
#pragma once

#include "frame/class_table.h"

namespace vx {

// The class object of a row, queried for iid.
HRESULT get_class_object(const class_entry& entry, REFIID iid, void** object);

}  // namespace vx

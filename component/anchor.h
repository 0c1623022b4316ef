// Class_vxTypes32: the library's anchor class. No state, no members.
#pragma once

#include "frame/automation_object.h"
#include "vxTypes32_types.h"

namespace vx {

class anchor final : public automation_object<_Class_vxTypes32> {
public:
    using automation_object::automation_object;
};

}  // namespace vx

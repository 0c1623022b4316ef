// UserInfo: who is logged on and what the computer is called, read from the
// system at each call.
#pragma once

#include "frame/automation_object.h"
#include "vxTypes32_types.h"

namespace vx {

class user_info final : public automation_object<_UserInfo> {
public:
    using automation_object::automation_object;

    HRESULT STDMETHODCALLTYPE get_Logon(VARIANT* result) override;
    HRESULT STDMETHODCALLTYPE get_ComputerName(VARIANT* result) override;
};

}  // namespace vx

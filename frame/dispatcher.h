// Late binding from the member tables: IDispatch::GetIDsOfNames and Invoke
// without the type library, with the platform's rules for finding members,
// coercing arguments and reporting failures.
#pragma once

#include "frame/member_table.h"

namespace vx {

HRESULT dispatch_ids_of_names(const interface_members& members, LPOLESTR* names, UINT count, DISPID* ids);

HRESULT dispatch_invoke(const interface_members& members, IDispatch* object, DISPID id, WORD flags,
                        DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* argument_error);

}  // namespace vx

#include "frame/dispatcher.h"

#include "frame/handles.h"

#include <cstring>

namespace vx {

namespace {

// No member of the library takes more.
constexpr unsigned max_params = 16;

bool same_name(const wchar_t* a, const wchar_t* b) {
    return CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}

bool kind_matches(INVOKEKIND kind, WORD flags) {
    switch (kind) {
    case INVOKE_FUNC: return flags & DISPATCH_METHOD;
    case INVOKE_PROPERTYGET: return flags & DISPATCH_PROPERTYGET;
    case INVOKE_PROPERTYPUT: return flags & DISPATCH_PROPERTYPUT;
    case INVOKE_PROPERTYPUTREF: return flags & DISPATCH_PROPERTYPUTREF;
    }
    return false;
}

const member_entry* find_member(const interface_members& members, DISPID id, WORD flags, unsigned* index) {
    for (unsigned i = 0; i < members.count; ++i) {
        const member_entry& m = members.members[i];
        if (m.dispid == id && kind_matches(m.invoke_kind, flags)) {
            *index = i;
            return &m;
        }
    }
    return nullptr;
}

bool is_missing(const VARIANT& argument) {
    return V_VT(&argument) == VT_ERROR && V_ERROR(&argument) == DISP_E_PARAMNOTFOUND;
}

// A record, by value, by reference or in a Variant variable. It goes to a
// record parameter only: converting or copying it for any other would take
// the platform's record support, which 64-bit Wine cannot give ours.
bool holds_record(const VARIANT& argument) {
    VARTYPE type = V_VT(&argument);
    if (type == (VT_BYREF | VT_VARIANT) && V_VARIANTREF(&argument)) type = V_VT(V_VARIANTREF(&argument));
    return (type & ~VT_BYREF) == VT_RECORD;
}

// The address of the value a VARIANT of this type holds.
void* value_address(VARIANT& v) {
    if (V_VT(&v) == VT_VARIANT) return &v;
    return &V_UI1(&v);
}

// A declared default, as a value of the parameter's own type where that is
// a plain number, else as the nearest automation value to be coerced.
void default_value(const member_param& param, VARIANT& value) {
    const member_default& d = param.default_value;
    if (d.type != VT_EMPTY && d.type != VT_BSTR) {
        switch (param.type) {
        case VT_I4: V_VT(&value) = VT_I4; V_I4(&value) = d.integer; return;
        case VT_I2: V_VT(&value) = VT_I2; V_I2(&value) = static_cast<SHORT>(d.integer); return;
        case VT_BOOL: V_VT(&value) = VT_BOOL; V_BOOL(&value) = d.integer ? VARIANT_TRUE : VARIANT_FALSE; return;
        case VT_UI1: V_VT(&value) = VT_UI1; V_UI1(&value) = static_cast<BYTE>(d.integer); return;
        default: break;
        }
    }
    switch (d.type) {
    case VT_EMPTY:
        // An optional Variant without a default arrives as "missing".
        V_VT(&value) = VT_ERROR;
        V_ERROR(&value) = DISP_E_PARAMNOTFOUND;
        return;
    case VT_BSTR:
        V_VT(&value) = VT_BSTR;
        V_BSTR(&value) = bstr_from(d.text).release();
        return;
    case VT_R4:
    case VT_R8:
    case VT_DATE:
        V_VT(&value) = VT_R8;
        V_R8(&value) = d.real;
        return;
    default:
        V_VT(&value) = VT_I4;
        V_I4(&value) = d.integer;
        return;
    }
}

// The arguments of one call, in parameter order, and what must happen to
// them afterwards.
class prepared_call {
public:
    explicit prepared_call(unsigned count) : count_(count) {
        for (unsigned k = 0; k < count_; ++k) {
            V_VT(&temporaries_[k]) = VT_EMPTY;
            write_back_[k] = nullptr;
        }
    }
    prepared_call(const prepared_call&) = delete;
    prepared_call& operator=(const prepared_call&) = delete;
    ~prepared_call() {
        // Only what holds a resource needs the platform to free it.
        for (unsigned k = 0; k < count_; ++k)
            if (V_VT(&temporaries_[k]) >= VT_BSTR) VariantClear(&temporaries_[k]);
    }

    // Prepares parameter k from the caller's argument, or from its default
    // when the argument is absent.
    HRESULT prepare(unsigned k, const member_param& param, VARIANT* argument) {
        VARIANT& temporary = temporaries_[k];
        if (!argument || is_missing(*argument)) {
            if (!param.optional && argument) return coerce(k, param, *argument);
            if (!param.optional) return DISP_E_PARAMNOTOPTIONAL;
            default_value(param, temporary);
            if (param.type == VT_VARIANT) {
                addresses_[k] = &temporary;
                return S_OK;
            }
            if (V_VT(&temporary) == param.type) {
                addresses_[k] = value_address(temporary);
                return S_OK;
            }
            return coerce_in_place(k, param);
        }
        if (param.type != VT_RECORD && holds_record(*argument)) return DISP_E_TYPEMISMATCH;
        if (!param.by_reference && !param.interface_id && param.type != VT_VARIANT) {
            // A value of exactly the parameter's type is read where it lies:
            // a member never frees or changes what it takes by value.
            if (V_VT(argument) == param.type) {
                addresses_[k] = &V_UI1(argument);
                return S_OK;
            }
            if (V_VT(argument) == (VT_BYREF | param.type)) {
                addresses_[k] = V_BYREF(argument);
                return S_OK;
            }
        }
        if (param.by_reference) {
            // A variable of exactly the parameter's type is passed through.
            if (V_VT(argument) == (VT_BYREF | param.type) && param.type != VT_VARIANT &&
                !param.interface_id) {
                addresses_[k] = V_BYREF(argument);
                return S_OK;
            }
            if (param.type == VT_VARIANT && V_VT(argument) == (VT_BYREF | VT_VARIANT)) {
                addresses_[k] = V_VARIANTREF(argument);
                return S_OK;
            }
            if (V_VT(argument) == (VT_BYREF | VT_VARIANT)) {
                // A Variant variable: the member works on a value of its own
                // type, which goes back into the variable afterwards.
                VARIANT* variable = V_VARIANTREF(argument);
                if (V_VT(variable) == param.type && !param.interface_id) {
                    addresses_[k] = value_address(*variable);
                    return S_OK;
                }
                const HRESULT hr = coerce(k, param, *variable);
                if (SUCCEEDED(hr)) write_back_[k] = variable;
                return hr;
            }
        }
        return coerce(k, param, *argument);
    }

    void* const* addresses() const { return addresses_; }

    // Puts the values of ByRef Variant variables back, as the member left them.
    void write_back() {
        for (unsigned k = 0; k < count_; ++k) {
            if (!write_back_[k]) continue;
            VariantClear(write_back_[k]);
            *write_back_[k] = temporaries_[k];
            VariantInit(&temporaries_[k]);
        }
    }

private:
    HRESULT coerce(unsigned k, const member_param& param, VARIANT& argument) {
        VARIANT& temporary = temporaries_[k];
        if (param.type == VT_VARIANT) {
            const HRESULT hr = VariantCopyInd(&temporary, &argument);
            addresses_[k] = &temporary;
            return hr;
        }
        HRESULT hr = VariantChangeType(&temporary, &argument, 0, param.type);
        if (FAILED(hr)) return hr;
        return finish_object(k, param);
    }

    HRESULT coerce_in_place(unsigned k, const member_param& param) {
        VARIANT& temporary = temporaries_[k];
        const HRESULT hr = VariantChangeType(&temporary, &temporary, 0, param.type);
        if (FAILED(hr)) return hr;
        return finish_object(k, param);
    }

    // An object parameter gets the interface it is declared with.
    HRESULT finish_object(unsigned k, const member_param& param) {
        VARIANT& temporary = temporaries_[k];
        addresses_[k] = value_address(temporary);
        if (!param.interface_id || (V_VT(&temporary) != VT_DISPATCH && V_VT(&temporary) != VT_UNKNOWN))
            return S_OK;
        IUnknown* object = V_UNKNOWN(&temporary);
        if (!object) return S_OK;
        IUnknown* asked = nullptr;
        const HRESULT hr = object->QueryInterface(*param.interface_id, reinterpret_cast<void**>(&asked));
        object->Release();
        V_UNKNOWN(&temporary) = nullptr;
        V_VT(&temporary) = VT_EMPTY;
        if (FAILED(hr)) return DISP_E_TYPEMISMATCH;
        // The declared type, as it may go back into a caller's variable.
        V_VT(&temporary) = param.type;
        V_UNKNOWN(&temporary) = asked;
        return S_OK;
    }

    // Only the slots of the member's own parameters are set, so that a call
    // costs what its parameters need, not what the longest member takes.
    unsigned count_;
    VARIANT temporaries_[max_params];
    void* addresses_[max_params];
    VARIANT* write_back_[max_params];
};

void fill_exception(EXCEPINFO* exception, HRESULT hr) {
    std::memset(exception, 0, sizeof *exception);
    exception->scode = hr;
    com_ptr<IErrorInfo> info;
    if (GetErrorInfo(0, info.put()) != S_OK || !info) return;
    info->GetSource(&exception->bstrSource);
    info->GetDescription(&exception->bstrDescription);
    info->GetHelpFile(&exception->bstrHelpFile);
    info->GetHelpContext(&exception->dwHelpContext);
}

HRESULT invoke_member(const interface_members& members, IDispatch* object, unsigned index, const member_entry& member,
                      DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* argument_error) {
    const bool is_put = member.invoke_kind == INVOKE_PROPERTYPUT || member.invoke_kind == INVOKE_PROPERTYPUTREF;
    const UINT named = params->cNamedArgs;
    const UINT positional = params->cArgs - named;
    if (is_put && (named == 0 || params->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT))
        return DISP_E_PARAMNOTFOUND;

    // Where each parameter's argument is: positional ones in reverse order
    // after the named ones; the value of a put is the last parameter.
    // Every slot starts empty, so that no check reads one nobody set.
    VARIANT* arguments[max_params] = {};
    UINT positions[max_params];
    for (UINT p = 0; p < positional; ++p) {
        positions[p] = params->cArgs - 1 - p;
        arguments[p] = &params->rgvarg[positions[p]];
    }
    for (UINT n = 0; n < named; ++n) {
        DISPID target = params->rgdispidNamedArgs[n];
        if (target == DISPID_PROPERTYPUT && is_put) target = static_cast<DISPID>(member.param_count - 1);
        if (target < 0 || static_cast<unsigned>(target) >= member.param_count || arguments[target]) {
            if (argument_error) *argument_error = n;
            return DISP_E_PARAMNOTFOUND;
        }
        positions[target] = n;
        arguments[target] = &params->rgvarg[n];
    }

    prepared_call call(member.param_count);
    for (unsigned k = 0; k < member.param_count; ++k) {
        const HRESULT hr = call.prepare(k, member.params[k], arguments[k]);
        if (FAILED(hr)) {
            if (argument_error && arguments[k]) *argument_error = positions[k];
            return hr == DISP_E_PARAMNOTOPTIONAL ? DISP_E_BADPARAMCOUNT : hr;
        }
    }

    // The retval's storage: a Variant result is the VARIANT itself, any
    // other the value inside one of that type.
    unique_variant retval;
    void* retval_address = retval.get();
    if (member.result_type != VT_EMPTY && member.result_type != VT_VARIANT) {
        // Zeroed: a failed member leaves its retval unwritten, and the
        // variant is still cleared.
        std::memset(retval.get(), 0, sizeof(VARIANT));
        V_VT(retval.get()) = member.result_type;
        retval_address = &V_UI1(retval.get());
    }
    const HRESULT hr = members.call(object, index, call.addresses(), retval_address);
    call.write_back();
    if (FAILED(hr)) {
        if (!exception) return hr;
        fill_exception(exception, hr);
        return DISP_E_EXCEPTION;
    }
    if (result && member.result_type != VT_EMPTY) retval.detach_to(result);
    return S_OK;
}

// A property read with arguments beyond its own: the surplus goes to the
// default member of the object it returns.
HRESULT invoke_collection(const interface_members& members, IDispatch* object, unsigned index,
                          const member_entry& member, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                          UINT* argument_error) {
    const UINT own = member.param_count;
    DISPPARAMS own_params = {params->rgvarg + (params->cArgs - own), nullptr, own, 0};
    unique_variant collection;
    HRESULT hr = invoke_member(members, object, index, member, &own_params, collection.get(), exception,
                               argument_error);
    if (FAILED(hr)) return hr;
    if (V_VT(collection.get()) != VT_DISPATCH || !V_DISPATCH(collection.get())) return DISP_E_NOTACOLLECTION;
    DISPPARAMS rest = {params->rgvarg, nullptr, params->cArgs - own, 0};
    return V_DISPATCH(collection.get())
        ->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_PROPERTYGET, &rest, result, exception, argument_error);
}

}  // namespace

HRESULT dispatch_ids_of_names(const interface_members& members, LPOLESTR* names, UINT count, DISPID* ids) {
    if (!names || !ids) return E_INVALIDARG;
    if (count == 0) return S_OK;
    const member_entry* found = nullptr;
    for (unsigned i = 0; i < members.count && !found; ++i)
        if (same_name(members.members[i].name, names[0])) found = &members.members[i];
    for (UINT n = 0; n < count; ++n) ids[n] = DISPID_UNKNOWN;
    if (!found) return DISP_E_UNKNOWNNAME;
    ids[0] = found->dispid;

    // Parameter names are those of the first member of that name only, as
    // ITypeInfo::GetIDsOfNames finds them: a let's parameter is unknown
    // when its get comes first, and the value a put takes has no name in
    // the type library.
    const bool is_put = found->invoke_kind == INVOKE_PROPERTYPUT || found->invoke_kind == INVOKE_PROPERTYPUTREF;
    const unsigned named = is_put && found->param_count > 0 ? found->param_count - 1 : found->param_count;
    HRESULT result = S_OK;
    for (UINT n = 1; n < count; ++n) {
        for (unsigned k = 0; k < named && ids[n] == DISPID_UNKNOWN; ++k)
            if (same_name(found->params[k].name, names[n])) ids[n] = static_cast<DISPID>(k);
        if (ids[n] == DISPID_UNKNOWN) result = DISP_E_UNKNOWNNAME;
    }
    return result;
}

HRESULT dispatch_invoke(const interface_members& members, IDispatch* object, DISPID id, WORD flags,
                        DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* argument_error) {
    if (!params) return E_INVALIDARG;
    unsigned index = 0;
    const member_entry* member = find_member(members, id, flags, &index);
    if (!member) return DISP_E_MEMBERNOTFOUND;

    const UINT named = params->cNamedArgs;
    if (params->cArgs < named) return DISP_E_BADPARAMCOUNT;
    if (params->cArgs > member->param_count) {
        // Arguments given to a property that takes none index what it
        // returns, as a collection.
        if ((flags & DISPATCH_PROPERTYGET) && member->invoke_kind == INVOKE_PROPERTYGET && member->param_count == 0 &&
            named == 0)
            return invoke_collection(members, object, index, *member, params, result, exception, argument_error);
        return DISP_E_BADPARAMCOUNT;
    }
    return invoke_member(members, object, index, *member, params, result, exception, argument_error);
}

}  // namespace vx

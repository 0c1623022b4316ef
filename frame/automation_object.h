// The frame's part of every class: identity, reference counting, late
// binding from the generated member tables, error-info support and class
// info. A class derives from
// automation_object<its default interface> and implements the members.
#pragma once

#include "frame/automation_error.h"
#include "frame/class_table.h"
#include "frame/dispatcher.h"
#include "frame/handles.h"
#include "frame/module.h"
#include "frame/type_library.h"
#include "library_identity.h"

#include <ocidl.h>

#include <new>

namespace vx {

template <class Interface>
class automation_object : public Interface, public ISupportErrorInfo, public IProvideClassInfo2 {
public:
    explicit automation_object(const class_entry& entry) : entry_(entry) { module::object_created(); }
    automation_object(const automation_object&) = delete;
    automation_object& operator=(const automation_object&) = delete;
    virtual ~automation_object() { module::object_destroyed(); }

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = interface_for(iid);
        if (!*object) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references_)); }
    ULONG STDMETHODCALLTYPE Release() override {
        const LONG left = InterlockedDecrement(&references_);
        if (left == 0) delete this;  // the destructor is the class's termination step
        return static_cast<ULONG>(left);
    }

    // IDispatch
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (!count) return E_POINTER;
        *count = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
        if (!info) return E_POINTER;
        *info = nullptr;
        if (index != 0) return DISP_E_BADINDEX;
        return com_boundary(identity::library_name, [&] { *info = interface_type_info().detach(); });
    }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID,
                                            DISPID* ids) override {
        if (!IsEqualIID(iid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
        return dispatch_ids_of_names(members_of(static_cast<Interface*>(nullptr)), names, count, ids);
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argument_error) override {
        if (!IsEqualIID(iid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
        return dispatch_invoke(members_of(static_cast<Interface*>(nullptr)), static_cast<Interface*>(this), id,
                               flags, params, result, exception, argument_error);
    }

    // ISupportErrorInfo
    HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID iid) override {
        return entry_.answers_for(iid) ? S_OK : S_FALSE;
    }

    // IProvideClassInfo2
    HRESULT STDMETHODCALLTYPE GetClassInfo(ITypeInfo** info) override {
        if (!info) return E_POINTER;
        *info = nullptr;
        return com_boundary(identity::library_name,
                            [&] { *info = type_library::type_info_of(*entry_.clsid).detach(); });
    }
    HRESULT STDMETHODCALLTYPE GetGUID(DWORD kind, GUID* guid) override {
        if (!guid) return E_POINTER;
        *guid = GUID_NULL;
        if (kind != GUIDKIND_DEFAULT_SOURCE_DISP_IID || !entry_.source_interface) return E_INVALIDARG;
        *guid = *entry_.source_interface;
        return S_OK;
    }

    // The instance's one identity.
    IUnknown* identity() { return static_cast<Interface*>(this); }

protected:
    const class_entry& entry() const { return entry_; }

    // Further interfaces a class answers for (connection points, say).
    virtual void* extra_interface(REFIID) { return nullptr; }

private:
    void* interface_for(REFIID iid) {
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || entry_.answers_for(iid))
            return static_cast<Interface*>(this);
        if (IsEqualIID(iid, IID_ISupportErrorInfo)) return static_cast<ISupportErrorInfo*>(this);
        if (IsEqualIID(iid, IID_IProvideClassInfo)) return static_cast<IProvideClassInfo2*>(this);
        // The second version only where there is a default source to tell.
        if (IsEqualIID(iid, IID_IProvideClassInfo2) && entry_.source_interface)
            return static_cast<IProvideClassInfo2*>(this);
        return extra_interface(iid);
    }

    com_ptr<ITypeInfo> interface_type_info() {
        if (!interface_info_) interface_info_ = type_library::type_info_of(*entry_.interface_id);
        return interface_info_;
    }

    const class_entry& entry_;
    volatile LONG references_ = 0;
    com_ptr<ITypeInfo> interface_info_;
};

// The class-object side of activation: a new instance, its initialisation
// step, then the requested interface.
template <class Object>
HRESULT create_instance(const class_entry& entry, REFIID iid, void** object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    Object* instance = new (std::nothrow) Object(entry);
    if (!instance) return E_OUTOFMEMORY;
    instance->AddRef();
    const HRESULT hr = instance->QueryInterface(iid, object);
    instance->Release();
    return hr;
}

}  // namespace vx

#include "frame/class_factory.h"

#include "frame/module.h"

#include <objbase.h>

#include <iterator>
#include <new>

namespace vx {

namespace {

// Class objects live as long as the DLL: references to them do not keep it
// loaded, LockServer does.
class class_factory final : public IClassFactory {
public:
    void bind(const class_entry& entry) { entry_ = &entry; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory)) {
            *object = static_cast<IClassFactory*>(this);
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (outer) return CLASS_E_NOAGGREGATION;
        return entry_->create(*entry_, iid, object);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
        if (lock)
            module::lock();
        else
            module::unlock();
        return S_OK;
    }

private:
    const class_entry* entry_ = nullptr;
};

}  // namespace

HRESULT get_class_object(const class_entry& entry, REFIID iid, void** object) {
    // One class object per row; binding is idempotent, so racing apartments
    // store the same pointer.
    static class_factory factories[64];
    const auto row = static_cast<size_t>(&entry - class_table_begin());
    if (row >= std::size(factories)) return E_UNEXPECTED;
    factories[row].bind(entry);
    return factories[row].QueryInterface(iid, object);
}

}  // namespace vx

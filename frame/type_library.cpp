#include "frame/type_library.h"

#include "frame/automation_error.h"
#include "frame/module.h"
#include "library_identity.h"

namespace vx::type_library {

namespace {
SRWLOCK cache_lock = SRWLOCK_INIT;
ITypeLib* cached;
}  // namespace

com_ptr<ITypeLib> get() {
    AcquireSRWLockExclusive(&cache_lock);
    if (!cached) {
        const std::wstring path = module::file_path();
        if (FAILED(LoadTypeLibEx(path.c_str(), REGKIND_NONE, &cached))) cached = nullptr;
    }
    com_ptr<ITypeLib> library = com_ptr<ITypeLib>::copy(cached);
    ReleaseSRWLockExclusive(&cache_lock);
    if (!library) raise_error(TYPE_E_CANTLOADLIBRARY, identity::library_name, L"The type library cannot be loaded.");
    return library;
}

com_ptr<ITypeInfo> type_info_of(REFGUID guid) {
    com_ptr<ITypeInfo> info;
    const HRESULT hr = get()->GetTypeInfoOfGuid(guid, info.put());
    if (FAILED(hr)) raise_error(hr, identity::library_name, L"The type library does not describe this type.");
    return info;
}

void release_cache() {
    AcquireSRWLockExclusive(&cache_lock);
    ITypeLib* old = cached;
    cached = nullptr;
    ReleaseSRWLockExclusive(&cache_lock);
    if (old) old->Release();
}

}  // namespace vx::type_library

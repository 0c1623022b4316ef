#include "frame/module.h"

namespace vx::module {

namespace {
// Plain zero-initialised data: loading the DLL runs no code of ours.
volatile LONG live_objects;
volatile LONG server_locks;
}  // namespace

HMODULE handle() {
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&handle), &self);
    return self;
}

std::wstring file_path() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(handle(), path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) return {};
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

void object_created() { InterlockedIncrement(&live_objects); }
void object_destroyed() { InterlockedDecrement(&live_objects); }
void lock() { InterlockedIncrement(&server_locks); }
// An unmatched unlock leaves the count at zero: below it, the DLL could not
// be unloaded until some other lock balanced it.
void unlock() {
    for (LONG count = server_locks; count > 0;) {
        const LONG seen = InterlockedCompareExchange(&server_locks, count - 1, count);
        if (seen == count) return;
        count = seen;
    }
}
bool in_use() { return live_objects != 0 || server_locks != 0; }

}  // namespace vx::module

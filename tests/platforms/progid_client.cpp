// A client of the registered component: creates every class by ProgID,
// in process, and says which DLL served it. Built for both platforms, so a
// 32-bit and a 64-bit process can ask one registry for the same ProgIDs.
// Usage: progid_client EXPECTED_DLL_PATH; the exit code counts failures.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/registration.h"

#include <cstdio>
#include <string>

namespace {

// The module whose code answers the object's first vtable entry.
std::wstring serving_module(IUnknown* object) {
    HMODULE module = nullptr;
    const auto entry = reinterpret_cast<LPCWSTR>(*reinterpret_cast<void**>(object));
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            entry, &module))
        return L"";
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(module, path, MAX_PATH);
    return path;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: progid_client EXPECTED_DLL_PATH\n");
        return 100;
    }
    wchar_t expected[MAX_PATH] = {};
    GetFullPathNameW(argv[1], MAX_PATH, expected, nullptr);
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 100;
    int failures = 0;
    for (const vx::class_entry& entry : vx::class_table()) {
        const std::wstring id = vx::prog_id(entry);
        CLSID clsid{};
        vx::com_ptr<IUnknown> object;
        HRESULT hr = CLSIDFromProgID(id.c_str(), &clsid);
        if (SUCCEEDED(hr) && !IsEqualCLSID(clsid, *entry.clsid)) hr = E_UNEXPECTED;
        if (SUCCEEDED(hr)) hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, object.put_void());
        const std::wstring served = SUCCEEDED(hr) ? serving_module(object.get()) : L"";
        const bool own = lstrcmpiW(served.c_str(), expected) == 0;
        if (!own) ++failures;
        std::printf("%-30ls %s 0x%08lX %ls\n", id.c_str(), own ? "ok  " : "FAIL", static_cast<unsigned long>(hr),
                    served.c_str());
    }
    CoUninitialize();
    return failures;
}

// What a call costs: through the vtable, through IDispatch::Invoke, and the
// price of creating and releasing an instance. Prints figures; asserts
// nothing.
#include "frame/handles.h"
#include "vxTypes32_types.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

namespace {

using clock_type = std::chrono::steady_clock;

// Nanoseconds per iteration of body, best of a few rounds.
double ns_per_call(long iterations, const std::function<void()>& body) {
    double best = 1e300;
    for (int round = 0; round < 5; ++round) {
        const auto start = clock_type::now();
        for (long i = 0; i < iterations; ++i) body();
        const std::chrono::duration<double, std::nano> elapsed = clock_type::now() - start;
        best = std::min(best, elapsed.count() / iterations);
    }
    return best;
}

// Keeps the compiler from dropping the measured call.
volatile HRESULT sink;

}  // namespace

int main() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    HMODULE dll = LoadLibraryW(L"vxTypes32.dll");
    auto register_server = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void*>(GetProcAddress(dll, "DllRegisterServer")));
    if (!register_server || FAILED(register_server())) {
        std::puts("vxTypes32.dll could not be loaded and registered");
        return 1;
    }

    vx::com_ptr<_UserInfo> user;
    if (FAILED(CoCreateInstance(CLSID_UserInfo, nullptr, CLSCTX_INPROC_SERVER, IID__UserInfo, user.put_void()))) {
        std::puts("UserInfo could not be created");
        return 1;
    }

    std::printf("vxTypes32 call costs (Wine %s, 32-bit prefix)\n",
                GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")
                    ? reinterpret_cast<const char* (*)()>(reinterpret_cast<void*>(
                          GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")))()
                    : "none");

    const long calls = 20000;
    const double vtable = ns_per_call(calls, [&] {
        VARIANT result;
        sink = user->get_Logon(&result);
        VariantClear(&result);
    });
    DISPPARAMS none = {nullptr, nullptr, 0, 0};
    const double invoke = ns_per_call(calls, [&] {
        VARIANT result;
        VariantInit(&result);
        sink = user->Invoke(0, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &result, nullptr, nullptr);
        VariantClear(&result);
    });
    // The member itself does the same work both ways; the difference is what
    // late binding adds.
    std::printf("  Logon through the vtable:          %8.1f ns\n", vtable);
    std::printf("  Logon through IDispatch::Invoke:   %8.1f ns\n", invoke);
    std::printf("  late binding adds:                 %8.1f ns (%.1fx the vtable call)\n", invoke - vtable,
                invoke / vtable);

    vx::com_ptr<IDispatch> anchor;
    CoCreateInstance(CLSID_Class_vxTypes32, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, anchor.put_void());
    const double bare_vtable = ns_per_call(calls * 50, [&] {
        UINT count = 0;
        sink = anchor->GetTypeInfoCount(&count);
    });
    std::printf("  a bare vtable call:                %8.1f ns\n", bare_vtable);

    const double create = ns_per_call(calls / 50, [&] {
        IDispatch* object = nullptr;
        sink = CoCreateInstance(CLSID_Class_vxTypes32, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                reinterpret_cast<void**>(&object));
        if (object) object->Release();
    });
    std::printf("  CoCreateInstance + Release:        %8.1f ns\n", create);

    // The same without the registry look-ups: the component's own share.
    vx::com_ptr<IClassFactory> factory;
    CoGetClassObject(CLSID_Class_vxTypes32, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, factory.put_void());
    const double create_direct = ns_per_call(calls, [&] {
        IDispatch* object = nullptr;
        sink = factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&object));
        if (object) object->Release();
    });
    std::printf("  IClassFactory::CreateInstance + Release: %8.1f ns\n", create_direct);
    factory.reset();

    user.reset();
    anchor.reset();
    CoUninitialize();
    return 0;
}

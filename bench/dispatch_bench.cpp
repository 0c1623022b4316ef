// What a call costs: through the vtable, through IDispatch::Invoke, and the
// price of creating and releasing an instance. Prints figures; asserts
// nothing.
#include "frame/automation_object.h"
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
volatile LONG seen;

// Members that do next to nothing, so that what is measured is the way the
// call arrives: the frame's dispatcher against ITypeInfo::Invoke.
class trivial_sorter final : public vx::automation_object<_clsQuickSort> {
public:
    using automation_object::automation_object;
    HRESULT STDMETHODCALLTYPE get_runtime(LONG* result) override {
        *result = runtime_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_runtime(LONG value) override {
        runtime_ = value;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Sort(LONG, LONG) override { return S_OK; }

private:
    LONG runtime_ = 42;
};

class trivial_section final : public vx::automation_object<_cDIBSection> {
public:
    using automation_object::automation_object;
    HRESULT STDMETHODCALLTYPE CopyToClipboard(VARIANT_BOOL, VARIANT_BOOL*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE CreateDIB(LONG_PTR, LONG, LONG, LONG_PTR*, VARIANT_BOOL*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE CreateFromPicture(IPictureDisp**, VARIANT*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Create(LONG, LONG, VARIANT_BOOL*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_BytesPerScanLine(LONG*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_Width(LONG*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_Height(LONG*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE LoadPictureBlt(LONG_PTR dc, LONG left, LONG top, LONG width, LONG height,
                                             RasterOpConstants rop) override {
        seen = dc + left + top + width + height + rop;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE PaintPicture(LONG_PTR, LONG, LONG, LONG, LONG, LONG, LONG, RasterOpConstants) override {
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_hdc(LONG_PTR*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_hDib(LONG_PTR*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_DIBSectionBitsPtr(LONG_PTR*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE RandomiseBits(VARIANT_BOOL) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE ClearUp() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Resample(LONG, LONG, _cDIBSection**) override { return S_OK; }
};

const vx::class_entry sorter_entry = {L"clsQuickSort", &CLSID_clsQuickSort, &IID__clsQuickSort, nullptr,
                                      &DIID___clsQuickSort, &interface_members_of__clsQuickSort, nullptr};
const vx::class_entry section_entry = {L"cDIBSection", &CLSID_cDIBSection, &IID__cDIBSection, nullptr, nullptr,
                                       &interface_members_of__cDIBSection, nullptr};

struct dispatch_figures {
    double vtable, ours, type_info;
};

// Every figure names the bitness it was measured in: the two DLLs' costs
// differ, and each is compared within its own process only.
const char* const bitness = sizeof(void*) == 8 ? "64-bit" : "32-bit";

void print(const char* what, const dispatch_figures& f) {
    std::printf("  %s\n", what);
    std::printf("    %s through the vtable:               %8.1f ns\n", bitness, f.vtable);
    std::printf("    %s through our IDispatch::Invoke:    %8.1f ns\n", bitness, f.ours);
    std::printf("    %s through ITypeInfo::Invoke:        %8.1f ns   (ours is %.1fx faster)\n", bitness, f.type_info,
                f.type_info / f.ours);
}

// A Long property read and a method given three of its arguments (the rest
// take their defaults), each way.
void compare_dispatchers(ITypeLib* library) {
    const long calls = 200000;
    {
        trivial_sorter* sorter = new trivial_sorter(sorter_entry);
        sorter->AddRef();
        vx::com_ptr<ITypeInfo> info;
        library->GetTypeInfoOfGuid(IID__clsQuickSort, info.put());
        DISPPARAMS none = {nullptr, nullptr, 0, 0};
        dispatch_figures f;
        f.vtable = ns_per_call(calls, [&] {
            LONG value = 0;
            sink = sorter->get_runtime(&value);
        });
        f.ours = ns_per_call(calls, [&] {
            VARIANT result;
            VariantInit(&result);
            sink = sorter->Invoke(0x40030000, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &result, nullptr, nullptr);
        });
        f.type_info = ns_per_call(calls, [&] {
            VARIANT result;
            VariantInit(&result);
            sink = info->Invoke(static_cast<_clsQuickSort*>(sorter), 0x40030000, DISPATCH_PROPERTYGET, &none,
                                &result, nullptr, nullptr);
        });
        print("a Long property get (clsQuickSort.runtime)", f);
        sorter->Release();
    }
    {
        trivial_section* section = new trivial_section(section_entry);
        section->AddRef();
        vx::com_ptr<ITypeInfo> info;
        library->GetTypeInfoOfGuid(IID__cDIBSection, info.put());
        VARIANT arguments[3];
        for (VARIANT& a : arguments) V_VT(&a) = VT_I4;
        V_I4(&arguments[2]) = 1;  // lhDC; arguments travel in reverse order
        V_I4(&arguments[1]) = 2;
        V_I4(&arguments[0]) = 3;
        DISPPARAMS three = {arguments, nullptr, 3, 0};
        dispatch_figures f;
        f.vtable = ns_per_call(calls, [&] {
            sink = section->LoadPictureBlt(1, 2, 3, -1, -1, static_cast<RasterOpConstants>(13369376));
        });
        f.ours = ns_per_call(calls, [&] {
            sink = section->Invoke(0x6003000A, IID_NULL, 0, DISPATCH_METHOD, &three, nullptr, nullptr, nullptr);
        });
        f.type_info = ns_per_call(calls, [&] {
            sink = info->Invoke(static_cast<_cDIBSection*>(section), 0x6003000A, DISPATCH_METHOD, &three, nullptr,
                                nullptr, nullptr);
        });
        print("a method given three arguments (cDIBSection.LoadPictureBlt)", f);
        section->Release();
    }
}

// Loads and registers the DLL beside the program, registers the stand-in
// for the VB runtime's library, and loads our type library; null on failure.
vx::com_ptr<ITypeLib> prepare() {
    HMODULE dll = LoadLibraryW(L"vxTypes32.dll");
    auto register_server = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void*>(GetProcAddress(dll, "DllRegisterServer")));
    if (!register_server || FAILED(register_server())) {
        std::puts("vxTypes32.dll could not be loaded and registered");
        return nullptr;
    }
    // The type-library path resolves the raster-operation enumeration
    // through the registry: the stand-in for the VB runtime's library.
    vx::com_ptr<ITypeLib> standin;
    LoadTypeLibEx(L"vbrun_standin.tlb", REGKIND_REGISTER, standin.put());
    vx::com_ptr<ITypeLib> library;
    if (FAILED(LoadTypeLibEx(L"vxTypes32.dll", REGKIND_NONE, library.put()))) {
        std::puts("the type library could not be loaded");
        return nullptr;
    }
    return library;
}

const char* wine_version() {
    using version_function = const char* (*)();
    const auto get = reinterpret_cast<version_function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
    return get ? get() : "none";
}

// A member that does real work (UserInfo.Logon), each way: the difference
// is what late binding adds.
void late_binding_cost(_UserInfo* user) {
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
    std::printf("  %s Logon through the vtable:          %8.1f ns\n", bitness, vtable);
    std::printf("  %s Logon through IDispatch::Invoke:   %8.1f ns\n", bitness, invoke);
    std::printf("  %s late binding adds:                 %8.1f ns (%.1fx the vtable call)\n", bitness,
                invoke - vtable, invoke / vtable);
}

// A bare vtable call, and making and releasing an instance with and
// without the registry look-ups.
void creation_costs() {
    const long calls = 20000;
    vx::com_ptr<IDispatch> anchor;
    CoCreateInstance(CLSID_Class_vxTypes32, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, anchor.put_void());
    const double bare_vtable = ns_per_call(calls * 50, [&] {
        UINT count = 0;
        sink = anchor->GetTypeInfoCount(&count);
    });
    std::printf("  %s a bare vtable call:                %8.1f ns\n", bitness, bare_vtable);
    const double create = ns_per_call(calls / 50, [&] {
        IDispatch* object = nullptr;
        sink = CoCreateInstance(CLSID_Class_vxTypes32, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                reinterpret_cast<void**>(&object));
        if (object) object->Release();
    });
    std::printf("  %s CoCreateInstance + Release:        %8.1f ns\n", bitness, create);
    vx::com_ptr<IClassFactory> factory;
    CoGetClassObject(CLSID_Class_vxTypes32, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, factory.put_void());
    const double create_direct = ns_per_call(calls, [&] {
        IDispatch* object = nullptr;
        sink = factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&object));
        if (object) object->Release();
    });
    std::printf("  %s IClassFactory::CreateInstance + Release: %8.1f ns\n", bitness, create_direct);
}

}  // namespace

int main() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    {
        vx::com_ptr<ITypeLib> library = prepare();
        if (!library) return 1;
        vx::com_ptr<_UserInfo> user;
        if (FAILED(CoCreateInstance(CLSID_UserInfo, nullptr, CLSCTX_INPROC_SERVER, IID__UserInfo, user.put_void()))) {
            std::puts("UserInfo could not be created");
            return 1;
        }
        std::printf("vxTypes32 call costs (Wine %s, %s process)\n", wine_version(), bitness);
        compare_dispatchers(library.get());
        late_binding_cost(user.get());
        creation_costs();
    }
    CoUninitialize();
    return 0;
}

// A client of the registered component: creates every class by ProgID,
// in process, says which DLL served it, and calls it from another
// apartment through the marshaller, which works from the registered
// interfaces and type library. Built for both platforms, so a
// 32-bit and a 64-bit process can ask one registry for the same ProgIDs.
// It also prints a fingerprint of results whose bits the contract fixes
// (resampled pixels, complex arithmetic and its text), which both platforms'
// DLLs must print alike.
// Usage: progid_client EXPECTED_DLL_PATH; the exit code counts failures.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/registration.h"

#include "vxTypes32_types.h"

#include <cstdint>
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

struct fingerprint {
    std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
    void add(const void* data, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<const unsigned char*>(data)[i]) * 1099511628211ull;
    }
};

// The object's default interface, called through a proxy from the
// multithreaded apartment while this thread serves the call.
struct crossing { IStream* stream; IID iid; HRESULT result; };

DWORD WINAPI call_from_another_apartment(void* parameter) {
    auto* c = static_cast<crossing*>(parameter);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    vx::com_ptr<IDispatch> proxy;
    UINT count = 0;
    c->result = CoGetInterfaceAndReleaseStream(c->stream, c->iid, proxy.put_void());
    if (SUCCEEDED(c->result)) c->result = proxy->GetTypeInfoCount(&count);
    proxy.reset();
    CoUninitialize();
    return 0;
}

HRESULT crosses_apartments(IUnknown* object, REFIID iid) {
    crossing c = {nullptr, iid, E_UNEXPECTED};
    HRESULT hr = CoMarshalInterThreadInterfaceInStream(iid, object, &c.stream);
    HANDLE thread = SUCCEEDED(hr) ? CreateThread(nullptr, 0, call_from_another_apartment, &c, 0, nullptr) : nullptr;
    if (!thread) return FAILED(hr) ? hr : HRESULT_FROM_WIN32(GetLastError());
    DWORD index = 0;
    hr = CoWaitForMultipleHandles(0, INFINITE, 1, &thread, &index);
    CloseHandle(thread);
    return FAILED(hr) ? hr : c.result;
}

template <class Interface>
vx::com_ptr<Interface> make(const wchar_t* prog_id, REFIID iid) {
    CLSID clsid{};
    vx::com_ptr<Interface> object;
    if (SUCCEEDED(CLSIDFromProgID(prog_id, &clsid)))
        CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object.put_void());
    return object;
}

void add_resampled(fingerprint& print, LONG width, LONG height, LONG new_width, LONG new_height) {
    auto source = make<_cDIBSection>(L"vxTypes32.cDIBSection", IID__cDIBSection);
    VARIANT_BOOL made = VARIANT_FALSE;
    if (!source || FAILED(source->Create(width, height, &made)) || !made) return print.add("no source", 9);
    LONG stride = 0;
    LONG_PTR bits = 0;
    source->get_BytesPerScanLine(&stride);
    source->get_DIBSectionBitsPtr(&bits);
    auto* pixels = reinterpret_cast<unsigned char*>(bits);
    for (LONG i = 0; i < stride * height; ++i) pixels[i] = static_cast<unsigned char>(i * 7919 % 251);
    vx::com_ptr<_cDIBSection> result;
    if (FAILED(source->Resample(new_height, new_width, result.put())) || !result) return print.add("no result", 9);
    result->get_BytesPerScanLine(&stride);
    result->get_DIBSectionBitsPtr(&bits);
    print.add(reinterpret_cast<const void*>(bits), static_cast<std::size_t>(stride) * new_height);
}

void add_complex(fingerprint& print, double real, double imaginary) {
    auto z = make<_CComplexNumber>(L"vxTypes32.CComplexNumber", IID__CComplexNumber);
    if (!z) return print.add("no number", 9);
    vx::com_ptr<_CComplexNumber> same, quotient, reciprocal;
    z->Init(&real, &imaginary, same.put());
    double parts[3] = {};
    if (SUCCEEDED(z->Divide2(&imaginary, &real, quotient.put())) && quotient) {
        quotient->get_Real(&parts[0]);
        quotient->get_Imaginary(&parts[1]);
    }
    z->Magnitude(&parts[2]);
    print.add(parts, sizeof parts);
    if (SUCCEEDED(z->Reciprocal(reciprocal.put())) && reciprocal) {
        vx::unique_bstr text;
        reciprocal->Text(text.put());
        print.add(text.get(), text.length() * sizeof(wchar_t));
    }
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
    // Wine's marshaller needs the VB runtime's library (Windows has it) for cDIBSection.
    vx::com_ptr<ITypeLib> standin;
    LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, standin.put());
    int failures = 0;
    for (const vx::class_entry& entry : vx::class_table()) {
        const std::wstring id = vx::prog_id(entry);
        CLSID clsid{};
        vx::com_ptr<IUnknown> object;
        HRESULT hr = CLSIDFromProgID(id.c_str(), &clsid);
        if (SUCCEEDED(hr) && !IsEqualCLSID(clsid, *entry.clsid)) hr = E_UNEXPECTED;
        if (SUCCEEDED(hr)) hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, object.put_void());
        const std::wstring served = SUCCEEDED(hr) ? serving_module(object.get()) : L"";
        const HRESULT crossed = SUCCEEDED(hr) ? crosses_apartments(object.get(), *entry.interface_id) : hr;
        const bool own = lstrcmpiW(served.c_str(), expected) == 0 && SUCCEEDED(crossed);
        if (!own) ++failures;
        std::printf("%-30ls %s 0x%08lX %ls, from another apartment 0x%08lX\n", id.c_str(), own ? "ok  " : "FAIL",
                    static_cast<unsigned long>(hr), served.c_str(), static_cast<unsigned long>(crossed));
    }
    fingerprint print;
    add_resampled(print, 37, 23, 61, 50);
    add_resampled(print, 640, 48, 33, 17);
    add_resampled(print, 2, 2, 9, 11);
    for (double x : {0.1, 1.9, 1.000001, -3e150, 7.25e-200, 12345.678})
        for (double y : {0.3, -2.5, 1e154, 6.02e23}) add_complex(print, x, y);
    std::printf("fingerprint %016llx\n", static_cast<unsigned long long>(print.hash));
    CoUninitialize();
    return failures;
}

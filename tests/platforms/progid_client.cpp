// A client of the registered component, built for both platforms: creates every class by ProgID, says which
// DLL served it and calls it from another apartment through the marshaller (the registered interfaces and type
// library), then prints a fingerprint of results whose bits are fixed (resampled pixels, complex arithmetic and
// its text), which both platforms' DLLs must print alike.
// Usage: progid_client EXPECTED_DLL_PATH; the exit code counts failures.
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
    wchar_t path[MAX_PATH] = {};
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCWSTR>(*reinterpret_cast<void**>(object)), &module))
        GetModuleFileNameW(module, path, MAX_PATH);
    return path;
}
std::uint64_t print = 14695981039346656037ull;  // FNV-1a of the results
void add(const void* data, std::size_t size) {
    for (auto* b = static_cast<const unsigned char*>(data); size--; ++b) print = (print ^ *b) * 1099511628211ull;
}
// The object's default interface, called through a proxy from the multithreaded apartment while this thread serves.
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

void add_resampled(LONG width, LONG height, LONG new_width, LONG new_height) {
    vx::com_ptr<_cDIBSection> source, result;
    CoCreateInstance(CLSID_cDIBSection, nullptr, CLSCTX_INPROC_SERVER, IID__cDIBSection, source.put_void());
    VARIANT_BOOL made = VARIANT_FALSE;
    LONG stride = 0;
    LONG_PTR bits = 0;
    if (!source || FAILED(source->Create(width, height, &made)) || !made) return add("no source", 9);
    source->get_BytesPerScanLine(&stride), source->get_DIBSectionBitsPtr(&bits);
    for (LONG i = 0; i < stride * height; ++i) reinterpret_cast<unsigned char*>(bits)[i] = i * 7919 % 251;
    if (FAILED(source->Resample(new_height, new_width, result.put())) || !result) return add("no result", 9);
    result->get_BytesPerScanLine(&stride), result->get_DIBSectionBitsPtr(&bits);
    add(reinterpret_cast<const void*>(bits), static_cast<std::size_t>(stride) * new_height);
}

void add_complex(double real, double imaginary) {
    vx::com_ptr<_CComplexNumber> z, same, quotient, reciprocal;
    CoCreateInstance(CLSID_CComplexNumber, nullptr, CLSCTX_INPROC_SERVER, IID__CComplexNumber, z.put_void());
    double parts[3] = {};
    vx::unique_bstr text;
    if (!z) return add("no number", 9);
    z->Init(&real, &imaginary, same.put());
    if (SUCCEEDED(z->Divide2(&imaginary, &real, quotient.put())) && quotient)
        quotient->get_Real(&parts[0]), quotient->get_Imaginary(&parts[1]);
    z->Magnitude(&parts[2]);
    add(parts, sizeof parts);
    if (SUCCEEDED(z->Reciprocal(reciprocal.put())) && reciprocal && SUCCEEDED(reciprocal->Text(text.put())))
        add(text.get(), text.length() * sizeof(wchar_t));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    wchar_t expected[MAX_PATH] = {};
    if (argc != 2 || !GetFullPathNameW(argv[1], MAX_PATH, expected, nullptr))
        return std::fprintf(stderr, "usage: progid_client EXPECTED_DLL_PATH\n"), 100;
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 100;
    vx::com_ptr<ITypeLib> standin;  // the VB runtime's library, which Windows has, for cDIBSection's marshalling
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
        failures += !own;
        std::printf("%-30ls %s 0x%08lX %ls, from another apartment 0x%08lX\n", id.c_str(), own ? "ok  " : "FAIL",
                    static_cast<unsigned long>(hr), served.c_str(), static_cast<unsigned long>(crossed));
    }
    add_resampled(37, 23, 61, 50), add_resampled(640, 48, 33, 17), add_resampled(2, 2, 9, 11);
    for (double x : {0.1, 1.9, 1.000001, -3e150, 7.25e-200, 12345.678})
        for (double y : {0.3, -2.5, 1e154, 6.02e23}) add_complex(x, y);
    std::printf("fingerprint %016llx\n", static_cast<unsigned long long>(print));
    CoUninitialize();
    return failures;
}

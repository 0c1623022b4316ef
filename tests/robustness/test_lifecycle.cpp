// The component over long runs: instances of every class made, used and
// released many times with memory, GDI objects and registry keys staying level;
// the DLL unloaded by the platform once unused and loaded again. The length
// is VXTYPES32_LIFECYCLE_CYCLES cycles per class (10,000 unless set), with
// one unload and reload per 100 of them (at least 10).
#include "frame/class_table.h"
#include "library_identity.h"
#include "sort/sort_sinks.h"
#include "support/resource_counts.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace vx::test {
namespace {

const wchar_t* const dll_name = identity::module_file_name;
const wchar_t* const scratch_path = L"Software\\vxTypes32 tests\\lifecycle";

long cycles() {
    const char* text = std::getenv("VXTYPES32_LIFECYCLE_CYCLES");
    const long asked = text ? std::atol(text) : 0;
    return asked > 0 ? asked : 10000;
}
long reloads() { return std::max(cycles() / 100, 10L); }

struct resources {
    std::size_t heap = heap_bytes_in_use();
    long gdi = gdi_object_count();
    DWORD keys = open_registry_keys();
};

// Whatever grows with the number of cycles shows above this; what the
// platform caches once (the first BSTRs, a heap's bookkeeping) stays below.
constexpr std::size_t heap_allowance = 16 * 1024;

void expect_level(const std::string& what, const resources& before, long count) {
    const resources after;
    EXPECT_EQ(before.gdi, after.gdi) << what << ": GDI objects";
    EXPECT_EQ(before.keys, after.keys) << what << ": open registry keys";
    EXPECT_LE(after.heap, before.heap + heap_allowance)
        << what << ": " << (static_cast<double>(after.heap) - before.heap) / count << " bytes a cycle";
}

template <class Interface>
com_ptr<Interface> as(IUnknown* object, REFIID iid) {
    return com_ptr<IUnknown>::copy(object).query<Interface>(iid);
}

// One use of a new instance, as a client would: every class touches what it
// owns (pixel memory and DCs, the open key, the connection) and leaves some
// of it for its termination step. Each returns false on a wrong answer.
bool use_anchor(IUnknown* object, long) {
    com_ptr<ITypeInfo> info;
    return as<IDispatch>(object, IID_IDispatch)->GetTypeInfo(0, 0, info.put()) == S_OK && info;
}

bool use_complex(IUnknown* object, long) {
    com_ptr<_CComplexNumber> z = as<_CComplexNumber>(object, IID__CComplexNumber), product, quotient;
    // Init late-bound, given a script's Variant variables holding text: converted and written back.
    unique_variant real_text, imaginary_text, same;
    V_VT(real_text.get()) = V_VT(imaginary_text.get()) = VT_BSTR;
    V_BSTR(real_text.get()) = SysAllocString(L"1"), V_BSTR(imaginary_text.get()) = SysAllocString(L"2");
    VARIANT arguments[2] = {};  // last to first
    V_VT(&arguments[0]) = V_VT(&arguments[1]) = VT_BYREF | VT_VARIANT;
    V_VARIANTREF(&arguments[0]) = imaginary_text.get(), V_VARIANTREF(&arguments[1]) = real_text.get();
    DISPPARAMS params = {arguments, nullptr, 2, 0};
    z->Invoke(dispid::_CComplexNumber::Init, IID_NULL, 0, DISPATCH_METHOD, &params, same.get(), nullptr, nullptr);
    double real = 3, imaginary = 4;
    z->Multiply2(&real, &imaginary, product.put());
    unique_bstr text;
    if (!product || product->Text(text.put()) != S_OK || text_of(text.get()) != L"-5+10i") return false;
    real = 0, imaginary = 0;  // 0/0: an error raised, with its error info and strings
    return z->Divide2(&real, &imaginary, quotient.put()) == static_cast<HRESULT>(0x800A0006) &&
           take_error_info().source == L"CComplexNumber.Divide2";
}

bool use_dib_section(IUnknown* object, long cycle) {
    com_ptr<_cDIBSection> section = as<_cDIBSection>(object, IID__cDIBSection), resampled;
    VARIANT_BOOL made = VARIANT_FALSE;
    // A second Create releases the first, and so does a refused one.
    section->Create(3, 2, &made);
    section->Create(0, 2, &made);
    if (section->Create(16, 8, &made) != S_OK || made != VARIANT_TRUE) return false;
    section->RandomiseBits(VARIANT_TRUE);
    if (section->Resample(6, 10, resampled.put()) != S_OK || !resampled) return false;
    LONG_PTR dc = 0;
    resampled->get_hdc(&dc);
    if (section->PaintPicture(dc, 0, 0, 10, 6, 0, 0, RasterOpConstants(SRCCOPY)) != S_OK) return false;
    if (cycle % 2) section->ClearUp();  // else the termination step releases it
    return true;
}

// The sink of the current cycle: it outlives the sorter, which may still
// hold it when the instance goes, and is deleted after that, checking that
// the sorter let it go.
item_store sorted_items;
recording_sink* cycle_sink;

bool use_quick_sort(IUnknown* object, long cycle) {
    connected_sorter s(as<_clsQuickSort>(object, IID__clsQuickSort));
    if (!s.point) return false;
    sorted_items = {1, {5, 3, 9, 1, 7, 2, 8, 4, 6, 0}};
    cycle_sink = new recording_sink(&sorted_items);
    const DWORD cookie = s.advise(cycle_sink);
    const bool sorted =
        s.sorter->Sort(10, 1) == S_OK && std::is_sorted(sorted_items.values.begin(), sorted_items.values.end());
    if (cycle % 2) s.point->Unadvise(cookie);  // else the sorter lets the sink go as it ends
    return sorted;
}

void after_quick_sort() {
    delete cycle_sink;
    cycle_sink = nullptr;
}

bool use_easy_registry(IUnknown* object, long cycle) {
    com_ptr<_clsEasyRegistry> reg = as<_clsEasyRegistry>(object, IID__clsEasyRegistry);
    LONG status = -1;
    auto cd = [&](const std::wstring& path) { reg->CD(bstr_from(path).get(), &status); };
    unique_variant list, text, read;
    cd(std::wstring(L"\\HKEY_CURRENT_USER\\") + scratch_path);
    if (status == 0) reg->DirKey(list.get(), &status);
    if (status != 0) return false;
    unique_bstr name = bstr_from(L"value");
    enmDataType kind = erSTRING;
    V_VT(text.get()) = VT_BSTR;
    V_BSTR(text.get()) = SysAllocString(L"written");
    reg->put_ValueOf(name.get(), &kind, &status, *text.get());
    if (status == 0) reg->get_ValueOf(name.get(), &kind, &status, read.get());
    if (status != 0) return false;
    cd(L"sub");
    if (cycle % 2) cd(L"..");
    return status == 0;  // the current key is left open for the termination step
}

HBITMAP masked_bitmap;  // the client's, made once

bool use_masked_bitmap(IUnknown* object, long cycle) {
    com_ptr<_clsBitmap> masked = as<_clsBitmap>(object, IID__clsBitmap);
    LONG_PTR handle = reinterpret_cast<LONG_PTR>(masked_bitmap), mask = 0, inverted = 0;
    VARIANT_BOOL set = VARIANT_FALSE;
    // True every time: the previous instance's image DC let the bitmap go.
    if (masked->SetBitmap(&handle, &set) != S_OK || set != VARIANT_TRUE) return false;
    masked->get_MaskDC(&mask);
    masked->get_InvertImageDC(&inverted);
    if (cycle % 2) masked->SetBitmap(&handle, &set);  // refused, still selected: every DC goes
    return mask != 0 && inverted != 0;
}

bool use_user_info(IUnknown* object, long) {
    com_ptr<_UserInfo> user = as<_UserInfo>(object, IID__UserInfo);
    unique_variant logon, computer;
    return user->get_Logon(logon.get()) == S_OK && user->get_ComputerName(computer.get()) == S_OK;
}

struct class_use {
    const CLSID* clsid;
    bool (*use)(IUnknown*, long cycle);
    void (*after_release)() = nullptr;
};

const class_use uses[] = {
    {&CLSID_Class_vxTypes32, use_anchor},      {&CLSID_CComplexNumber, use_complex},
    {&CLSID_cDIBSection, use_dib_section},     {&CLSID_clsQuickSort, use_quick_sort, after_quick_sort},
    {&CLSID_clsEasyRegistry, use_easy_registry}, {&CLSID_clsBitmap, use_masked_bitmap},
    {&CLSID_UserInfo, use_user_info},
};

// The use of every class in the class table; a class without one fails.
const class_use* use_of(const class_entry& entry) {
    for (const class_use& u : uses)
        if (IsEqualCLSID(*u.clsid, *entry.clsid)) return &u;
    ADD_FAILURE() << narrow(entry.name) << " has no use here";
    return nullptr;
}

class Lifecycle : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
        unique_hkey key;
        RegCreateKeyExW(HKEY_CURRENT_USER, (std::wstring(scratch_path) + L"\\sub").c_str(), 0, nullptr, 0,
                        KEY_ALL_ACCESS, nullptr, key.put(), nullptr);
        HDC screen = GetDC(nullptr);
        masked_bitmap = CreateCompatibleBitmap(screen, 24, 12);
        ReleaseDC(nullptr, screen);
    }
    static void TearDownTestSuite() {
        DeleteObject(masked_bitmap);
        RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
    }
};

HRESULT call_in(HMODULE module, const char* name) {
    const auto function = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        module ? reinterpret_cast<void*>(GetProcAddress(module, name)) : nullptr);
    return function ? function() : E_UNEXPECTED;
}

// Registers the way regsvr32 does: the DLL loaded for the call and freed after it.
HRESULT register_server() {
    HMODULE module = LoadLibraryW(dll_path().c_str());
    const HRESULT result = call_in(module, "DllRegisterServer");
    if (module) FreeLibrary(module);
    return result;
}

// A new instance through the registry, used as a client would.
bool made_and_used(const class_entry& entry, const class_use& u, long cycle, IClassFactory* factory = nullptr) {
    com_ptr<IUnknown> object;
    const HRESULT made = factory ? factory->CreateInstance(nullptr, IID_IUnknown, object.put_void())
                                 : CoCreateInstance(*entry.clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                                    object.put_void());
    const bool right = made == S_OK && u.use(object.get(), cycle);
    object.reset();
    if (u.after_release) u.after_release();
    if (!right) ADD_FAILURE() << narrow(entry.name) << ", cycle " << cycle << ": " << hex(made) << " or a wrong answer";
    return right;
}

TEST_F(Lifecycle, ManyInstancesOfEveryClassLeaveMemoryAndHandlesLevel) {
    ASSERT_EQ(S_OK, register_server());
    const long count = cycles();
    for (const class_entry& entry : class_table()) {
        const class_use* u = use_of(entry);
        if (!u) continue;
        com_ptr<IClassFactory> factory;
        ASSERT_EQ(S_OK, CoGetClassObject(*entry.clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                         factory.put_void()));
        // Most instances come from the class object; every hundredth goes
        // the whole way through the registry.
        for (long warm = 0; warm < 100; ++warm) made_and_used(entry, *u, warm, factory.get());  // first-use caches
        const resources before;
        for (long cycle = 0; cycle < count; ++cycle)
            if (!made_and_used(entry, *u, cycle, cycle % 100 ? factory.get() : nullptr)) break;
        expect_level(narrow(entry.name) + ", " + std::to_string(count) + " cycles", before, count);
    }
}

TEST_F(Lifecycle, TheDllUnloadsOnceUnusedAndLoadsAgain) {
    ASSERT_EQ(S_OK, register_server());
    CoFreeUnusedLibrariesEx(0, 0);
    ASSERT_EQ(nullptr, GetModuleHandleW(dll_name)) << "something still holds the DLL before the test";
    std::unique_ptr<resources> before;
    for (long round = 0; round < reloads(); ++round) {
        if (round == 2) before = std::make_unique<resources>();  // after the platform's first-load caches
        for (const class_entry& entry : class_table())
            if (const class_use* u = use_of(entry)) made_and_used(entry, *u, round);
        // A class-object lock keeps the DLL, with no instance alive.
        com_ptr<IClassFactory> factory;
        ASSERT_EQ(S_OK, CoGetClassObject(CLSID_UserInfo, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                         factory.put_void()));
        factory->LockServer(TRUE);
        factory.reset();
        CoFreeUnusedLibrariesEx(0, 0);
        ASSERT_NE(nullptr, GetModuleHandleW(dll_name)) << "round " << round << ": unloaded under a lock";
        ASSERT_EQ(S_OK, CoGetClassObject(CLSID_UserInfo, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                         factory.put_void()));
        factory->LockServer(FALSE);
        factory.reset();
        EXPECT_EQ(hex(S_OK), hex(call_in(GetModuleHandleW(dll_name), "DllCanUnloadNow"))) << "round " << round;
        CoFreeUnusedLibrariesEx(0, 0);
        ASSERT_EQ(nullptr, GetModuleHandleW(dll_name)) << "round " << round << ": the platform did not unload the DLL";
    }
    expect_level(std::to_string(reloads() - 2) + " unloads and reloads", *before, reloads() - 2);
}

}  // namespace
}  // namespace vx::test

// The component over long runs: every class made, used and released, and the DLL unloaded by the platform once
// unused and loaded again, round after round (VXTYPES32_LIFECYCLE_ROUNDS, 10 unless more), with memory, GDI
// objects, registry keys and TLS indexes level.
#include "frame/class_table.h"
#include "library_identity.h"
#include "sort/sort_sinks.h"
#include "support/resource_counts.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace vx::test {
namespace {

const wchar_t* const scratch_path = L"Software\\vxTypes32 tests\\lifecycle";
const char* const rounds_asked = std::getenv("VXTYPES32_LIFECYCLE_ROUNDS");
const long reloads = std::max(rounds_asked ? std::atol(rounds_asked) : 0L, 10L);
// The lowest free TLS index climbs when an unload keeps one.
DWORD lowest_free_tls_index() { const DWORD index = TlsAlloc(); return TlsFree(index), index; }
struct resources {
    std::size_t heap = heap_bytes_in_use();
    long gdi = gdi_object_count();
    DWORD keys = open_registry_keys(), tls = lowest_free_tls_index();
};

// What the platform caches once (the first BSTRs, a heap's bookkeeping: about 60 bytes) stays below this.
constexpr std::size_t heap_allowance = 512;
void expect_level(const std::string& what, const resources& before, long count) {
    const resources after;
    EXPECT_EQ(before.gdi, after.gdi) << what << ": GDI objects";
    EXPECT_EQ(before.keys, after.keys) << what << ": open registry keys";
    EXPECT_EQ(before.tls, after.tls) << what << ": TLS indexes";
    EXPECT_LE(after.heap, before.heap + heap_allowance)
        << what << ": " << (static_cast<double>(after.heap) - before.heap) / count << " bytes a round";
}

template <class Interface>
com_ptr<Interface> as(IUnknown* object, REFIID iid) { return com_ptr<IUnknown>::copy(object).query<Interface>(iid); }

// One use of a new instance, as a client would: every class touches what it owns (pixel memory and DCs, the
// open key, the connection) and leaves some of it for its termination step. Each returns false on a wrong answer.
bool use_anchor(IUnknown* object, long) {
    com_ptr<ITypeInfo> info;
    return as<IDispatch>(object, IID_IDispatch)->GetTypeInfo(0, 0, info.put()) == S_OK && info;
}
bool use_complex(IUnknown* object, long) {
    com_ptr<_CComplexNumber> z = as<_CComplexNumber>(object, IID__CComplexNumber), product, quotient;
    // Init late-bound, given a script's Variant variables holding text: converted and written back.
    unique_variant text[2], same;
    VARIANT arguments[2] = {};  // last to first
    for (int i = 0; i < 2; ++i) {
        V_VT(text[i].get()) = VT_BSTR, V_BSTR(text[i].get()) = SysAllocString(i ? L"1" : L"2");
        V_VT(&arguments[i]) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&arguments[i]) = text[i].get();
    }
    DISPPARAMS params = {arguments, nullptr, 2, 0};
    z->Invoke(dispid::_CComplexNumber::Init, IID_NULL, 0, DISPATCH_METHOD, &params, same.get(), nullptr, nullptr);
    double real = 3, imaginary = 4;
    unique_bstr product_text;
    z->Multiply2(&real, &imaginary, product.put());
    if (!product || product->Text(product_text.put()) != S_OK || text_of(product_text.get()) != L"-5+10i") return false;
    real = 0, imaginary = 0;  // 0/0: an error raised, with its error info and strings
    return z->Divide2(&real, &imaginary, quotient.put()) == automation_error_number(6) &&
           take_error_info().source == L"CComplexNumber.Divide2";
}
bool use_dib_section(IUnknown* object, long round) {
    com_ptr<_cDIBSection> section = as<_cDIBSection>(object, IID__cDIBSection), resampled;
    VARIANT_BOOL made = VARIANT_FALSE;
    LONG_PTR dc = 0;
    section->Create(3, 2, &made), section->Create(0, 2, &made);  // each Create releases the last, refused or not
    if (section->Create(16, 8, &made) != S_OK || made != VARIANT_TRUE) return false;
    section->RandomiseBits(VARIANT_TRUE);
    if (section->Resample(6, 10, resampled.put()) != S_OK || !resampled) return false;
    resampled->get_hdc(&dc);
    if (section->PaintPicture(dc, 0, 0, 10, 6, 0, 0, RasterOpConstants(SRCCOPY)) != S_OK) return false;
    if (round % 2) section->ClearUp();  // else the termination step releases it
    return true;
}
// The sink of the current round outlives the sorter, which may still hold it when the instance goes, and is
// deleted after that, checking that the sorter let it go.
item_store sorted_items;
std::unique_ptr<recording_sink> round_sink;

bool use_quick_sort(IUnknown* object, long round) {
    connected_sorter s(as<_clsQuickSort>(object, IID__clsQuickSort));
    sorted_items = {1, {5, 3, 9, 1, 7, 2, 8, 4, 6, 0}};
    round_sink = std::make_unique<recording_sink>(&sorted_items);
    const DWORD cookie = s.point ? s.advise(round_sink.get()) : 0;
    const bool sorted = cookie && s.sorter->Sort(10, 1) == S_OK &&
                        std::is_sorted(sorted_items.values.begin(), sorted_items.values.end());
    if (round % 2 && cookie) s.point->Unadvise(cookie);  // else the sorter lets the sink go as it ends
    return sorted;
}
bool use_easy_registry(IUnknown* object, long round) {
    com_ptr<_clsEasyRegistry> reg = as<_clsEasyRegistry>(object, IID__clsEasyRegistry);
    LONG status = -1;
    auto cd = [&](const std::wstring& path) { return reg->CD(bstr_from(path).get(), &status), status == 0; };
    unique_variant list, text, read;
    unique_bstr name = bstr_from(L"value");
    enmDataType kind = erSTRING;
    V_VT(text.get()) = VT_BSTR, V_BSTR(text.get()) = SysAllocString(L"written");
    if (!cd(std::wstring(L"\\HKEY_CURRENT_USER\\") + scratch_path) || (reg->DirKey(list.get(), &status), status))
        return false;
    reg->put_ValueOf(name.get(), &kind, &status, *text.get());
    if (status || (reg->get_ValueOf(name.get(), &kind, &status, read.get()), status)) return false;
    return cd(L"sub") && (round % 2 == 0 || cd(L".."));  // the current key is left open for the termination step
}
HBITMAP masked_bitmap;  // the client's, made once

bool use_masked_bitmap(IUnknown* object, long round) {
    com_ptr<_clsBitmap> masked = as<_clsBitmap>(object, IID__clsBitmap);
    LONG_PTR handle = reinterpret_cast<LONG_PTR>(masked_bitmap), mask = 0, inverted = 0;
    VARIANT_BOOL set = VARIANT_FALSE;
    // True every time: the previous instance's image DC let the bitmap go.
    if (masked->SetBitmap(&handle, &set) != S_OK || set != VARIANT_TRUE) return false;
    masked->get_MaskDC(&mask), masked->get_InvertImageDC(&inverted);
    if (round % 2) masked->SetBitmap(&handle, &set);  // refused, still selected: every DC goes
    return mask != 0 && inverted != 0;
}
bool use_user_info(IUnknown* object, long) {
    com_ptr<_UserInfo> user = as<_UserInfo>(object, IID__UserInfo);
    unique_variant logon, computer;
    return user->get_Logon(logon.get()) == S_OK && user->get_ComputerName(computer.get()) == S_OK;
}

// The use of every class in the class table; a class without one fails.
using class_use = bool (*)(IUnknown*, long round);
class_use use_of(const class_entry& entry) {
    const std::pair<const CLSID*, class_use> uses[] = {
        {&CLSID_Class_vxTypes32, use_anchor},    {&CLSID_CComplexNumber, use_complex},
        {&CLSID_cDIBSection, use_dib_section},   {&CLSID_clsQuickSort, use_quick_sort},
        {&CLSID_clsEasyRegistry, use_easy_registry}, {&CLSID_clsBitmap, use_masked_bitmap},
        {&CLSID_UserInfo, use_user_info}};
    for (const auto& [clsid, use] : uses)
        if (IsEqualCLSID(*clsid, *entry.clsid)) return use;
    return ADD_FAILURE() << narrow(entry.name) << " has no use here", nullptr;
}

class Lifecycle : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
        RegSetKeyValueW(HKEY_CURRENT_USER, (std::wstring(scratch_path) + L"\\sub").c_str(), nullptr, REG_SZ, L"", 2);
        const HDC screen = GetDC(nullptr);
        masked_bitmap = CreateCompatibleBitmap(screen, 24, 12);
        ReleaseDC(nullptr, screen);
    }
    static void TearDownTestSuite() { DeleteObject(masked_bitmap), RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path); }
};
HMODULE loaded_dll() { return GetModuleHandleW(identity::module_file_name); }
// Calls an export the way regsvr32 does: the DLL loaded for the call and freed after it.
HRESULT call_export(const char* name) {
    const HMODULE module = LoadLibraryW(dll_path().c_str());
    const auto function = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        module ? reinterpret_cast<void*>(GetProcAddress(module, name)) : nullptr);
    const HRESULT result = function ? function() : E_UNEXPECTED;
    if (module) FreeLibrary(module);
    return result;
}

// A new instance through the registry, used as a client would.
void make_and_use(const class_entry& entry, class_use use, long round) {
    com_ptr<IUnknown> object;
    const HRESULT made = CoCreateInstance(*entry.clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, object.put_void());
    const bool right = made == S_OK && use(object.get(), round);
    object.reset(), round_sink.reset();
    EXPECT_TRUE(right) << narrow(entry.name) << ", round " << round << ": " << hex(made) << " or a wrong answer";
}

TEST_F(Lifecycle, TheDllUnloadsOnceUnusedAndLoadsAgain) {
    ASSERT_EQ(S_OK, call_export("DllRegisterServer"));
    CoFreeUnusedLibrariesEx(0, 0);
    ASSERT_EQ(nullptr, loaded_dll()) << "something still holds the DLL before the test";
    std::unique_ptr<resources> before;
    for (long round = 0; round < reloads; ++round) {
        if (round == 2) before = std::make_unique<resources>();  // after the platform's first-load caches
        for (const class_entry& entry : class_table())
            if (const class_use use = use_of(entry)) make_and_use(entry, use, round);
        // A class-object lock keeps the DLL, with no instance alive.
        for (BOOL lock : {TRUE, FALSE}) {
            com_ptr<IClassFactory> factory;
            ASSERT_EQ(S_OK, CoGetClassObject(CLSID_UserInfo, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                             factory.put_void()));
            factory->LockServer(lock), factory.reset();
            if (lock) CoFreeUnusedLibrariesEx(0, 0);
            ASSERT_NE(nullptr, loaded_dll()) << "round " << round << ": unloaded under a lock";
        }
        EXPECT_EQ(hex(S_OK), hex(call_export("DllCanUnloadNow"))) << "round " << round;
        CoFreeUnusedLibrariesEx(0, 0);
        ASSERT_EQ(nullptr, loaded_dll()) << "round " << round << ": the platform did not unload the DLL";
    }
    expect_level(std::to_string(reloads - 2) + " unloads and reloads", *before, reloads - 2);
}

}  // namespace
}  // namespace vx::test

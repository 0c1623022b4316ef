// The classes across apartments: each made in one single-threaded apartment
// and called from another through the marshaller that the registered type
// library provides, clsQuickSort's events coming back to a sink in the
// caller's apartment; and several apartments at once, each with instances of
// its own, getting the answers a lone apartment gets.
#include "frame/class_table.h"
#include "imaging/resample_reference.h"
#include "robustness/apartment_thread.h"
#include "sort/sort_sinks.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>

namespace vx::test {
namespace {

const wchar_t* const scratch_path = L"Software\\vxTypes32 tests\\apartments";

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }
std::wstring upper(std::wstring text) {
    CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

void create_keys(const std::wstring& under, const std::vector<std::wstring>& names) {
    RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
    for (const std::wstring& name : names)
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, (under + L"\\" + name).c_str(), 0, nullptr, 0,
                                                 KEY_ALL_ACCESS, nullptr, unique_hkey().put(), nullptr));
}

// The user's logon name, as the platform gives it.
std::wstring logon_name() {
    wchar_t name[257] = {};
    DWORD length = 257;
    EXPECT_TRUE(GetUserNameW(name, &length));
    return name;
}

class Apartments : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        // The marshaller of _cDIBSection describes eRop from the VB runtime's
        // library, which Windows has registered; here the stand-in does.
        com_ptr<ITypeLib> standin;
        ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, standin.put()));
        CLSID clsid{};
        ASSERT_EQ(S_OK, CLSIDFromProgID(L"vxTypes32.UserInfo", &clsid)) << "the DLL is not registered";
    }
};

// An object made in the home apartment and handed to the calling one through
// a stream: what the caller holds is the marshaller's proxy.
template <class Interface>
struct made_elsewhere {
    com_ptr<Interface> proxy;
    void* object = nullptr;  // the instance's own pointer, valid in its home apartment only
};

template <class Interface>
made_elsewhere<Interface> make_in(apartment_thread& home, REFCLSID clsid, REFIID iid) {
    made_elsewhere<Interface> made;
    IStream* stream = nullptr;
    HRESULT created = E_FAIL, marshalled = E_FAIL;
    home.run([&] {
        com_ptr<Interface> object;
        created = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object.put_void());
        if (FAILED(created)) return;
        made.object = object.get();
        marshalled = CoMarshalInterThreadInterfaceInStream(iid, object.get(), &stream);
    });
    EXPECT_EQ(hex(S_OK), hex(created)) << "CoCreateInstance in the home apartment";
    EXPECT_EQ(hex(S_OK), hex(marshalled)) << "marshalling to the caller";
    if (stream) {
        EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(stream, iid, made.proxy.put_void()));
    }
    EXPECT_TRUE(made.proxy);
    EXPECT_NE(made.object, static_cast<void*>(made.proxy.get())) << "the caller holds a proxy, not the object";
    return made;
}

// A stub that fails its one call with error info set, as a member does: it
// shows whether the platform's marshaller carries the error info back to
// the calling apartment (Windows does; Wine 8.0 does not).
class failing_stub final : public IDispatch {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        const bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch);
        *object = known ? static_cast<IDispatch*>(this) : nullptr;
        if (known) AddRef();
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references_)); }
    ULONG STDMETHODCALLTYPE Release() override {
        const LONG left = InterlockedDecrement(&references_);
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override {
        com_ptr<ICreateErrorInfo> made;
        if (SUCCEEDED(CreateErrorInfo(made.put()))) {
            made->SetSource(const_cast<LPOLESTR>(L"probe"));
            SetErrorInfo(0, made.query<IErrorInfo>(IID_IErrorInfo).get());
        }
        return E_FAIL;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }

private:
    volatile LONG references_ = 0;
};

bool platform_carries_error_info() {
    static const bool carried = [] {
        apartment_thread home;
        IStream* stream = nullptr;
        home.run([&] {
            com_ptr<IDispatch> stub = com_ptr<IDispatch>::copy(new failing_stub);
            CoMarshalInterThreadInterfaceInStream(IID_IDispatch, stub.get(), &stream);
        });
        com_ptr<IDispatch> proxy;
        if (!stream || FAILED(CoGetInterfaceAndReleaseStream(stream, IID_IDispatch, proxy.put_void()))) return false;
        UINT count = 0;
        SetErrorInfo(0, nullptr);
        proxy->GetTypeInfoCount(&count);
        const bool arrived = take_error_info().source == L"probe";
        if (!arrived) std::printf("note: this platform's marshaller does not carry error info between apartments\n");
        return arrived;
    }();
    return carried;
}

// The error info of a failed call through a proxy, where the platform
// carries it.
void expect_error_info_where_carried(const char* what, const wchar_t* source, const wchar_t* description) {
    const error_info error = take_error_info();
    if (!platform_carries_error_info()) return;
    EXPECT_EQ(source, error.source) << what;
    EXPECT_EQ(description, error.description) << what;
}

TEST_F(Apartments, EveryClassIsMarshalledFromTheRegisteredTypeLibrary) {
    apartment_thread home;
    ASSERT_TRUE(home.initialised());
    for (const class_entry& c : class_table()) {
        const std::string name = narrow(c.name);
        made_elsewhere<IDispatch> made = make_in<IDispatch>(home, *c.clsid, *c.interface_id);
        if (!made.proxy) continue;
        com_ptr<IDispatch> dual = made.proxy.query<IDispatch>(IID_IDispatch);
        ASSERT_TRUE(dual) << name;
        UINT count = 0;
        EXPECT_EQ(S_OK, dual->GetTypeInfoCount(&count)) << name;
        EXPECT_EQ(1u, count) << name;
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, dual->GetTypeInfo(0, 0, info.put())) << name;
        unique_bstr interface_name;
        info->GetDocumentation(MEMBERID_NIL, interface_name.put(), nullptr, nullptr, nullptr);
        EXPECT_EQ(std::wstring(L"_") + c.name, text_of(interface_name.get())) << name;
        com_ptr<ISupportErrorInfo> errors = made.proxy.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
        ASSERT_TRUE(errors) << name;
        EXPECT_EQ(S_OK, errors->InterfaceSupportsErrorInfo(*c.interface_id)) << name;
        if (c.earlier_interface_id) {
            com_ptr<IUnknown> earlier = made.proxy.query<IUnknown>(*c.earlier_interface_id);
            EXPECT_TRUE(earlier) << name << ": the earlier IID is marshalled as the interface";
        }
    }
}

TEST_F(Apartments, ComplexNumbersAnswerAndRaiseAcrossApartments) {
    apartment_thread home;
    made_elsewhere<_CComplexNumber> z = make_in<_CComplexNumber>(home, CLSID_CComplexNumber, IID__CComplexNumber);
    ASSERT_TRUE(z.proxy);
    double real = 1, imaginary = 2;
    com_ptr<_CComplexNumber> same;
    ASSERT_EQ(S_OK, z.proxy->Init(&real, &imaginary, same.put()));
    EXPECT_EQ(z.proxy.query<IUnknown>(IID_IUnknown).get(), same.query<IUnknown>(IID_IUnknown).get())
        << "Init returns the object itself, one identity through the marshaller";

    real = 3, imaginary = 4;
    com_ptr<_CComplexNumber> product, quotient;
    unique_bstr text;
    ASSERT_EQ(S_OK, z.proxy->Multiply2(&real, &imaginary, product.put()));
    ASSERT_TRUE(product);
    ASSERT_EQ(S_OK, product->Text(text.put()));
    EXPECT_EQ(L"-5+10i", text_of(text.get()));
    double part = 0;
    product->get_Imaginary(&part);
    EXPECT_EQ(10.0, part);
    z.proxy->get_Real(&part);
    EXPECT_EQ(1.0, part) << "a value operation leaves the object alone";

    // Divide2 by 0 + 0i raises the overflow error, through the vtable and
    // late-bound alike.
    real = 0, imaginary = 0;
    EXPECT_EQ(hex(automation_error_number(6)), hex(z.proxy->Divide2(&real, &imaginary, quotient.put())));
    EXPECT_FALSE(quotient);
    expect_error_info_where_carried("Divide2 through the vtable", L"CComplexNumber.Divide2", L"Overflow");

    com_ptr<IDispatch> late = z.proxy.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(late);
    VARIANT arguments[2];
    for (VARIANT& a : arguments) V_VT(&a) = VT_R8, V_R8(&a) = 0;
    DISPPARAMS params{arguments, nullptr, 2, 0};
    unique_variant result;
    EXCEPINFO exception{};
    EXPECT_EQ(hex(DISP_E_EXCEPTION), hex(late->Invoke(0x6003000A, IID_NULL, 0, DISPATCH_METHOD, &params,
                                                       result.get(), &exception, nullptr)));
    EXPECT_EQ(hex(automation_error_number(6)), hex(exception.wCode ? automation_error_number(exception.wCode)
                                                                     : exception.scode));
    EXPECT_EQ(L"CComplexNumber.Divide2", text_of(exception.bstrSource)) << "the exception crosses the apartments";
    EXPECT_EQ(L"Overflow", text_of(exception.bstrDescription));
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
}

TEST_F(Apartments, QuickSortRaisesItsEventsIntoASinkInTheCallersApartment) {
    apartment_thread home;
    made_elsewhere<_clsQuickSort> made = make_in<_clsQuickSort>(home, CLSID_clsQuickSort, IID__clsQuickSort);
    ASSERT_TRUE(made.proxy);
    connected_sorter s(made.proxy);
    ASSERT_TRUE(s.point);

    item_store store{1, std::vector<int>(300)};
    std::iota(store.values.begin(), store.values.end(), 0);
    std::shuffle(store.values.begin(), store.values.end(), std::mt19937(11));
    recording_sink sink(&store);
    const DWORD caller = GetCurrentThreadId();
    long elsewhere = 0;
    sink.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) -> HRESULT {
        if (GetCurrentThreadId() != caller) ++elsewhere;
        return S_OK;
    };
    const DWORD cookie = s.advise(&sink);
    EXPECT_EQ(S_OK, made.proxy->Sort(300, 1));
    EXPECT_TRUE(std::is_sorted(store.values.begin(), store.values.end()));
    EXPECT_GT(sink.events, 300);
    EXPECT_EQ(0, elsewhere) << "every event runs on the sink's own thread";

    // A handler's error goes back through both marshallers to Sort's caller.
    item_store small{1, {3, 1, 2}};
    recording_sink failing(&small);
    failing.before = [](DISPID id, LONG, LONG, SHORT*, EXCEPINFO* exception) -> HRESULT {
        if (id != 2) return S_OK;
        exception->wCode = 1001;
        exception->bstrSource = SysAllocString(L"Client");
        exception->bstrDescription = SysAllocString(L"store is read-only");
        return DISP_E_EXCEPTION;
    };
    EXPECT_EQ(S_OK, s.point->Unadvise(cookie));
    const DWORD second = s.advise(&failing);
    EXPECT_EQ(hex(automation_error_number(1001)), hex(made.proxy->Sort(3, 1)));
    expect_error_info_where_carried("a handler's error", L"Client", L"store is read-only");
    EXPECT_EQ(S_OK, s.point->Unadvise(second));
    s.point.reset();
    made.proxy.reset();
    s.sorter.reset();
    // The sinks check, as they go, that no reference to them was kept.
}

// Pixel memory of a section, by address: the same in every apartment of the
// process.
unsigned char* bits_of(_cDIBSection* section) {
    GdiFlush();
    LONG_PTR bits = 0;
    section->get_DIBSectionBitsPtr(&bits);
    return reinterpret_cast<unsigned char*>(bits);
}

long stride_for(long width) { return (width * 3 + 3) & ~3L; }

void fill(unsigned char* bits, long bytes, unsigned seed) {
    std::mt19937 random(seed);
    for (long i = 0; i < bytes; ++i) bits[i] = static_cast<unsigned char>(random());
}

// Every pixel byte of a resample against the formula written plainly; the
// first difference, or an empty string.
std::string resample_differences(_cDIBSection* source, _cDIBSection* result, long source_width,
                                 long source_height, long width, long height) {
    const long stride = stride_for(width);
    std::vector<unsigned char> expected(stride * height);
    resample_reference({bits_of(source), source_width, source_height, stride_for(source_width)}, expected.data(),
                       width, height, stride);
    const unsigned char* out = bits_of(result);
    if (!out) return "no pixel memory";
    for (long line = 0; line < height; ++line)
        for (long x = 0; x < width * 3; ++x)
            if (expected[line * stride + x] != out[line * stride + x])
                return "scan line " + std::to_string(line) + ", byte " + std::to_string(x);
    return {};
}

TEST_F(Apartments, DibSectionsResampleAndBlitAcrossApartments) {
    apartment_thread home;
    made_elsewhere<_cDIBSection> source = make_in<_cDIBSection>(home, CLSID_cDIBSection, IID__cDIBSection);
    made_elsewhere<_cDIBSection> copy = make_in<_cDIBSection>(home, CLSID_cDIBSection, IID__cDIBSection);
    ASSERT_TRUE(source.proxy && copy.proxy);
    VARIANT_BOOL made = VARIANT_FALSE;
    LONG value = 0, width = 0, height = 0;
    ASSERT_EQ(S_OK, source.proxy->Create(13, 7, &made));
    EXPECT_EQ(VARIANT_TRUE, made);
    source.proxy->get_BytesPerScanLine(&value);
    EXPECT_EQ(40, value);
    fill(bits_of(source.proxy.get()), 40 * 7, 3);

    com_ptr<_cDIBSection> larger, narrow_source;
    ASSERT_EQ(S_OK, source.proxy->Resample(11, 29, larger.put()));
    ASSERT_TRUE(larger) << "the new section comes back through the marshaller";
    larger->get_Width(&width);
    larger->get_Height(&height);
    EXPECT_EQ(29, width);
    EXPECT_EQ(11, height);
    EXPECT_EQ("", resample_differences(source.proxy.get(), larger.get(), 13, 7, 29, 11));

    // eRop is typed by the runtime's library: this call needs its marshaller.
    ASSERT_EQ(S_OK, copy.proxy->Create(13, 7, &made));
    LONG_PTR copy_dc = 0;
    copy.proxy->get_hdc(&copy_dc);
    ASSERT_EQ(S_OK, source.proxy->PaintPicture(copy_dc, 0, 0, 13, 7, 0, 0, RasterOpConstants(SRCCOPY)));
    const unsigned char* from = bits_of(source.proxy.get());
    const unsigned char* to = bits_of(copy.proxy.get());
    for (long line = 0; line < 7; ++line)
        EXPECT_TRUE(std::equal(from + line * 40, from + line * 40 + 39, to + line * 40)) << "scan line " << line;

    source.proxy->ClearUp();
    EXPECT_EQ(S_OK, source.proxy->Create(1, 5, &made));
    EXPECT_EQ(hex(automation_error_number(9)), hex(source.proxy->Resample(5, 5, narrow_source.put())))
        << "an error of the section's own crosses too";
}

TEST_F(Apartments, EasyRegistryWorksFromAnotherApartment) {
    create_keys(scratch_path, {L"alpha", L"beta"});
    apartment_thread home;
    made_elsewhere<_clsEasyRegistry> reg = make_in<_clsEasyRegistry>(home, CLSID_clsEasyRegistry, IID__clsEasyRegistry);
    ASSERT_TRUE(reg.proxy);
    LONG status = -1;
    unique_bstr path = bstr_from(std::wstring(L"\\HKEY_CURRENT_USER\\") + scratch_path);
    ASSERT_EQ(S_OK, reg.proxy->CD(path.get(), &status));
    EXPECT_EQ(0, status);
    unique_bstr current;
    reg.proxy->get_CurrentKey(current.put());
    EXPECT_EQ(L"\\HKEY_CURRENT_USER\\SOFTWARE\\VXTYPES32 TESTS\\APARTMENTS", text_of(current.get()));

    unique_variant list;
    ASSERT_EQ(S_OK, reg.proxy->DirKey(list.get(), &status));
    EXPECT_EQ(0, status);
    ASSERT_EQ(VT_ARRAY | VT_BSTR, V_VT(list.get())) << "the list comes back through the marshaller";
    std::vector<std::wstring> names;
    LONG low = 0, high = -1;
    SafeArrayGetLBound(V_ARRAY(list.get()), 1, &low);
    SafeArrayGetUBound(V_ARRAY(list.get()), 1, &high);
    for (LONG i = low; i <= high; ++i) {
        unique_bstr name;
        if (SafeArrayGetElement(V_ARRAY(list.get()), &i, name.put()) == S_OK) names.push_back(upper(text_of(name.get())));
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::wstring>{L"ALPHA", L"BETA"}), names);

    unique_bstr value_name = bstr_from(L"written");
    enmDataType kind = erSTRING;
    unique_variant text;
    V_VT(text.get()) = VT_BSTR;
    V_BSTR(text.get()) = SysAllocString(L"from another apartment");
    ASSERT_EQ(S_OK, reg.proxy->put_ValueOf(value_name.get(), &kind, &status, *text.get()));
    EXPECT_EQ(0, status);
    wchar_t stored[64] = {};
    DWORD bytes = sizeof stored - sizeof(wchar_t), type = 0;
    unique_hkey key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, scratch_path, 0, KEY_READ, key.put()));
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(key.get(), L"written", nullptr, &type, reinterpret_cast<BYTE*>(stored), &bytes));
    EXPECT_EQ(DWORD{REG_SZ}, type);
    EXPECT_EQ(std::wstring(L"from another apartment"), stored);
    key.reset();
    reg.proxy.reset();
    RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
}

TEST_F(Apartments, MaskedBitmapBuildsItsDCsFromTheCallersBitmap) {
    HDC screen = GetDC(nullptr);
    HBITMAP bitmap = CreateCompatibleBitmap(screen, 32, 16);
    ReleaseDC(nullptr, screen);
    ASSERT_TRUE(bitmap);
    {
        HDC drawing = CreateCompatibleDC(nullptr);
        HGDIOBJ old = SelectObject(drawing, bitmap);
        for (int x = 0; x < 32; ++x)
            for (int y = 0; y < 16; ++y) SetPixel(drawing, x, y, RGB(x * 8, y * 16, (x + y) * 4));
        SelectObject(drawing, old);
        DeleteDC(drawing);
    }
    apartment_thread home;
    made_elsewhere<_clsBitmap> masked = make_in<_clsBitmap>(home, CLSID_clsBitmap, IID__clsBitmap);
    ASSERT_TRUE(masked.proxy);
    LONG_PTR handle = reinterpret_cast<LONG_PTR>(bitmap);
    VARIANT_BOOL set = VARIANT_FALSE;
    ASSERT_EQ(S_OK, masked.proxy->SetBitmap(&handle, &set));
    EXPECT_EQ(VARIANT_TRUE, set);
    LONG width = 0, height = 0;
    LONG_PTR image = 0, mask = 0, inverted = 0;
    masked.proxy->get_Width(&width);
    masked.proxy->get_Height(&height);
    masked.proxy->get_ImageDC(&image);
    masked.proxy->get_MaskDC(&mask);
    masked.proxy->get_InvertImageDC(&inverted);
    EXPECT_EQ(32, width);
    EXPECT_EQ(16, height);
    ASSERT_NE(0, image);
    ASSERT_NE(0, mask);
    ASSERT_NE(0, inverted);
    auto dc = [](LONG value) { return reinterpret_cast<HDC>(static_cast<LONG_PTR>(value)); };
    for (int x = 0; x < 32; x += 5)
        for (int y = 0; y < 16; y += 3) {
            const COLORREF expected = GetPixel(dc(image), x, y);
            EXPECT_EQ(expected, GetPixel(dc(mask), x, y)) << "mask at " << x << "," << y;
            EXPECT_EQ(expected, GetPixel(dc(inverted), x, y)) << "inverted image at " << x << "," << y;
        }
    masked.proxy.reset();  // the termination step runs in the home apartment
    BITMAP facts{};
    EXPECT_EQ(static_cast<int>(sizeof facts), GetObjectW(bitmap, sizeof facts, &facts)) << "the bitmap stays the caller's";
    EXPECT_TRUE(DeleteObject(bitmap)) << "and is no longer selected anywhere";
}

TEST_F(Apartments, UserInfoAnswersAndKeepsItsEarlierIdentity) {
    apartment_thread home;
    made_elsewhere<_UserInfo> user = make_in<_UserInfo>(home, CLSID_UserInfo, IID__UserInfo);
    ASSERT_TRUE(user.proxy);
    unique_variant logon;
    ASSERT_EQ(S_OK, user.proxy->get_Logon(logon.get()));
    ASSERT_EQ(VT_BSTR, V_VT(logon.get()));
    EXPECT_EQ(logon_name(), text_of(V_BSTR(logon.get())));

    // The earlier IID reaches the same object. Wine 8.0's marshaller builds
    // its proxy from the alias in the library and gives it no members, so a
    // call through it is left to Windows.
    com_ptr<IUnknown> earlier = user.proxy.query<IUnknown>(IID_UserInfo___v0);
    ASSERT_TRUE(earlier);
    EXPECT_EQ(user.proxy.query<IUnknown>(IID_IUnknown).get(), earlier.query<IUnknown>(IID_IUnknown).get());
}

// ---- Many apartments at once ---------------------------------------------------------------

constexpr int concurrent_apartments = 6;
constexpr int rounds_per_apartment = 15;

// One apartment's work: its own instances of every class, made through
// class objects it asks for itself, and a number made by a shared home
// apartment. Each failure is written down for the main thread to report.
struct apartment_work {
    int index = 0;
    IGlobalInterfaceTable* table = nullptr;
    DWORD shared_cookie = 0;
    HANDLE start = nullptr;
    std::wstring logon;
    std::vector<std::string> failures;

    void fail(const std::string& what) { failures.push_back("apartment " + std::to_string(index) + ": " + what); }
    void check(bool ok, const std::string& what) {
        if (!ok) fail(what);
    }

    template <class Interface>
    com_ptr<Interface> create(REFCLSID clsid, REFIID iid) {
        com_ptr<IClassFactory> factory;
        com_ptr<Interface> object;
        const HRESULT got = CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, factory.put_void());
        if (FAILED(got)) {
            fail("CoGetClassObject: " + hex(got));
            return object;
        }
        const HRESULT made = factory->CreateInstance(nullptr, iid, object.put_void());
        check(made == S_OK, "CreateInstance: " + hex(made));
        return object;
    }

    void run() {
        if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return fail("CoInitializeEx");
        WaitForSingleObject(start, INFINITE);
        for (int round = 0; round < rounds_per_apartment && failures.size() < 10; ++round) one_round(round);
        CoUninitialize();
    }

    void one_round(int round) {
        const std::string at = "round " + std::to_string(round) + ": ";
        const double t = index + 1;

        com_ptr<_CComplexNumber> z = create<_CComplexNumber>(CLSID_CComplexNumber, IID__CComplexNumber);
        if (!z) return;
        double real = t, imaginary = 2 * t + round;
        com_ptr<_CComplexNumber> same, product;
        z->Init(&real, &imaginary, same.put());
        real = 3, imaginary = 4;
        z->Multiply2(&real, &imaginary, product.put());
        double a = 0, b = 0;
        if (product) product->get_Real(&a), product->get_Imaginary(&b);
        // (t + (2t + r)i)(3 + 4i) = (3t - 8t - 4r) + (4t + 6t + 3r)i
        check(a == -5 * t - 4 * round && b == 10 * t + 3 * round, at + "complex product");

        com_ptr<_CComplexNumber> shared;
        const HRESULT got = table->GetInterfaceFromGlobal(shared_cookie, IID__CComplexNumber, shared.put_void());
        check(got == S_OK, at + "the shared number from the global interface table: " + hex(got));
        if (shared) {
            real = t, imaginary = round;
            com_ptr<_CComplexNumber> sum;
            const HRESULT added = shared->Add2(&real, &imaginary, sum.put());
            check(added == S_OK, at + "Add2 in the home apartment: " + hex(added));
            if (sum) sum->get_Real(&a), sum->get_Imaginary(&b);
            check(sum && a == 100 + t && b == -100 + round, at + "the shared number's sum");
        }

        item_store store{1, std::vector<int>(120)};
        std::iota(store.values.begin(), store.values.end(), 0);
        std::shuffle(store.values.begin(), store.values.end(), std::mt19937(index * 100 + round));
        {
            com_ptr<_clsQuickSort> sorter = create<_clsQuickSort>(CLSID_clsQuickSort, IID__clsQuickSort);
            com_ptr<IConnectionPointContainer> container =
                sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
            com_ptr<IConnectionPoint> point;
            if (container) container->FindConnectionPoint(DIID___clsQuickSort, point.put());
            recording_sink sink(&store);
            DWORD cookie = 0;
            if (point && point->Advise(&sink, &cookie) == S_OK) {
                const HRESULT sorted = sorter->Sort(120, 1);
                check(sorted == S_OK, at + "Sort: " + hex(sorted));
                point->Unadvise(cookie);
            } else {
                fail(at + "no connection");
            }
            check(std::is_sorted(store.values.begin(), store.values.end()), at + "the items are sorted");
        }

        const long width = 17 + index, height = 9 + round % 4, new_width = 23 + round, new_height = 5 + index;
        com_ptr<_cDIBSection> section = create<_cDIBSection>(CLSID_cDIBSection, IID__cDIBSection);
        VARIANT_BOOL made = VARIANT_FALSE;
        if (section) section->Create(width, height, &made);
        if (made == VARIANT_TRUE) {
            fill(bits_of(section.get()), stride_for(width) * height, index * 1000 + round);
            com_ptr<_cDIBSection> resampled;
            section->Resample(new_height, new_width, resampled.put());
            if (resampled) {
                const std::string differs =
                    resample_differences(section.get(), resampled.get(), width, height, new_width, new_height);
                check(differs.empty(), at + "resample differs from the formula at " + differs);
            } else {
                fail(at + "no resampled section");
            }
        } else {
            fail(at + "Create");
        }

        com_ptr<_clsEasyRegistry> reg = create<_clsEasyRegistry>(CLSID_clsEasyRegistry, IID__clsEasyRegistry);
        const std::wstring own = std::wstring(L"\\HKEY_CURRENT_USER\\") + scratch_path + L"\\thread " +
                                 std::to_wstring(index);
        LONG status = -1;
        if (reg) {
            unique_bstr path = bstr_from(own);
            reg->CD(path.get(), &status);
            check(status == 0, at + "CD to its own key");
            unique_bstr name = bstr_from(L"round " + std::to_wstring(round));
            reg->MakeKey(name.get(), &status);
            check(status == 0, at + "MakeKey");
            unique_bstr current;
            reg->get_CurrentKey(current.put());
            std::wstring expected = own;
            CharUpperBuffW(expected.data(), static_cast<DWORD>(expected.size()));
            check(text_of(current.get()) == expected, at + "CurrentKey is its own");
            unique_variant list;
            reg->DirKey(list.get(), &status);
            LONG high = -1;
            if (V_VT(list.get()) == (VT_ARRAY | VT_BSTR)) SafeArrayGetUBound(V_ARRAY(list.get()), 1, &high);
            check(status == 0 && high == round, at + "DirKey lists exactly its own rounds");
        }

        com_ptr<_UserInfo> user = create<_UserInfo>(CLSID_UserInfo, IID__UserInfo);
        unique_variant logon_value;
        if (user) user->get_Logon(logon_value.get());
        check(V_VT(logon_value.get()) == VT_BSTR && text_of(V_BSTR(logon_value.get())) == logon, at + "Logon");

        com_ptr<IDispatch> anchor = create<IDispatch>(CLSID_Class_vxTypes32, IID__Class_vxTypes32);
        check(static_cast<bool>(anchor), at + "Class_vxTypes32");
    }
};

TEST_F(Apartments, SeveralApartmentsAtOnceGetWhatOneApartmentGets) {
    std::vector<std::wstring> keys;
    for (int i = 0; i < concurrent_apartments; ++i) keys.push_back(L"thread " + std::to_wstring(i));
    create_keys(scratch_path, keys);
    const std::wstring logon = logon_name();

    // One number in a home apartment that every other apartment calls at once.
    com_ptr<IGlobalInterfaceTable> table;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_IGlobalInterfaceTable, table.put_void()));
    apartment_thread home;
    DWORD cookie = 0;
    HRESULT registered = E_FAIL;
    home.run([&] {
        com_ptr<_CComplexNumber> shared;
        if (FAILED(CoCreateInstance(CLSID_CComplexNumber, nullptr, CLSCTX_INPROC_SERVER, IID__CComplexNumber,
                                    shared.put_void())))
            return;
        double real = 100, imaginary = -100;
        com_ptr<_CComplexNumber> same;
        shared->Init(&real, &imaginary, same.put());
        registered = table->RegisterInterfaceInGlobal(shared.get(), IID__CComplexNumber, &cookie);
    });
    ASSERT_EQ(S_OK, registered);

    HANDLE start = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::vector<apartment_work> work(concurrent_apartments);
    std::vector<std::thread> threads;
    for (int i = 0; i < concurrent_apartments; ++i) {
        work[i].index = i;
        work[i].table = table.get();
        work[i].shared_cookie = cookie;
        work[i].start = start;
        work[i].logon = logon;
        threads.emplace_back([&w = work[i]] { w.run(); });
    }
    SetEvent(start);
    for (std::thread& t : threads) t.join();
    CloseHandle(start);
    for (const apartment_work& w : work)
        for (const std::string& failure : w.failures) ADD_FAILURE() << failure;

    home.run([&] { table->RevokeInterfaceFromGlobal(cookie); });
    RegDeleteTreeW(HKEY_CURRENT_USER, scratch_path);
}

}  // namespace
}  // namespace vx::test

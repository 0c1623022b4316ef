// Registration round trip: what DllRegisterServer writes, read back from the
// registry, and that DllUnregisterServer leaves nothing behind. Ends
// registered, as the script clients expect.
#include "frame/class_table.h"
#include "support/component.h"

#include <cstdio>
#include <string>

namespace vx::test {
namespace {

const wchar_t* const libid = L"{4CF34B96-9FF3-440A-A358-4CF5DCBADA69}";

// Every interface of the library is marshalled from it: the dual ones by the
// automation marshaller, the events interface as a dispinterface.
const wchar_t* const automation_marshaller = L"{00020424-0000-0000-C000-000000000046}";
const wchar_t* const dispatch_marshaller = L"{00020420-0000-0000-C000-000000000046}";
const struct {
    const wchar_t* iid;
    const wchar_t* name;
    const wchar_t* marshaller;
} interfaces[] = {
    {L"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}", L"_Class_vxTypes32", automation_marshaller},
    {L"{3986CECB-15A2-4AEC-939B-6FA01FA5E59C}", L"_CComplexNumber", automation_marshaller},
    {L"{BCFEA24D-F839-4CDF-86B8-FB46F906C28C}", L"_cDIBSection", automation_marshaller},
    {L"{E0592E2C-A229-43F7-A393-8956C50648B5}", L"_clsQuickSort", automation_marshaller},
    {L"{F4BBD37D-F4E6-41F9-B6BB-E27E25DACF7C}", L"_clsEasyRegistry", automation_marshaller},
    {L"{9245A22A-FEC2-4CA5-8D19-BC6484D89305}", L"_UserInfo", automation_marshaller},
    {L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}", L"_UserInfo", automation_marshaller},
    {L"{ED5DAF74-73DE-4DA5-B0D3-CC8D70F6581B}", L"_clsBitmap", automation_marshaller},
    {L"{67D601DC-CB76-4D06-ADCC-D8F8780C249B}", L"__clsQuickSort", dispatch_marshaller},
};

CLSID CLSID_UserInfo_id() {
    CLSID clsid{};
    CLSIDFromString(L"{11E50AB6-E704-4F7C-963C-410640ACA91C}", &clsid);
    return clsid;
}

std::wstring guid_text(const GUID& guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// Where a test looks: HKEY_CLASSES_ROOT unless it says otherwise.
HKEY classes = HKEY_CLASSES_ROOT;

bool key_exists(const std::wstring& path, HKEY root = classes) {
    unique_hkey key;
    return RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

// The string value, or "<missing>".
std::wstring value_of(const std::wstring& path, const wchar_t* name = nullptr) {
    wchar_t data[1024] = {};
    DWORD bytes = sizeof data - sizeof(wchar_t);
    DWORD type = 0;
    unique_hkey key;
    if (RegOpenKeyExW(classes, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
        RegQueryValueExW(key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes) != ERROR_SUCCESS ||
        type != REG_SZ)
        return L"<missing>";
    return data;
}

std::wstring upper(std::wstring text) {
    CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

void expect_nothing_registered(const char* when) {
    for (const class_entry& c : class_table()) {
        EXPECT_FALSE(key_exists(L"CLSID\\" + guid_text(*c.clsid))) << when << ": " << narrow(c.name);
        EXPECT_FALSE(key_exists(std::wstring(L"vxTypes32.") + c.name)) << when << ": " << narrow(c.name);
    }
    for (const auto& i : interfaces)
        EXPECT_FALSE(key_exists(std::wstring(L"Interface\\") + i.iid)) << when << ": " << narrow(i.iid);
    EXPECT_FALSE(key_exists(std::wstring(L"TypeLib\\") + libid)) << when;
}

void expect_everything_registered(const char* when) {
    const std::wstring path = upper(dll_path());
    for (const class_entry& c : class_table()) {
        const std::wstring clsid = guid_text(*c.clsid);
        const std::wstring clsid_key = L"CLSID\\" + clsid;
        const std::wstring prog_id = std::wstring(L"vxTypes32.") + c.name;
        EXPECT_EQ(prog_id, value_of(clsid_key)) << when;
        EXPECT_EQ(path, upper(value_of(clsid_key + L"\\InprocServer32"))) << when << ": " << narrow(c.name);
        EXPECT_EQ(L"Apartment", value_of(clsid_key + L"\\InprocServer32", L"ThreadingModel")) << when;
        EXPECT_EQ(prog_id, value_of(clsid_key + L"\\ProgID")) << when;
        EXPECT_EQ(libid, value_of(clsid_key + L"\\TypeLib")) << when;
        EXPECT_EQ(prog_id, value_of(prog_id)) << when;
        EXPECT_EQ(clsid, value_of(prog_id + L"\\Clsid")) << when;
    }
    const wchar_t* platform = sizeof(void*) == 8 ? L"\\1.2\\0\\win64" : L"\\1.2\\0\\win32";
    EXPECT_EQ(path, upper(value_of(std::wstring(L"TypeLib\\") + libid + platform))) << when;
    for (const auto& i : interfaces) {
        const std::wstring key = std::wstring(L"Interface\\") + i.iid;
        EXPECT_EQ(i.name, value_of(key)) << when << ": " << narrow(i.iid);
        EXPECT_EQ(i.marshaller, value_of(key + L"\\ProxyStubClsid32")) << when << ": " << narrow(i.iid);
        EXPECT_EQ(libid, value_of(key + L"\\TypeLib")) << when << ": " << narrow(i.iid);
    }
    EXPECT_EQ(L"_UserInfo", value_of(L"Interface\\{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}"))
        << when << ": the earlier IID is marshalled as the interface";
}

TEST(Registration, RoundTripLeavesNothingBehindAndEndsRegistered) {
    ASSERT_EQ(S_OK, dll().unregister_server());
    expect_nothing_registered("after unregistering");
    EXPECT_EQ(S_OK, dll().unregister_server()) << "unregistering twice";
    expect_nothing_registered("after unregistering twice");

    ASSERT_EQ(S_OK, dll().register_server());
    expect_everything_registered("after registering");
    ASSERT_EQ(S_OK, dll().register_server()) << "registering twice";
    expect_everything_registered("after registering twice");
}

// Points the helpers above at the current user's own classes.
class user_classes {
public:
    user_classes() {
        RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_READ, nullptr, key_.put(),
                        nullptr);
        classes = key_.get();
    }
    ~user_classes() { classes = HKEY_CLASSES_ROOT; }

private:
    unique_hkey key_;
};

TEST(Registration, PerUserRoundTripWritesNothingMachineWide) {
    ASSERT_TRUE(dll().install);
    ASSERT_EQ(S_OK, dll().unregister_server());
    ASSERT_EQ(S_OK, dll().install(TRUE, L"user"));
    {
        user_classes user;
        expect_everything_registered("per user");
    }
    unique_hkey machine;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Classes", 0, KEY_READ, machine.put()));
    for (const class_entry& c : class_table())
        EXPECT_FALSE(key_exists(L"CLSID\\" + guid_text(*c.clsid), machine.get())) << "machine-wide: " << narrow(c.name);
    EXPECT_FALSE(key_exists(std::wstring(L"TypeLib\\") + libid, machine.get())) << "machine-wide library";

    // Windows reads per-user classes through HKEY_CLASSES_ROOT; Wine 8.0 does
    // not, so activation after a per-user registration is seen on Windows only.
    com_ptr<IDispatch> object;
    const HRESULT created =
        CoCreateInstance(CLSID_UserInfo_id(), nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void());
    if (created == REGDB_E_CLASSNOTREG)
        std::printf("note: this platform does not activate classes registered per user\n");
    else
        EXPECT_EQ(S_OK, created) << "activation from the per-user registration";
    object.reset();

    ASSERT_EQ(S_OK, dll().install(FALSE, L"user"));
    EXPECT_EQ(S_OK, dll().install(FALSE, L"user")) << "removing twice";
    {
        user_classes user;
        expect_nothing_registered("after removing the per-user registration");
    }
    ASSERT_EQ(S_OK, dll().register_server());
}

TEST(Registration, ClientsActivateByProgId) {
    ASSERT_EQ(S_OK, dll().register_server());
    for (const class_entry& c : class_table()) {
        CLSID clsid{};
        ASSERT_EQ(S_OK, CLSIDFromProgID((std::wstring(L"vxTypes32.") + c.name).c_str(), &clsid)) << narrow(c.name);
        EXPECT_TRUE(IsEqualCLSID(*c.clsid, clsid)) << narrow(c.name);
        com_ptr<IDispatch> object;
        EXPECT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void()))
            << narrow(c.name);
    }
    com_ptr<ITypeLib> library;
    GUID library_id{};
    CLSIDFromString(libid, &library_id);
    EXPECT_EQ(S_OK, LoadRegTypeLib(library_id, 1, 2, 0, library.put())) << "the library is found by its id";
}

}  // namespace
}  // namespace vx::test

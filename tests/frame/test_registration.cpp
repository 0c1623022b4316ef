// Registration round trip: what DllRegisterServer writes, read back from the
// registry, and that DllUnregisterServer leaves nothing behind. Ends
// registered, as the script clients expect.
#include "support/component.h"

#include <string>

namespace vx::test {
namespace {

const wchar_t* const libid = L"{4CF34B96-9FF3-440A-A358-4CF5DCBADA69}";

struct registered_class {
    const wchar_t* name;
    const wchar_t* clsid;
};
const registered_class classes[] = {
    {L"Class_vxTypes32", L"{907DE45C-E88A-45F7-AFB0-1CCD810FF83A}"},
    {L"UserInfo", L"{11E50AB6-E704-4F7C-963C-410640ACA91C}"},
};
const wchar_t* const interfaces[] = {
    L"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}",
    L"{9245A22A-FEC2-4CA5-8D19-BC6484D89305}",
    L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}",
};

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

bool key_exists(const std::wstring& path) {
    unique_hkey key;
    return RegOpenKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

// The string value, or "<missing>".
std::wstring value_of(const std::wstring& path, const wchar_t* name = nullptr) {
    wchar_t data[1024] = {};
    DWORD bytes = sizeof data - sizeof(wchar_t);
    DWORD type = 0;
    unique_hkey key;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
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
    for (const registered_class& c : classes) {
        EXPECT_FALSE(key_exists(std::wstring(L"CLSID\\") + c.clsid)) << when << ": " << narrow(c.name);
        EXPECT_FALSE(key_exists(std::wstring(L"vxTypes32.") + c.name)) << when << ": " << narrow(c.name);
    }
    for (const wchar_t* iid : interfaces)
        EXPECT_FALSE(key_exists(std::wstring(L"Interface\\") + iid)) << when << ": " << narrow(iid);
    EXPECT_FALSE(key_exists(std::wstring(L"TypeLib\\") + libid)) << when;
}

void expect_everything_registered(const char* when) {
    const std::wstring path = upper(dll_path());
    for (const registered_class& c : classes) {
        const std::wstring clsid_key = std::wstring(L"CLSID\\") + c.clsid;
        const std::wstring prog_id = std::wstring(L"vxTypes32.") + c.name;
        EXPECT_EQ(prog_id, value_of(clsid_key)) << when;
        EXPECT_EQ(path, upper(value_of(clsid_key + L"\\InprocServer32"))) << when << ": " << narrow(c.name);
        EXPECT_EQ(L"Apartment", value_of(clsid_key + L"\\InprocServer32", L"ThreadingModel")) << when;
        EXPECT_EQ(prog_id, value_of(clsid_key + L"\\ProgID")) << when;
        EXPECT_EQ(libid, value_of(clsid_key + L"\\TypeLib")) << when;
        EXPECT_EQ(prog_id, value_of(prog_id)) << when;
        EXPECT_EQ(c.clsid, value_of(prog_id + L"\\Clsid")) << when;
    }
    EXPECT_EQ(path, upper(value_of(std::wstring(L"TypeLib\\") + libid + L"\\1.2\\0\\win32"))) << when;
    for (const wchar_t* iid : interfaces) {
        const std::wstring key = std::wstring(L"Interface\\") + iid;
        EXPECT_EQ(L"{00020424-0000-0000-C000-000000000046}", value_of(key + L"\\ProxyStubClsid32"))
            << when << ": " << narrow(iid);
        EXPECT_EQ(libid, value_of(key + L"\\TypeLib")) << when << ": " << narrow(iid);
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

TEST(Registration, ClientsActivateByProgId) {
    ASSERT_EQ(S_OK, dll().register_server());
    for (const registered_class& c : classes) {
        CLSID clsid{};
        ASSERT_EQ(S_OK, CLSIDFromProgID((std::wstring(L"vxTypes32.") + c.name).c_str(), &clsid)) << narrow(c.name);
        CLSID expected{};
        CLSIDFromString(c.clsid, &expected);
        EXPECT_TRUE(IsEqualCLSID(expected, clsid)) << narrow(c.name);
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

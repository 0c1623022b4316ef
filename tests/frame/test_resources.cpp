// The resources the DLL carries: version, type library and the
// class-to-interface items, byte for byte.
#include "support/component.h"

#include <cstring>
#include <string>
#include <vector>

namespace vx::test {
namespace {

std::vector<BYTE> resource_bytes(const wchar_t* type, WORD language) {
    HRSRC found = FindResourceExW(dll().module, type, MAKEINTRESOURCEW(1), language);
    if (!found) return {};
    HGLOBAL loaded = LoadResource(dll().module, found);
    const BYTE* data = static_cast<const BYTE*>(LockResource(loaded));
    return std::vector<BYTE>(data, data + SizeofResource(dll().module, found));
}

std::vector<BYTE> guid_bytes(const char* text) {
    wchar_t wide[40] = {};
    MultiByteToWideChar(CP_ACP, 0, text, -1, wide, 40);
    GUID guid{};
    EXPECT_EQ(S_OK, CLSIDFromString(wide, &guid)) << text;
    const BYTE* raw = reinterpret_cast<const BYTE*>(&guid);
    return std::vector<BYTE>(raw, raw + sizeof guid);
}

// A count, then the IIDs in their in-memory layout.
std::vector<BYTE> iid_item(std::initializer_list<const char*> iids) {
    std::vector<BYTE> bytes(4);
    const DWORD count = static_cast<DWORD>(iids.size() * 16);
    std::memcpy(bytes.data(), &count, 4);
    for (const char* iid : iids) {
        std::vector<BYTE> guid = guid_bytes(iid);
        bytes.insert(bytes.end(), guid.begin(), guid.end());
    }
    return bytes;
}

TEST(Resources, ClassInterfaceItemsAreExact) {
    const struct {
        const wchar_t* type;
        std::vector<BYTE> content;
    } items[] = {
        {L"_IID_CCOMPLEXNUMBER", iid_item({"{3986CECB-15A2-4AEC-939B-6FA01FA5E59C}"})},
        {L"_IID_CDIBSECTION", iid_item({"{BCFEA24D-F839-4CDF-86B8-FB46F906C28C}"})},
        {L"_IID_CLASS_VXTYPES32", iid_item({"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}"})},
        {L"_IID_CLSBITMAP", iid_item({"{ED5DAF74-73DE-4DA5-B0D3-CC8D70F6581B}"})},
        {L"_IID_CLSEASYREGISTRY", iid_item({"{F4BBD37D-F4E6-41F9-B6BB-E27E25DACF7C}"})},
        {L"_IID_CLSQUICKSORT", iid_item({"{E0592E2C-A229-43F7-A393-8956C50648B5}"})},
        {L"_IID_USERINFO",
         iid_item({"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}", "{9245A22A-FEC2-4CA5-8D19-BC6484D89305}"})},
        {L"_SRCIID_CLSQUICKSORT", iid_item({"{67D601DC-CB76-4D06-ADCC-D8F8780C249B}"})},
    };
    for (const auto& item : items) {
        const std::vector<BYTE> actual = resource_bytes(item.type, MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL));
        EXPECT_EQ(item.content, actual) << std::string(item.type, item.type + wcslen(item.type));
    }
    const std::vector<BYTE> user_info = resource_bytes(L"_IID_USERINFO", 0);
    ASSERT_EQ(36u, user_info.size());
    EXPECT_EQ(32, user_info[0]);
}

TEST(Resources, TypeLibraryIsResourceOne) {
    const std::vector<BYTE> library = resource_bytes(L"TYPELIB", MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL));
    ASSERT_GE(library.size(), 4u);
    EXPECT_EQ(0, std::memcmp(library.data(), "MSFT", 4)) << "the compound type-library format";
}

std::wstring version_string(const std::vector<BYTE>& block, const wchar_t* name, bool* present) {
    std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
    void* value = nullptr;
    UINT length = 0;
    *present = VerQueryValueW(block.data(), path.c_str(), &value, &length) != 0;
    if (!*present || !value) return {};
    std::wstring text(static_cast<const wchar_t*>(value));
    return text;
}

TEST(Resources, VersionInformation) {
    const std::wstring path = dll_path();
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    ASSERT_GT(size, 0u);
    std::vector<BYTE> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, block.data()));

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(0, 1)), fixed->dwFileVersionMS);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(31, 0)), fixed->dwFileVersionLS);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(0, 1)), fixed->dwProductVersionMS);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(31, 0)), fixed->dwProductVersionLS);
    EXPECT_EQ(0u, fixed->dwFileFlags);
    EXPECT_EQ(static_cast<DWORD>(VOS__WINDOWS32), fixed->dwFileOS);
    EXPECT_EQ(static_cast<DWORD>(VFT_DLL), fixed->dwFileType);

    const struct {
        const wchar_t* name;
        const wchar_t* value;  // null: present, any value
    } strings[] = {
        {L"ProductName", L"vxTypes32"},        {L"FileVersion", L"1.00.0031"},
        {L"ProductVersion", L"1.00.0031"},     {L"InternalName", L"vxTypes32"},
        {L"OriginalFilename", L"vxTypes32.dll"}, {L"OLESelfRegister", L""},
        {L"CompanyName", nullptr},
    };
    for (const auto& s : strings) {
        bool present = false;
        const std::wstring value = version_string(block, s.name, &present);
        EXPECT_TRUE(present) << std::string(s.name, s.name + wcslen(s.name));
        if (s.value) {
            EXPECT_EQ(s.value, value);
        }
    }

    DWORD* translation = nullptr;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation),
                               &length));
    ASSERT_EQ(4u, length);
    EXPECT_EQ(static_cast<DWORD>(MAKELONG(0x0409, 1200)), *translation);

    // The version resource itself is US English.
    EXPECT_NE(nullptr, FindResourceExW(dll().module, MAKEINTRESOURCEW(16), MAKEINTRESOURCEW(1), 1033));
}

}  // namespace
}  // namespace vx::test

// Registration round trips: what DllRegisterServer and the per-user install
// write, read back from the registry, that unregistering leaves nothing
// behind, and activation from the manifests with nothing registered. Each
// starts from a registry it cleared itself, and ends registered, as the
// script clients expect.
#include "frame/class_table.h"
#include "frame/registration.h"
#include "library_identity.h"
#include "support/component.h"

#include <string>

namespace vx::test {
namespace {

const std::wstring libid = guid_text(identity::libid);

// The library's version key; the registry writes the numbers in hexadecimal.
std::wstring library_version_key() {
    wchar_t version[16];
    wsprintfW(version, L"%x.%x", identity::library_major_version, identity::library_minor_version);
    return L"TypeLib\\" + libid + L"\\" + version;
}
const std::wstring version_key = library_version_key();
const wchar_t* const automation_marshaller = L"{00020424-0000-0000-C000-000000000046}";
const wchar_t* const dispatch_marshaller = L"{00020420-0000-0000-C000-000000000046}";

// Where a test looks: HKEY_CLASSES_ROOT unless it says otherwise.
HKEY classes = HKEY_CLASSES_ROOT;

bool key_exists(const std::wstring& path, HKEY root = classes) {
    unique_hkey key;
    return RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

std::wstring upper(std::wstring text) {
    CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

// The string value, or "<missing>".
std::wstring value_of(const std::wstring& path, const wchar_t* name = nullptr) {
    wchar_t data[1024] = {};
    DWORD bytes = sizeof data - sizeof(wchar_t), type = 0;
    unique_hkey key;
    if (RegOpenKeyExW(classes, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS ||
        RegQueryValueExW(key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes) != ERROR_SUCCESS ||
        type != REG_SZ)
        return L"<missing>";
    return data;
}

// Every marshalled interface of a class: the dual ones by the automation
// marshaller, the events interface as a dispinterface.
struct marshalled { const IID* iid; std::wstring name; const wchar_t* marshaller; };
std::vector<marshalled> interfaces_of(const class_entry& c) {
    std::vector<marshalled> found = {{c.interface_id, std::wstring(L"_") + c.name, automation_marshaller}};
    if (c.earlier_interface_id) found.push_back({c.earlier_interface_id, found[0].name, automation_marshaller});
    if (c.source_interface) found.push_back({c.source_interface, std::wstring(L"__") + c.name, dispatch_marshaller});
    return found;
}

// Clears every trace of the library in both scopes and both registry views,
// whoever left it: the other platform's DLL keeps the shared keys through
// this one's unregistration.
void start_unregistered() {
    const auto clear = [](const std::wstring& parent, const std::wstring& child) {
        for (HKEY scope : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
            for (REGSAM view : {KEY_WOW64_32KEY, KEY_WOW64_64KEY}) {
                unique_hkey key;
                if (RegOpenKeyExW(scope, (L"Software\\Classes" + parent).c_str(), 0, KEY_ALL_ACCESS | view,
                                  key.put()) == ERROR_SUCCESS)
                    RegDeleteTreeW(key.get(), child.c_str());
            }
    };
    clear(L"\\TypeLib", libid);
    for (const class_entry& c : class_table()) {
        clear(L"\\CLSID", guid_text(*c.clsid));
        clear(L"", prog_id(c));
        for (const marshalled& i : interfaces_of(c)) clear(L"\\Interface", guid_text(*i.iid));
    }
}

void expect_nothing_registered(const char* when) {
    for (const class_entry& c : class_table()) {
        EXPECT_FALSE(key_exists(L"CLSID\\" + guid_text(*c.clsid))) << when << ": " << narrow(c.name);
        EXPECT_FALSE(key_exists(prog_id(c))) << when << ": " << narrow(c.name);
        for (const marshalled& i : interfaces_of(c))
            EXPECT_FALSE(key_exists(L"Interface\\" + guid_text(*i.iid))) << when << ": " << narrow(i.name);
    }
    EXPECT_FALSE(key_exists(L"TypeLib\\" + libid)) << when;
}

void expect_everything_registered(const char* when) {
    const std::wstring path = upper(dll_path());
    for (const class_entry& c : class_table()) {
        const std::wstring clsid = guid_text(*c.clsid), key = L"CLSID\\" + clsid, id = prog_id(c);
        const std::string name = std::string(when) + ": " + narrow(c.name);
        EXPECT_EQ(id, value_of(key)) << name;
        EXPECT_EQ(path, upper(value_of(key + L"\\InprocServer32"))) << name;
        EXPECT_EQ(L"Apartment", value_of(key + L"\\InprocServer32", L"ThreadingModel")) << name;
        EXPECT_EQ(id, value_of(key + L"\\ProgID")) << name;
        EXPECT_EQ(libid, value_of(key + L"\\TypeLib")) << name;
        EXPECT_EQ(id, value_of(prog_id(c))) << name;
        EXPECT_EQ(clsid, value_of(prog_id(c) + L"\\Clsid")) << name;
        for (const marshalled& i : interfaces_of(c)) {
            const std::wstring interface_key = L"Interface\\" + guid_text(*i.iid);
            EXPECT_EQ(i.name, value_of(interface_key)) << name;
            EXPECT_EQ(i.marshaller, value_of(interface_key + L"\\ProxyStubClsid32")) << name;
            EXPECT_EQ(libid, value_of(interface_key + L"\\TypeLib")) << name;
        }
    }
    const wchar_t* platform = sizeof(void*) == 8 ? L"\\0\\win64" : L"\\0\\win32";
    EXPECT_EQ(path, upper(value_of(version_key + platform))) << when;
    EXPECT_EQ(path.substr(0, path.rfind(L'\\')), upper(value_of(version_key + L"\\HELPDIR")))
        << when << ": HELPDIR is the DLL's folder";
}

TEST(Registration, RoundTripLeavesNothingBehindAndEndsRegistered) {
    start_unregistered();
    ASSERT_EQ(S_OK, dll().register_server());
    ASSERT_EQ(S_OK, dll().unregister_server());
    EXPECT_EQ(S_OK, dll().unregister_server()) << "unregistering twice";
    expect_nothing_registered("after unregistering twice");
    ASSERT_EQ(S_OK, dll().register_server());
    ASSERT_EQ(S_OK, dll().register_server()) << "registering twice";
    expect_everything_registered("after registering twice");
}

TEST(Registration, PerUserRoundTripWritesNothingMachineWide) {
    ASSERT_TRUE(dll().install);
    start_unregistered();
    ASSERT_EQ(S_OK, dll().install(TRUE, L"user"));
    unique_hkey user, machine;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_READ,
                                             nullptr, user.put(), nullptr));
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Classes", 0, KEY_READ, machine.put()));
    classes = user.get();
    expect_everything_registered("per user");
    classes = machine.get();
    expect_nothing_registered("per user, machine-wide");
    ASSERT_EQ(S_OK, dll().install(FALSE, L"user"));
    EXPECT_EQ(S_OK, dll().install(FALSE, L"user")) << "removing twice";
    classes = user.get();
    expect_nothing_registered("after removing the per-user registration");
    classes = HKEY_CLASSES_ROOT;
    ASSERT_EQ(S_OK, dll().register_server());
}

TEST(RegistrationFree, EveryClassActivatesFromTheManifests) {
    start_unregistered();
    std::wstring folder = dll_path();
    folder.erase(folder.find_last_of(L'\\') + 1);
    const std::wstring manifest = folder + L"vxTypes32.client.manifest";
    ACTCTXW description = {};
    description.cbSize = sizeof description;
    description.dwFlags = ACTCTX_FLAG_ASSEMBLY_DIRECTORY_VALID;
    description.lpSource = manifest.c_str();
    description.lpAssemblyDirectory = folder.c_str();
    const HANDLE context = CreateActCtxW(&description);
    ULONG_PTR cookie = 0;
    ASSERT_TRUE(context != INVALID_HANDLE_VALUE && ActivateActCtx(context, &cookie)) << "the manifests load";
    for (const class_entry& c : class_table()) {
        com_ptr<IDispatch> object, named;
        EXPECT_EQ(S_OK, CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, *c.interface_id, object.put_void()))
            << narrow(c.name) << " by CLSID";
        // Within an activation context a ProgID may map to an alias of the
        // CLSID, which activates the same class.
        CLSID by_name{};
        EXPECT_EQ(S_OK, CLSIDFromProgID(prog_id(c).c_str(), &by_name)) << narrow(c.name);
        EXPECT_EQ(S_OK, CoCreateInstance(by_name, nullptr, CLSCTX_INPROC_SERVER, *c.interface_id, named.put_void()))
            << narrow(c.name) << " by ProgID";
    }
    DeactivateActCtx(0, cookie);
    ReleaseActCtx(context);
    ASSERT_EQ(S_OK, dll().register_server());
}

}  // namespace
}  // namespace vx::test

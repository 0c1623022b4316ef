// Registration, machine-wide and per user: what it writes, read back in
// both registry views; that unregistering leaves nothing behind or, beside
// the other platform's build, leaves that one as if registered alone; that
// a failed registration and an unknown install command line leave the
// registry as they found it; and activation from the manifests with
// nothing registered. Ends registered, as the script clients expect.
#include "frame/class_table.h"
#include "frame/registration.h"
#include "support/component.h"

#include <olectl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace vx::test {
namespace {

const std::wstring libid = L"{4CF34B96-9FF3-440A-A358-4CF5DCBADA69}";
const std::wstring version_key = L"TypeLib\\" + libid + L"\\1.2";
const wchar_t* const automation_marshaller = L"{00020424-0000-0000-C000-000000000046}";
const wchar_t* const dispatch_marshaller = L"{00020420-0000-0000-C000-000000000046}";
const bool win64 = sizeof(void*) == 8;
const REGSAM both_views[] = {KEY_WOW64_32KEY, KEY_WOW64_64KEY};
REGSAM view_of(bool platform_win64) { return platform_win64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY; }

// Where a scope's classes are, and how the DLL is asked to register there.
struct scope {
    HKEY base;
    registration_scope which;
    const char* name;
    HRESULT install(BOOL install) const {
        if (which == registration_scope::user) return dll().install(install, L"user");
        return install ? dll().register_server() : dll().unregister_server();
    }
};
const scope machine = {HKEY_LOCAL_MACHINE, registration_scope::machine, "machine-wide"};
const scope user = {HKEY_CURRENT_USER, registration_scope::user, "per user"};

std::wstring classes(const std::wstring& key) { return L"Software\\Classes\\" + key; }

std::wstring upper(std::wstring text) {
    CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
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

struct registry_value { REGSAM view; std::wstring key, name, value; };

// What registering one build of the DLL leaves: the library and its
// interfaces in both views, the build's path under its platform, and the
// classes in the build's own view.
std::vector<registry_value> registration_of(const std::wstring& path, bool platform_win64) {
    std::vector<registry_value> values;
    for (REGSAM view : both_views) {
        values.insert(values.end(), {{view, version_key, L"", L"vxTypes32"},
                                     {view, version_key + L"\\FLAGS", L"", L"0"},
                                     {view, version_key + L"\\HELPDIR", L"", path.substr(0, path.rfind(L'\\'))},
                                     {view, version_key + (platform_win64 ? L"\\0\\win64" : L"\\0\\win32"), L"", path}});
        for (const class_entry& c : class_table())
            for (const marshalled& i : interfaces_of(c)) {
                const std::wstring key = L"Interface\\" + guid_text(*i.iid);
                values.insert(values.end(), {{view, key, L"", i.name},
                                             {view, key + L"\\ProxyStubClsid", L"", i.marshaller},
                                             {view, key + L"\\ProxyStubClsid32", L"", i.marshaller},
                                             {view, key + L"\\TypeLib", L"", libid},
                                             {view, key + L"\\TypeLib", L"Version", L"1.2"}});
            }
    }
    const REGSAM own = view_of(platform_win64);
    for (const class_entry& c : class_table()) {
        const std::wstring clsid = guid_text(*c.clsid), key = L"CLSID\\" + clsid, id = prog_id(c);
        values.insert(values.end(), {{own, key, L"", id},
                                     {own, key + L"\\InprocServer32", L"", path},
                                     {own, key + L"\\InprocServer32", L"ThreadingModel", L"Apartment"},
                                     {own, key + L"\\ProgID", L"", id},
                                     {own, key + L"\\TypeLib", L"", libid},
                                     {own, id, L"", id},
                                     {own, id + L"\\Clsid", L"", clsid}});
    }
    return values;
}

// The string value, or "<missing>".
std::wstring value_of(const scope& s, const registry_value& where) {
    wchar_t data[1024] = {};
    DWORD bytes = sizeof data - sizeof(wchar_t), type = 0;
    unique_hkey key;
    if (RegOpenKeyExW(s.base, classes(where.key).c_str(), 0, KEY_READ | where.view, key.put()) != ERROR_SUCCESS ||
        RegQueryValueExW(key.get(), where.name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes) !=
            ERROR_SUCCESS ||
        type != REG_SZ)
        return L"<missing>";
    return data;
}

void expect_registered(const scope& s, const std::wstring& path, bool platform_win64, const std::string& when) {
    for (const registry_value& v : registration_of(path, platform_win64))
        EXPECT_EQ(upper(v.value), upper(value_of(s, v)))
            << when << ", " << s.name << ": " << narrow(v.key) << " " << narrow(v.name) << " in view " << v.view;
}

// Writes values as another registration would have left them.
void write(const scope& s, const std::vector<registry_value>& values) {
    for (const registry_value& v : values) {
        unique_hkey key;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(s.base, classes(v.key).c_str(), 0, nullptr, 0, KEY_SET_VALUE | v.view,
                                                 nullptr, key.put(), nullptr));
        RegSetValueExW(key.get(), v.name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(v.value.c_str()),
                       static_cast<DWORD>((v.value.size() + 1) * sizeof(wchar_t)));
    }
}

// The keys registration may touch: each class's, ProgID's, interfaces' and
// the library's.
std::vector<std::wstring> touched_keys() {
    std::vector<std::wstring> keys = {L"TypeLib\\" + libid};
    for (const class_entry& c : class_table()) {
        keys.push_back(L"CLSID\\" + guid_text(*c.clsid));
        keys.push_back(prog_id(c));
        for (const marshalled& i : interfaces_of(c)) keys.push_back(L"Interface\\" + guid_text(*i.iid));
    }
    return keys;
}

void dump(HKEY base, REGSAM view, const std::wstring& key, std::wstring& out) {
    unique_hkey opened;
    if (RegOpenKeyExW(base, classes(key).c_str(), 0, KEY_READ | view, opened.put()) != ERROR_SUCCESS) return;
    out += std::to_wstring(view == KEY_WOW64_32KEY ? 32 : 64) + L" " + key + L"\n";
    std::vector<std::wstring> lines, subkeys;
    wchar_t name[256], data[1024];
    for (DWORD i = 0;; ++i) {
        DWORD name_length = 256, bytes = sizeof data - sizeof(wchar_t), type = 0;
        std::fill(std::begin(data), std::end(data), L'\0');
        if (RegEnumValueW(opened.get(), i, name, &name_length, nullptr, &type, reinterpret_cast<BYTE*>(data),
                          &bytes) != ERROR_SUCCESS)
            break;
        lines.push_back(L"  " + std::wstring(name) + L" = " + std::to_wstring(type) + L":" + data + L"\n");
    }
    for (DWORD i = 0;; ++i) {
        DWORD name_length = 256;
        if (RegEnumKeyExW(opened.get(), i, name, &name_length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        subkeys.push_back(key + L"\\" + name);
    }
    std::sort(lines.begin(), lines.end());
    std::sort(subkeys.begin(), subkeys.end());
    for (const std::wstring& line : lines) out += line;
    for (const std::wstring& subkey : subkeys) dump(base, view, subkey, out);
}

// Everything registration may touch in a scope, in both views, as text.
std::string snapshot(const scope& s) {
    std::wstring out;
    for (REGSAM view : both_views)
        for (const std::wstring& key : touched_keys()) dump(s.base, view, key, out);
    return narrow(out);
}

void clear(const scope& s) {
    for (REGSAM view : both_views)
        for (const std::wstring& key : touched_keys()) {
            unique_hkey opened;
            if (RegOpenKeyExW(s.base, classes(key).c_str(), 0, KEY_ALL_ACCESS | view, opened.put()) != ERROR_SUCCESS)
                continue;
            RegDeleteTreeW(opened.get(), nullptr);
            opened.reset();
            RegDeleteKeyExW(s.base, classes(key).c_str(), view, 0);
        }
}

// Each test starts with nothing registered in either scope and ends with
// the DLL registered machine-wide alone.
class Registration : public ::testing::Test {
protected:
    void SetUp() override {
        clear(machine);
        clear(user);
    }
    void TearDown() override {
        clear(user);
        clear(machine);
        ASSERT_EQ(S_OK, dll().register_server());
    }
};

TEST_F(Registration, RoundTripsLeaveNothingBehind) {
    for (const scope* s : {&machine, &user}) {
        const scope& other_scope = s == &machine ? user : machine;
        ASSERT_EQ(S_OK, s->install(TRUE)) << s->name;
        ASSERT_EQ(S_OK, s->install(TRUE)) << s->name << ", registering twice";
        expect_registered(*s, dll_path(), win64, "registered twice");
        EXPECT_EQ("", snapshot(other_scope)) << s->name << ": nothing in the other scope";
        ASSERT_EQ(S_OK, s->install(FALSE)) << s->name;
        EXPECT_EQ(S_OK, s->install(FALSE)) << s->name << ", unregistering twice";
        EXPECT_EQ("", snapshot(*s)) << s->name << ": nothing left";
    }
}

// The other platform's build, here arranged as its registration leaves it,
// and this one registered side by side: unregistering either leaves the
// other as if registered alone (its interface keys in both views, its path
// and its folder as HELPDIR), whichever registered first. What a third
// party added to the library's shared key (an interop assembly) stays.
TEST_F(Registration, EitherBuildUnregistersWithoutTouchingTheOther) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    const std::wstring other_path = win64 ? L"C:\\Program Files (x86)\\Veltrax\\vxTypes32.dll"
                                          : L"C:\\Program Files\\Veltrax\\vxTypes32.dll";
    const registered_module other = {other_path, win64 ? SYS_WIN32 : SYS_WIN64};
    const std::vector<registry_value> interop = {
        {view_of(win64), version_key, L"PrimaryInteropAssemblyName", L"Veltrax.Interop.vxTypes32"}};
    for (const scope* s : {&machine, &user}) {
        write(*s, registration_of(other_path, !win64));
        write(*s, interop);
        const std::string other_alone = snapshot(*s);
        ASSERT_EQ(S_OK, s->install(TRUE)) << s->name;
        expect_registered(*s, dll_path(), win64, "beside the other build");
        ASSERT_EQ(S_OK, s->install(FALSE)) << s->name;
        EXPECT_EQ(other_alone, snapshot(*s)) << s->name << ": unregistering this build";

        clear(*s);
        ASSERT_EQ(S_OK, s->install(TRUE)) << s->name;
        write(*s, interop);
        const std::string this_alone = snapshot(*s);
        write(*s, registration_of(other_path, !win64));
        ASSERT_EQ(S_OK, unregister_module(s->which, library.get(), other)) << s->name;
        EXPECT_EQ(this_alone, snapshot(*s)) << s->name << ": unregistering the other build";
        clear(*s);
    }
}

// A step refused half-way (a key made volatile, under which no lasting key
// can be made) undoes what the call had written or changed before it.
TEST_F(Registration, AFailedRegistrationLeavesTheRegistryAsItFoundIt) {
    const class_entry& first = *class_table_begin();
    const class_entry& last = *(class_table_end() - 1);
    const struct {
        std::wstring key;
        HRESULT expected;
        const char* what;
    } refused[] = {{L"TypeLib\\" + libid, SELFREG_E_TYPELIB, "the library's key"},
                   {L"Interface\\" + guid_text(*last.interface_id), SELFREG_E_TYPELIB, "an interface's key"},
                   {prog_id(last), SELFREG_E_CLASS, "the last ProgID's key"}};
    for (const scope* s : {&machine, &user})
        for (const auto& step : refused) {
            // A registration at another path, whose value must come back.
            write(*s, {{view_of(win64), L"CLSID\\" + guid_text(*first.clsid) + L"\\InprocServer32", L"",
                        L"C:\\Elsewhere\\vxTypes32.dll"}});
            unique_hkey blocked;
            ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(s->base, classes(step.key).c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                                     KEY_READ | view_of(win64), nullptr, blocked.put(), nullptr));
            const std::string before = snapshot(*s);
            EXPECT_EQ(hex(step.expected), hex(s->install(TRUE))) << s->name << ", " << step.what;
            EXPECT_EQ(before, snapshot(*s)) << s->name << ", " << step.what;
            blocked.reset();
            clear(*s);
        }
}

// Only "user" selects the per-user registration; any other command line,
// or none, is refused and neither writes nor removes anything.
TEST_F(Registration, DllInstallRefusesCommandLinesItDoesNotKnow) {
    ASSERT_TRUE(dll().install);
    for (BOOL install : {TRUE, FALSE}) {
        if (!install) {
            ASSERT_TRUE(machine.install(TRUE) == S_OK && user.install(TRUE) == S_OK);
        }
        const std::string before = snapshot(machine) + snapshot(user);
        for (const wchar_t* line : {static_cast<const wchar_t*>(nullptr), L"", L" user ", L"machine", L"users",
                                    L"user machine", L"garbage"})
            EXPECT_EQ(hex(E_INVALIDARG), hex(dll().install(install, line)))
                << (install ? "install, " : "uninstall, ") << (line ? "\"" + narrow(line) + "\"" : "no command line");
        EXPECT_EQ(before, snapshot(machine) + snapshot(user)) << (install ? "install" : "uninstall");
    }
}

TEST(RegistrationFree, EveryClassActivatesFromTheManifests) {
    ASSERT_EQ(S_OK, dll().unregister_server());
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

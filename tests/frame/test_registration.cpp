// Registration, machine-wide and per user, in both registry views and beside the other platform's
// build; refusals. Ends registered, as the script clients expect.
#include "frame/class_table.h"
#include "frame/registration.h"
#include "library_identity.h"
#include "support/component.h"

#include <olectl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace vx::test {
namespace {

const std::wstring libid = guid_text(identity::libid);
// The library's version, which the registry writes in hexadecimal.
const std::wstring library_version = [] {
    wchar_t version[16];
    wsprintfW(version, L"%x.%x", identity::library_major_version, identity::library_minor_version);
    return std::wstring(version);
}();
const std::wstring version_key = L"TypeLib\\" + libid + L"\\" + library_version;
const wchar_t *const automation_marshaller = L"{00020424-0000-0000-C000-000000000046}",
                     *const dispatch_marshaller = L"{00020420-0000-0000-C000-000000000046}";
const bool win64 = sizeof(void*) == 8;
const REGSAM both_views[] = {KEY_WOW64_32KEY, KEY_WOW64_64KEY};
REGSAM view_of(bool platform_win64) { return platform_win64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY; }

struct scope { HKEY base; registration_scope which; const char* name; HRESULT (*install)(BOOL on); };
const scope machine = {HKEY_LOCAL_MACHINE, registration_scope::machine, "machine-wide",
                       [](BOOL on) { return on ? dll().register_server() : dll().unregister_server(); }};
const scope user = {HKEY_CURRENT_USER, registration_scope::user, "per user", [](BOOL on) { return dll().install(on, L"user"); }};
std::wstring classes(const std::wstring& key) { return L"Software\\Classes\\" + key; }
// Every marshalled interface of a class: the dual ones by the automation marshaller, the events as a dispinterface.
struct marshalled { const IID* iid; std::wstring name; const wchar_t* marshaller; };
std::vector<marshalled> interfaces_of(const class_entry& c) {
    std::vector<marshalled> found = {{c.interface_id, std::wstring(L"_") + c.name, automation_marshaller}};
    if (c.earlier_interface_id) found.push_back({c.earlier_interface_id, found[0].name, automation_marshaller});
    if (c.source_interface) found.push_back({c.source_interface, std::wstring(L"__") + c.name, dispatch_marshaller});
    return found;
}
struct registry_value { REGSAM view; std::wstring key, name, value; };
// What registering one build leaves: library and interfaces in both views, classes in its own.
std::vector<registry_value> registration_of(const std::wstring& path, bool platform_win64) {
    std::vector<registry_value> values;
    const std::wstring path_key = version_key + (platform_win64 ? L"\\0\\win64" : L"\\0\\win32");
    for (REGSAM view : both_views) {
        values.insert(values.end(), {{view, version_key, L"", identity::library_name}, {view, version_key + L"\\FLAGS", L"", L"0"},
                                     {view, version_key + L"\\HELPDIR", L"", path.substr(0, path.rfind(L'\\'))}, {view, path_key, L"", path}});
        for (const class_entry& c : class_table())
            for (const marshalled& i : interfaces_of(c)) {
                const std::wstring key = L"Interface\\" + guid_text(*i.iid);
                values.insert(values.end(), {{view, key, L"", i.name}, {view, key + L"\\ProxyStubClsid", L"", i.marshaller},
                                             {view, key + L"\\ProxyStubClsid32", L"", i.marshaller}, {view, key + L"\\TypeLib", L"", libid},
                                             {view, key + L"\\TypeLib", L"Version", library_version}});
            }
    }
    const REGSAM own = view_of(platform_win64);
    for (const class_entry& c : class_table()) {
        const std::wstring clsid = guid_text(*c.clsid), key = L"CLSID\\" + clsid, id = prog_id(c);
        values.insert(values.end(), {{own, key, L"", id}, {own, key + L"\\InprocServer32", L"", path},
                                     {own, key + L"\\InprocServer32", L"ThreadingModel", L"Apartment"}, {own, key + L"\\ProgID", L"", id},
                                     {own, key + L"\\TypeLib", L"", libid}, {own, id, L"", id}, {own, id + L"\\Clsid", L"", clsid}});
    }
    return values;
}
void write(const scope& s, const std::vector<registry_value>& values) {
    for (const registry_value& v : values) {
        unique_hkey key;
        RegCreateKeyExW(s.base, classes(v.key).c_str(), 0, nullptr, 0, KEY_SET_VALUE | v.view, nullptr, key.put(), nullptr);
        RegSetValueExW(key.get(), v.name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(v.value.c_str()),
                       static_cast<DWORD>((v.value.size() + 1) * sizeof(wchar_t)));
    }
}
// The keys registration may touch, in both views.
template <class Function> void for_each_touched_key(Function visit) {
    for (REGSAM view : both_views) {
        visit(view, L"TypeLib\\" + libid);
        for (const class_entry& c : class_table()) {
            visit(view, L"CLSID\\" + guid_text(*c.clsid)), visit(view, prog_id(c));
            for (const marshalled& i : interfaces_of(c)) visit(view, L"Interface\\" + guid_text(*i.iid));
        }
    }
}
// A line for the key, every key under it and every value in them.
void dump(HKEY base, REGSAM view, const std::wstring& key, std::vector<std::wstring>& lines) {
    unique_hkey opened;
    if (RegOpenKeyExW(base, classes(key).c_str(), 0, KEY_READ | view, opened.put()) != ERROR_SUCCESS) return;
    const std::wstring where = std::to_wstring(view == KEY_WOW64_32KEY ? 32 : 64) + L" " + key;
    lines.push_back(where);
    wchar_t name[256], data[1024];
    for (DWORD i = 0, length = 256, bytes = sizeof data, type = 0;
         !RegEnumValueW(opened.get(), i, name, &length, nullptr, &type, reinterpret_cast<BYTE*>(data), &bytes);
         ++i, length = 256, bytes = sizeof data)
        lines.push_back(where + L" [" + name + L"] " + std::to_wstring(type) + L" " + std::wstring(data, wcsnlen(data, bytes / 2)));
    for (DWORD i = 0, length = 256; !RegEnumKeyExW(opened.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr); ++i, length = 256)
        dump(base, view, key + L"\\" + name, lines);
}
std::string snapshot(const scope& s) {
    std::vector<std::wstring> lines;
    for_each_touched_key([&](REGSAM view, const std::wstring& key) { dump(s.base, view, key, lines); });
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::wstring& line : lines) text += narrow(line) + "\n";
    return text;
}
void clear(const scope& s) {
    for_each_touched_key([&](REGSAM view, const std::wstring& key) {
        unique_hkey opened;
        if (!RegOpenKeyExW(s.base, classes(key).c_str(), 0, KEY_ALL_ACCESS | view, opened.put()))
            RegDeleteTreeW(opened.get(), nullptr), RegDeleteKeyExW(s.base, classes(key).c_str(), view, 0);
    });
}
// Each test starts with nothing registered and ends registered machine-wide.
class Registration : public ::testing::Test {
protected:
    void SetUp() override { clear(machine), clear(user); }
    void TearDown() override { clear(machine), clear(user); EXPECT_EQ(S_OK, dll().register_server()); }
};
// Alone, this build writes what registration_of says, in its scope only. Beside the other build, unregistering
// either leaves the other as if registered alone, and a third party's addition to the shared library key stays.
TEST_F(Registration, EachBuildRoundTripsAloneAndBesideTheOther) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    const registered_module other = {win64 ? L"C:\\Veltrax\\x86\\vxTypes32.dll" : L"C:\\Veltrax\\x64\\vxTypes32.dll",
                                     win64 ? SYS_WIN32 : SYS_WIN64};
    const std::vector<registry_value> interop = {{view_of(win64), version_key, L"PrimaryInteropAssembly", L"Interop"}};
    for (const scope* s : {&machine, &user}) {
        write(*s, registration_of(dll_path(), win64));
        const std::string expected = snapshot(*s);
        clear(*s);
        ASSERT_TRUE(s->install(TRUE) == S_OK && s->install(TRUE) == S_OK) << s->name << ", registering twice";
        EXPECT_EQ(expected, snapshot(*s)) << s->name;
        EXPECT_EQ("", snapshot(s == &machine ? user : machine)) << s->name << ": nothing in the other scope";
        write(*s, interop);
        const std::string this_alone = snapshot(*s);
        write(*s, registration_of(other.path, !win64));
        ASSERT_EQ(S_OK, unregister_module(s->which, library.get(), other)) << s->name;
        EXPECT_EQ(this_alone, snapshot(*s)) << s->name << ": unregistering the other build";
        ASSERT_TRUE(s->install(FALSE) == S_OK && s->install(FALSE) == S_OK) << s->name << ", unregistering twice";
        EXPECT_EQ("", snapshot(*s)) << s->name << ": nothing left";
        write(*s, registration_of(other.path, !win64));
        write(*s, interop);
        const std::string other_alone = snapshot(*s);
        ASSERT_TRUE(s->install(TRUE) == S_OK && s->install(FALSE) == S_OK) << s->name;
        EXPECT_EQ(other_alone, snapshot(*s)) << s->name << ": unregistering this build";
        clear(*s);
    }
}
// A step refused half-way (no lasting key under a volatile one) undoes what the call wrote or changed; an
// unknown install command line does nothing.
TEST_F(Registration, RefusalsLeaveTheRegistryAsTheyFoundIt) {
    const class_entry &first = *class_table_begin(), &last = *(class_table_end() - 1);
    const struct { std::wstring key; HRESULT expected; } refused[] = {{L"TypeLib\\" + libid, SELFREG_E_TYPELIB},
                                                                      {prog_id(last), SELFREG_E_CLASS}};
    for (const scope* s : {&machine, &user})
        for (const auto& step : refused) {
            write(*s, {{view_of(win64), L"CLSID\\" + guid_text(*first.clsid) + L"\\InprocServer32", L"", L"C:\\Old\\vxTypes32.dll"}});
            unique_hkey blocked;
            ASSERT_EQ(0, RegCreateKeyExW(s->base, classes(step.key).c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                         KEY_READ | view_of(win64), nullptr, blocked.put(), nullptr));
            const std::string before = snapshot(*s);
            EXPECT_EQ(hex(step.expected), hex(s->install(TRUE))) << s->name << ", " << narrow(step.key);
            EXPECT_EQ(before, snapshot(*s)) << s->name << ", " << narrow(step.key);
            clear(*s);
        }
    for (BOOL install : {TRUE, FALSE}) {
        ASSERT_TRUE(install || (machine.install(TRUE) == S_OK && user.install(TRUE) == S_OK));
        const std::string before = snapshot(machine) + snapshot(user), what = install ? "install" : "uninstall";
        for (const wchar_t* line : {L"", L" user ", L"machine", L"users", L"user machine", L"garbage", static_cast<const wchar_t*>(nullptr)})
            EXPECT_EQ(hex(E_INVALIDARG), hex(dll().install(install, line))) << what << " \"" << narrow(line ? line : L"(none)") << "\"";
        EXPECT_EQ(before, snapshot(machine) + snapshot(user)) << what;
    }
}

// With nothing registered, the manifests alone activate every class, by CLSID and by ProgID (within an
// activation context a ProgID may map to an alias of the CLSID, which activates the same class).
TEST_F(Registration, EveryClassActivatesFromTheManifestsAlone) {
    const std::wstring folder = dll_path().substr(0, dll_path().find_last_of(L'\\') + 1),
                       manifest = folder + L"vxTypes32.client.manifest";
    ACTCTXW description = {sizeof description, ACTCTX_FLAG_ASSEMBLY_DIRECTORY_VALID, manifest.c_str()};
    description.lpAssemblyDirectory = folder.c_str();
    const HANDLE context = CreateActCtxW(&description);
    ULONG_PTR cookie = 0;
    ASSERT_TRUE(context != INVALID_HANDLE_VALUE && ActivateActCtx(context, &cookie)) << "the manifests load";
    for (const class_entry& c : class_table()) {
        com_ptr<IDispatch> object, named;
        CLSID by_name{};
        EXPECT_EQ(S_OK, CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, *c.interface_id, object.put_void())) << narrow(c.name);
        EXPECT_TRUE(CLSIDFromProgID(prog_id(c).c_str(), &by_name) == S_OK &&
                    CoCreateInstance(by_name, nullptr, CLSCTX_INPROC_SERVER, *c.interface_id, named.put_void()) == S_OK) << narrow(c.name);
    }
    DeactivateActCtx(0, cookie), ReleaseActCtx(context);
}

}  // namespace
}  // namespace vx::test

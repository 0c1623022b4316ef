#include "frame/registration.h"

#include "frame/automation_error.h"
#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/module.h"
#include "frame/type_library.h"
#include "library_identity.h"

#include <olectl.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Both scopes are written from the rows, the library's keys included, and
// nothing is left to the platform's RegisterTypeLib or UnRegisterTypeLib:
// those write and remove the interface keys of both registry views (Wine's
// do), so unregistering one build took the other's interfaces with it, and
// what they write cannot be undone when a later step fails. For the current
// user Wine's versions write machine-wide besides.

namespace vx {

namespace {

// The automation marshallers, which work from the registered type library:
// one for dual and oleautomation interfaces, one for dispinterfaces.
constexpr const wchar_t* automation_proxy_stub = L"{00020424-0000-0000-C000-000000000046}";
constexpr const wchar_t* dispatch_proxy_stub = L"{00020420-0000-0000-C000-000000000046}";

// Machine-wide registration goes to HKEY_LOCAL_MACHINE rather than
// HKEY_CLASSES_ROOT, whose writes land in the user's keys where those exist.
HKEY base_of(registration_scope scope) {
    return scope == registration_scope::machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
}
const std::wstring classes_key = L"Software\\Classes\\";

SYSKIND other_platform(SYSKIND platform) { return platform == SYS_WIN64 ? SYS_WIN32 : SYS_WIN64; }

// Named explicitly, so that either build can write the other's view; a
// system with one view ignores the flag.
REGSAM view_of(SYSKIND platform) { return platform == SYS_WIN64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY; }

std::vector<REGSAM> views_of(registry_views views, SYSKIND platform) {
    if (views == registry_views::module) return {view_of(platform)};
    return {view_of(platform), view_of(other_platform(platform))};
}

HRESULT failure_of(registration_part part) {
    return part == registration_part::type_library ? SELFREG_E_TYPELIB : SELFREG_E_CLASS;
}

struct library_facts {
    TLIBATTR attributes{};
    std::wstring libid, version, name;
};

library_facts facts_of(ITypeLib* library) {
    library_facts facts;
    TLIBATTR* attributes = nullptr;
    if (SUCCEEDED(library->GetLibAttr(&attributes))) {
        facts.attributes = *attributes;
        library->ReleaseTLibAttr(attributes);
    }
    facts.libid = guid_text(facts.attributes.guid);
    // The registry names a library version in hexadecimal.
    wchar_t version[16];
    wsprintfW(version, L"%x.%x", facts.attributes.wMajorVerNum, facts.attributes.wMinorVerNum);
    facts.version = version;
    unique_bstr name;
    library->GetDocumentation(-1, name.put(), nullptr, nullptr, nullptr);
    facts.name = name.get() ? name.get() : L"";
    return facts;
}

// The key under the library's version that holds one platform's path.
std::wstring path_key(const library_facts& facts, SYSKIND platform) {
    wchar_t lcid[16];
    wsprintfW(lcid, L"%lx", facts.attributes.lcid);
    return L"TypeLib\\" + facts.libid + L"\\" + facts.version + L"\\" + lcid +
           (platform == SYS_WIN64 ? L"\\win64" : L"\\win32");
}

std::wstring name_of(ITypeInfo* info) {
    unique_bstr name;
    if (FAILED(info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr)) || !name.get())
        return L"";
    return name.get();
}

// The string value, or empty when there is none.
std::wstring read_string(HKEY base, REGSAM view, const std::wstring& key) {
    unique_hkey opened;
    if (RegOpenKeyExW(base, (classes_key + key).c_str(), 0, KEY_QUERY_VALUE | view, opened.put()) != ERROR_SUCCESS)
        return L"";
    DWORD type = 0, bytes = 0;
    if (RegQueryValueExW(opened.get(), nullptr, nullptr, &type, nullptr, &bytes) != ERROR_SUCCESS || type != REG_SZ)
        return L"";
    std::wstring value(bytes / sizeof(wchar_t) + 1, L'\0');
    bytes = static_cast<DWORD>(value.size() * sizeof(wchar_t));
    if (RegQueryValueExW(opened.get(), nullptr, nullptr, &type, reinterpret_cast<BYTE*>(value.data()), &bytes) !=
        ERROR_SUCCESS)
        return L"";
    value.resize(wcsnlen(value.c_str(), value.size()));
    return value;
}

// Writes values and notes what each write created or replaced, so that a
// failed registration puts back exactly what it found.
class registry_journal {
public:
    explicit registry_journal(HKEY base) : base_(base) {}
    registry_journal(const registry_journal&) = delete;
    registry_journal& operator=(const registry_journal&) = delete;
    ~registry_journal() {
        if (!committed_) undo();
    }

    bool set(REGSAM view, const std::wstring& key, const std::wstring& name, const std::wstring& value) {
        unique_hkey opened;
        if (!create(view, key, opened)) return false;
        change before{view, classes_key + key, name, false, false, 0, {}};
        DWORD bytes = 0;
        const LSTATUS found = RegQueryValueExW(opened.get(), name.c_str(), nullptr, &before.type, nullptr, &bytes);
        if (found == ERROR_SUCCESS) {
            before.data.resize(bytes);
            if (RegQueryValueExW(opened.get(), name.c_str(), nullptr, &before.type, before.data.data(), &bytes) !=
                ERROR_SUCCESS)
                return false;
            before.existed = true;
        } else if (found != ERROR_FILE_NOT_FOUND) {
            return false;
        }
        changes_.push_back(std::move(before));
        const auto size = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
        return RegSetValueExW(opened.get(), name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                              size) == ERROR_SUCCESS;
    }

    void commit() { committed_ = true; }

private:
    // A value as it was before this call wrote it, or a key this call made.
    struct change {
        REGSAM view;
        std::wstring path, name;
        bool existed;
        bool key_created;
        DWORD type;
        std::vector<BYTE> data;
    };

    // Level by level, so that every key this call makes is noted.
    bool create(REGSAM view, const std::wstring& key, unique_hkey& opened) {
        for (size_t end = key.find(L'\\');; end = key.find(L'\\', end + 1)) {
            const bool last = end == std::wstring::npos;
            const std::wstring path = classes_key + key.substr(0, end);
            if (!last && seen_.count({view, path})) continue;
            unique_hkey level;
            DWORD disposition = 0;
            const REGSAM access = KEY_QUERY_VALUE | (last ? KEY_SET_VALUE : 0) | view;
            if (RegCreateKeyExW(base_, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, level.put(),
                                &disposition) != ERROR_SUCCESS)
                return false;
            if (disposition == REG_CREATED_NEW_KEY) changes_.push_back({view, path, L"", false, true, 0, {}});
            seen_.insert({view, path});
            if (last) {
                opened = std::move(level);
                return true;
            }
        }
    }

    // Newest first: a value goes back before the key it was written in.
    void undo() noexcept {
        for (auto c = changes_.rbegin(); c != changes_.rend(); ++c) {
            if (c->key_created) {
                RegDeleteKeyExW(base_, c->path.c_str(), c->view, 0);
                continue;
            }
            unique_hkey key;
            if (RegOpenKeyExW(base_, c->path.c_str(), 0, KEY_SET_VALUE | c->view, key.put()) != ERROR_SUCCESS)
                continue;
            if (c->existed)
                RegSetValueExW(key.get(), c->name.c_str(), 0, c->type, c->data.data(),
                               static_cast<DWORD>(c->data.size()));
            else
                RegDeleteValueW(key.get(), c->name.c_str());
        }
    }

    HKEY base_;
    std::vector<change> changes_;
    std::set<std::pair<REGSAM, std::wstring>> seen_;
    bool committed_ = false;
};

HRESULT write_rows(registry_journal& journal, const std::vector<registration_row>& rows, SYSKIND platform) {
    for (const registration_row& row : rows)
        for (REGSAM view : views_of(row.views, platform))
            if (!journal.set(view, row.key, row.name, row.value)) return failure_of(row.part);
    return S_OK;
}

bool delete_tree(HKEY base, REGSAM view, const std::wstring& key) {
    const std::wstring path = classes_key + key;
    {
        unique_hkey opened;
        const LSTATUS status = RegOpenKeyExW(base, path.c_str(), 0, KEY_ALL_ACCESS | view, opened.put());
        if (status == ERROR_FILE_NOT_FOUND) return true;
        if (status != ERROR_SUCCESS || RegDeleteTreeW(opened.get(), nullptr) != ERROR_SUCCESS) return false;
    }
    const LSTATUS status = RegDeleteKeyExW(base, path.c_str(), view, 0);
    return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

// Removes the key's ancestors that nothing is left under, up to the
// top-level key ("CLSID", "TypeLib"), which stays.
void delete_empty_ancestors(HKEY base, REGSAM view, std::wstring key) {
    for (size_t end = key.find_last_of(L'\\'); end != std::wstring::npos && key.find(L'\\') < end;
         end = key.find_last_of(L'\\')) {
        key.resize(end);
        const std::wstring path = classes_key + key;
        unique_hkey opened;
        DWORD subkeys = 0, values = 0;
        if (RegOpenKeyExW(base, path.c_str(), 0, KEY_QUERY_VALUE | view, opened.put()) != ERROR_SUCCESS ||
            RegQueryInfoKeyW(opened.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                             nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
            subkeys != 0 || values != 0)
            return;
        opened.reset();
        RegDeleteKeyExW(base, path.c_str(), view, 0);
    }
}

// A key that rows come and go with, in one view.
struct owned_key {
    REGSAM view;
    std::wstring key;
    registration_part part;
    bool operator<(const owned_key& o) const {
        const auto depth = [](const std::wstring& k) { return std::count(k.begin(), k.end(), L'\\'); };
        // Deepest first, so that a key's ancestors are judged after it.
        if (depth(key) != depth(o.key)) return depth(key) > depth(o.key);
        return std::tie(key, view) < std::tie(o.key, o.view);
    }
};

std::set<owned_key> owned_keys(const std::vector<registration_row>& rows, SYSKIND platform) {
    std::set<owned_key> keys;
    for (const registration_row& row : rows)
        for (REGSAM view : views_of(row.views, platform)) keys.insert({view, row.owner, row.part});
    return keys;
}

registered_module this_module(ITypeLib* library) {
    return {module::file_path(), facts_of(library).attributes.syskind};
}

}  // namespace

std::wstring guid_text(REFGUID guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::wstring prog_id(const class_entry& entry) { return std::wstring(identity::prog_id_prefix) + entry.name; }

std::vector<marshalled_interface> marshalled_interfaces(ITypeLib* library) {
    std::vector<marshalled_interface> found;
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
        com_ptr<ITypeInfo> info;
        if (FAILED(library->GetTypeInfo(i, info.put()))) continue;
        TYPEATTR* a = nullptr;
        if (FAILED(info->GetTypeAttr(&a))) continue;
        const bool dual = a->wTypeFlags & TYPEFLAG_FDUAL;
        const bool dispatch = a->typekind == TKIND_DISPATCH;
        const bool automation = a->typekind == TKIND_INTERFACE && (a->wTypeFlags & TYPEFLAG_FOLEAUTOMATION);
        const GUID iid = a->guid;
        info->ReleaseTypeAttr(a);
        if (!dispatch && !automation) continue;
        found.push_back({guid_text(iid), name_of(info.get()),
                         dual || automation ? automation_proxy_stub : dispatch_proxy_stub});
    }
    return found;
}

std::vector<registration_row> registration_rows(ITypeLib* library, const registered_module& module) {
    const library_facts facts = facts_of(library);
    std::vector<registration_row> rows;
    const auto add = [&rows](registration_part part, registry_views views, const std::wstring& key,
                             const wchar_t* name, const std::wstring& value, const std::wstring& owner) {
        rows.push_back({part, views, key, name, value, owner});
    };

    // The library: shared by both builds but for each one's path.
    const std::wstring version_key = L"TypeLib\\" + facts.libid + L"\\" + facts.version;
    const std::wstring own_path_key = path_key(facts, module.platform);
    // The flag that a library was loaded from a file describes the loaded
    // copy, not the library.
    const std::wstring flags = std::to_wstring(facts.attributes.wLibFlags & ~LIBFLAG_FHASDISKIMAGE);
    const auto library_row = [&](const std::wstring& key, const std::wstring& value, const std::wstring& owner) {
        add(registration_part::type_library, registry_views::both, key, L"", value, owner);
    };
    library_row(version_key, facts.name, version_key);
    library_row(version_key + L"\\FLAGS", flags, version_key);
    library_row(version_key + L"\\HELPDIR", module.path.substr(0, module.path.find_last_of(L'\\')), version_key);
    library_row(own_path_key, module.path, own_path_key);

    // Its interfaces, and an earlier IID kept as an alias, which the
    // library does not list as an interface: it is marshalled as the
    // interface it names.
    std::vector<marshalled_interface> interfaces = marshalled_interfaces(library);
    for (const class_entry& entry : class_table()) {
        if (!entry.earlier_interface_id) continue;
        com_ptr<ITypeInfo> info;
        const HRESULT hr = library->GetTypeInfoOfGuid(*entry.interface_id, info.put());
        if (FAILED(hr)) raise_error(hr, identity::library_name, L"The type library does not describe this type.");
        interfaces.push_back({guid_text(*entry.earlier_interface_id), name_of(info.get()), automation_proxy_stub});
    }
    for (const marshalled_interface& i : interfaces) {
        const std::wstring key = L"Interface\\" + i.iid;
        const auto interface_row = [&](const std::wstring& subkey, const wchar_t* name, const std::wstring& value) {
            add(registration_part::type_library, registry_views::both, key + subkey, name, value, key);
        };
        interface_row(L"", L"", i.name);
        interface_row(L"\\ProxyStubClsid", L"", i.proxy_stub);
        interface_row(L"\\ProxyStubClsid32", L"", i.proxy_stub);
        interface_row(L"\\TypeLib", L"", facts.libid);
        interface_row(L"\\TypeLib", L"Version", facts.version);
    }

    // The classes, in the module's own view.
    for (const class_entry& entry : class_table()) {
        const std::wstring clsid = guid_text(*entry.clsid), clsid_key = L"CLSID\\" + clsid, id = prog_id(entry);
        const auto class_row = [&](const std::wstring& key, const wchar_t* name, const std::wstring& value,
                                   const std::wstring& owner) {
            add(registration_part::classes, registry_views::module, key, name, value, owner);
        };
        class_row(clsid_key, L"", id, clsid_key);
        class_row(clsid_key + L"\\InprocServer32", L"", module.path, clsid_key);
        class_row(clsid_key + L"\\InprocServer32", L"ThreadingModel", threading_model, clsid_key);
        class_row(clsid_key + L"\\ProgID", L"", id, clsid_key);
        class_row(clsid_key + L"\\TypeLib", L"", facts.libid, clsid_key);
        class_row(id, L"", id, id);
        class_row(id + L"\\Clsid", L"", clsid, id);
    }
    return rows;
}

HRESULT register_module(registration_scope scope, ITypeLib* library, const registered_module& module) {
    try {
        const std::vector<registration_row> rows = registration_rows(library, module);
        registry_journal journal(base_of(scope));
        const HRESULT result = write_rows(journal, rows, module.platform);
        if (SUCCEEDED(result)) journal.commit();
        return result;
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

// Removes the keys this build owns that the other platform's build does not
// own as well; then writes the other's rows again, for what the two shared:
// its folder as HELPDIR, and any key that is one key in both views.
// Removing what is not registered is no failure: either may run twice.
HRESULT unregister_module(registration_scope scope, ITypeLib* library, const registered_module& module) {
    try {
        const HKEY base = base_of(scope);
        const registered_module other = {
            read_string(base, view_of(module.platform), path_key(facts_of(library), other_platform(module.platform))),
            other_platform(module.platform)};
        std::vector<registration_row> other_rows;
        if (!other.path.empty()) other_rows = registration_rows(library, other);
        const std::set<owned_key> theirs = owned_keys(other_rows, other.platform);
        HRESULT result = S_OK;
        for (const owned_key& own : owned_keys(registration_rows(library, module), module.platform)) {
            if (theirs.count(own)) continue;
            if (!delete_tree(base, own.view, own.key)) result = failure_of(own.part);
            delete_empty_ancestors(base, own.view, own.key);
        }
        if (!other.path.empty()) {
            registry_journal rewrite(base);
            const HRESULT written = write_rows(rewrite, other_rows, other.platform);
            rewrite.commit();  // what it could put back stays
            if (FAILED(written)) result = written;
        }
        return result;
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

HRESULT register_server(registration_scope scope) {
    try {
        com_ptr<ITypeLib> library = type_library::get();
        return register_module(scope, library.get(), this_module(library.get()));
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

HRESULT unregister_server(registration_scope scope) {
    try {
        com_ptr<ITypeLib> library = type_library::get();
        return unregister_module(scope, library.get(), this_module(library.get()));
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

}  // namespace vx

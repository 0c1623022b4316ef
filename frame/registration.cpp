#include "frame/registration.h"

#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/module.h"
#include "frame/type_library.h"
#include "library_identity.h"

#include <olectl.h>

#include <string>
#include <vector>

namespace vx {

namespace {

// The automation marshallers, which work from the registered type library:
// one for dual and oleautomation interfaces, one for dispinterfaces.
constexpr const wchar_t* automation_proxy_stub = L"{00020424-0000-0000-C000-000000000046}";
constexpr const wchar_t* dispatch_proxy_stub = L"{00020420-0000-0000-C000-000000000046}";

// Where the classes are written, and whether the platform's type-library
// registration can be used there.
class classes_root {
public:
    explicit classes_root(registration_scope scope) : scope_(scope) {
        if (scope == registration_scope::machine) {
            root_ = HKEY_CLASSES_ROOT;
            return;
        }
        // Wine's HKEY_CLASSES_ROOT and RegisterTypeLibForUser both write
        // machine-wide, so the per-user keys are written here directly.
        RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                        user_classes_.put(), nullptr);
        root_ = user_classes_.get();
    }
    HKEY get() const { return root_; }
    explicit operator bool() const { return root_ != nullptr; }
    bool machine() const { return scope_ == registration_scope::machine; }

private:
    registration_scope scope_;
    unique_hkey user_classes_;
    HKEY root_ = nullptr;
};

bool set_string(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value) {
    unique_hkey key;
    if (RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr) != ERROR_SUCCESS)
        return false;
    const auto bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    return RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()), bytes) ==
           ERROR_SUCCESS;
}

bool delete_tree(HKEY root, const std::wstring& path) {
    const LSTATUS status = RegDeleteTreeW(root, path.c_str());
    return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

bool key_exists(HKEY root, const std::wstring& path) {
    unique_hkey key;
    return RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

// Removes a key only when nothing is left under it.
void delete_if_empty(HKEY root, const std::wstring& path) {
    unique_hkey key;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) return;
    DWORD subkeys = 0, values = 0;
    if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                         nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        return;
    key.reset();
    if (subkeys == 0 && values == 0) RegDeleteKeyW(root, path.c_str());
}

struct library_facts {
    TLIBATTR attributes{};
    std::wstring libid, version, name;
};

const wchar_t* syskind_name(SYSKIND kind) { return kind == SYS_WIN64 ? L"win64" : L"win32"; }

// The key under a library's version that holds its path on one platform;
// a 32-bit and a 64-bit build of the library share the version key.
std::wstring platform_subkey(const library_facts& facts, SYSKIND kind) {
    wchar_t lcid[16];
    wsprintfW(lcid, L"%lx", facts.attributes.lcid);
    return std::wstring(lcid) + L"\\" + syskind_name(kind);
}

SYSKIND other_platform(const library_facts& facts) {
    return facts.attributes.syskind == SYS_WIN64 ? SYS_WIN32 : SYS_WIN64;
}

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
        unique_bstr name;
        info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr);
        found.push_back({guid_text(iid), name.get() ? name.get() : L"",
                         dual || automation ? automation_proxy_stub : dispatch_proxy_stub});
    }
    return found;
}

namespace {

bool register_interface(HKEY root, const marshalled_interface& i, const library_facts& library) {
    const std::wstring key = L"Interface\\" + i.iid;
    return set_string(root, key, nullptr, i.name) &&
           set_string(root, key + L"\\ProxyStubClsid", nullptr, i.proxy_stub) &&
           set_string(root, key + L"\\ProxyStubClsid32", nullptr, i.proxy_stub) &&
           set_string(root, key + L"\\TypeLib", nullptr, library.libid) &&
           set_string(root, key + L"\\TypeLib", L"Version", library.version);
}

// What the platform's RegisterTypeLib writes, for a root where it cannot be
// used.
bool register_library_keys(HKEY root, ITypeLib* library, const library_facts& facts, const std::wstring& path) {
    const std::wstring key = L"TypeLib\\" + facts.libid + L"\\" + facts.version;
    std::wstring folder = path.substr(0, path.find_last_of(L'\\'));
    if (!set_string(root, key, nullptr, facts.name) || !set_string(root, key + L"\\FLAGS", nullptr, L"0") ||
        !set_string(root, key + L"\\HELPDIR", nullptr, folder) ||
        !set_string(root, key + L"\\" + platform_subkey(facts, facts.attributes.syskind), nullptr, path))
        return false;
    for (const marshalled_interface& i : marshalled_interfaces(library))
        if (!register_interface(root, i, facts)) return false;
    return true;
}

bool register_class(HKEY root, const class_entry& entry, const std::wstring& module_path,
                    const std::wstring& libid) {
    const std::wstring clsid_key = L"CLSID\\" + guid_text(*entry.clsid);
    const std::wstring id = prog_id(entry);
    return set_string(root, clsid_key, nullptr, id) &&
           set_string(root, clsid_key + L"\\InprocServer32", nullptr, module_path) &&
           set_string(root, clsid_key + L"\\InprocServer32", L"ThreadingModel", threading_model) &&
           set_string(root, clsid_key + L"\\ProgID", nullptr, id) &&
           set_string(root, clsid_key + L"\\TypeLib", nullptr, libid) && set_string(root, id, nullptr, id) &&
           set_string(root, id + L"\\Clsid", nullptr, guid_text(*entry.clsid));
}

// The platform registers the interfaces the library describes, but not an
// earlier IID kept as an alias: that one is marshalled as its interface.
bool register_earlier_interface(HKEY root, const class_entry& entry, const library_facts& library) {
    if (!entry.earlier_interface_id) return true;
    com_ptr<ITypeInfo> info = type_library::type_info_of(*entry.interface_id);
    unique_bstr name;
    if (FAILED(info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr))) return false;
    return register_interface(
        root, {guid_text(*entry.earlier_interface_id), name.get() ? name.get() : L"", automation_proxy_stub},
        library);
}

}  // namespace

HRESULT register_server(registration_scope scope) {
    try {
        const classes_root root(scope);
        if (!root) return SELFREG_E_CLASS;
        const std::wstring module_path = module::file_path();
        com_ptr<ITypeLib> library = type_library::get();
        const library_facts facts = facts_of(library.get());
        if (root.machine()) {
            std::wstring path = module_path;
            if (FAILED(RegisterTypeLib(library.get(), path.data(), nullptr))) return SELFREG_E_TYPELIB;
        } else if (!register_library_keys(root.get(), library.get(), facts, module_path)) {
            return SELFREG_E_TYPELIB;
        }
        for (const class_entry& entry : class_table()) {
            if (!register_earlier_interface(root.get(), entry, facts)) return SELFREG_E_TYPELIB;
            if (!register_class(root.get(), entry, module_path, facts.libid)) return SELFREG_E_CLASS;
        }
        return S_OK;
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

HRESULT unregister_server(registration_scope scope) {
    const classes_root root(scope);
    if (!root) return S_OK;  // nothing was ever written there
    com_ptr<ITypeLib> library;
    try {
        library = type_library::get();
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
    const library_facts facts = facts_of(library.get());
    const std::wstring library_key = L"TypeLib\\" + facts.libid;
    const std::wstring version_key = library_key + L"\\" + facts.version;
    // The other platform's build may be registered beside this one. Class
    // and interface keys live in each platform's registry view; the ProgIDs
    // and the library's version key are shared and stay for the other.
    const bool other_registered =
        key_exists(root.get(), version_key + L"\\" + platform_subkey(facts, other_platform(facts)));
    HRESULT result = S_OK;
    for (const class_entry& entry : class_table()) {
        if (!delete_tree(root.get(), L"CLSID\\" + guid_text(*entry.clsid)) ||
            (!other_registered && !delete_tree(root.get(), prog_id(entry))))
            result = SELFREG_E_CLASS;
        if (entry.earlier_interface_id &&
            !delete_tree(root.get(), L"Interface\\" + guid_text(*entry.earlier_interface_id)))
            result = SELFREG_E_TYPELIB;
    }
    // Unregistering what is not registered is no failure: either may run twice.
    const std::wstring own_key = version_key + L"\\" + platform_subkey(facts, facts.attributes.syskind);
    if (key_exists(root.get(), own_key)) {
        if (root.machine()) {
            const TLIBATTR& a = facts.attributes;
            if (FAILED(UnRegisterTypeLib(a.guid, a.wMajorVerNum, a.wMinorVerNum, a.lcid, a.syskind)))
                result = SELFREG_E_TYPELIB;
        } else {
            for (const marshalled_interface& i : marshalled_interfaces(library.get()))
                if (!delete_tree(root.get(), L"Interface\\" + i.iid)) result = SELFREG_E_TYPELIB;
            if (!delete_tree(root.get(), own_key)) result = SELFREG_E_TYPELIB;
            delete_if_empty(root.get(), own_key.substr(0, own_key.find_last_of(L'\\')));
            if (!other_registered && !delete_tree(root.get(), version_key)) result = SELFREG_E_TYPELIB;
        }
    }
    delete_if_empty(root.get(), library_key);
    return result;
}

}  // namespace vx

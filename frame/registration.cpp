#include "frame/registration.h"

#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/module.h"
#include "frame/type_library.h"
#include "vxTypes32_types.h"

#include <olectl.h>

#include <string>

namespace vx {

namespace {

// The automation marshaller, which works from the registered type library.
constexpr const wchar_t* automation_proxy_stub = L"{00020424-0000-0000-C000-000000000046}";

std::wstring guid_text(REFGUID guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

std::wstring prog_id(const class_entry& entry) { return std::wstring(L"vxTypes32.") + entry.name; }

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

// "1.2": how the registry names a library version (hexadecimal numbers).
std::wstring version_text(const TLIBATTR& library) {
    wchar_t text[16];
    wsprintfW(text, L"%x.%x", library.wMajorVerNum, library.wMinorVerNum);
    return text;
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

bool register_class(HKEY root, const class_entry& entry, const std::wstring& module_path,
                    const std::wstring& libid) {
    const std::wstring clsid_key = L"CLSID\\" + guid_text(*entry.clsid);
    const std::wstring id = prog_id(entry);
    return set_string(root, clsid_key, nullptr, id) &&
           set_string(root, clsid_key + L"\\InprocServer32", nullptr, module_path) &&
           set_string(root, clsid_key + L"\\InprocServer32", L"ThreadingModel", L"Apartment") &&
           set_string(root, clsid_key + L"\\ProgID", nullptr, id) &&
           set_string(root, clsid_key + L"\\TypeLib", nullptr, libid) && set_string(root, id, nullptr, id) &&
           set_string(root, id + L"\\Clsid", nullptr, guid_text(*entry.clsid));
}

// The platform registers the interfaces the library describes, but not an
// earlier IID kept as an alias: that one is marshalled as its interface.
bool register_earlier_interface(HKEY root, const class_entry& entry, const std::wstring& libid,
                                const TLIBATTR& library) {
    if (!entry.earlier_interface_id) return true;
    com_ptr<ITypeInfo> info = type_library::type_info_of(*entry.interface_id);
    unique_bstr name;
    if (FAILED(info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr))) return false;
    const std::wstring key = L"Interface\\" + guid_text(*entry.earlier_interface_id);
    const std::wstring version = version_text(library);
    return set_string(root, key, nullptr, name.get() ? name.get() : L"") &&
           set_string(root, key + L"\\ProxyStubClsid", nullptr, automation_proxy_stub) &&
           set_string(root, key + L"\\ProxyStubClsid32", nullptr, automation_proxy_stub) &&
           set_string(root, key + L"\\TypeLib", nullptr, libid) &&
           set_string(root, key + L"\\TypeLib", L"Version", version);
}

TLIBATTR library_attributes(ITypeLib* library) {
    TLIBATTR* attributes = nullptr;
    TLIBATTR copy{};
    if (SUCCEEDED(library->GetLibAttr(&attributes))) {
        copy = *attributes;
        library->ReleaseTLibAttr(attributes);
    }
    return copy;
}

}  // namespace

HRESULT register_server() {
    try {
        const std::wstring module_path = module::file_path();
        com_ptr<ITypeLib> library = type_library::get();
        const TLIBATTR attributes = library_attributes(library.get());
        std::wstring path = module_path;
        if (FAILED(RegisterTypeLib(library.get(), path.data(), nullptr))) return SELFREG_E_TYPELIB;
        const std::wstring libid = guid_text(attributes.guid);
        for (const class_entry& entry : class_table()) {
            if (!register_earlier_interface(HKEY_CLASSES_ROOT, entry, libid, attributes)) return SELFREG_E_TYPELIB;
            if (!register_class(HKEY_CLASSES_ROOT, entry, module_path, libid)) return SELFREG_E_CLASS;
        }
        return S_OK;
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
}

HRESULT unregister_server() {
    HRESULT result = S_OK;
    for (const class_entry& entry : class_table()) {
        if (!delete_tree(HKEY_CLASSES_ROOT, L"CLSID\\" + guid_text(*entry.clsid)) ||
            !delete_tree(HKEY_CLASSES_ROOT, prog_id(entry)))
            result = SELFREG_E_CLASS;
        if (entry.earlier_interface_id &&
            !delete_tree(HKEY_CLASSES_ROOT, L"Interface\\" + guid_text(*entry.earlier_interface_id)))
            result = SELFREG_E_TYPELIB;
    }
    TLIBATTR attributes{};
    try {
        attributes = library_attributes(type_library::get().get());
    } catch (...) {
        return SELFREG_E_TYPELIB;
    }
    const std::wstring library_key = L"TypeLib\\" + guid_text(attributes.guid);
    // Unregistering what is not registered is no failure: either may run twice.
    if (key_exists(HKEY_CLASSES_ROOT, library_key + L"\\" + version_text(attributes)) &&
        FAILED(UnRegisterTypeLib(attributes.guid, attributes.wMajorVerNum, attributes.wMinorVerNum, attributes.lcid,
                                 attributes.syskind)))
        result = SELFREG_E_TYPELIB;
    delete_if_empty(HKEY_CLASSES_ROOT, library_key);
    return result;
}

}  // namespace vx

// Writes the installer package's COM registration as WiX components, an
// include that wixl reads: the rows that DllRegisterServer writes, made by
// the same code from the class table and the type library, with the DLL's
// path and folder as references the installer resolves ([#file] and
// [INSTALLDIR]). All go under HKMU\Software\Classes: HKEY_LOCAL_MACHINE for
// a per-machine installation, HKEY_CURRENT_USER for a per-user one, as
// DllRegisterServer and DllInstall("user") write them.
//
// Each platform has a package, and both may be installed at once. A key
// that both write is owned by a component that both packages carry (one
// component code, 32-bit, which the installer counts once per package), so
// that removing either package leaves it for the other:
//   SharedRegistration  the library's version key, and the interface keys
//                       and ProgIDs of the 32-bit view (Windows 7 and later
//                       keep one ProgID key for both views)
//   Registration        this platform's own: its library path, its CLSID
//                       keys, and in a 64-bit package the interface keys of
//                       the 64-bit view, which a 32-bit package cannot write
//   ViewProgIds         (64-bit package) the ProgIDs of the 64-bit view,
//                       where that view keeps ProgIDs of its own (Wine), so
//                       that no key has two owners where the views share it
// Usage: make_installer_rows TYPELIB OUTPUT.wxi
#include "frame/handles.h"
#include "frame/registration.h"
#include "library_identity.h"

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

std::string utf8(const std::wstring& text) {
    std::string out(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    out.pop_back();
    return out;
}

std::string xml(const std::wstring& text) {
    std::string out;
    for (char c : utf8(text)) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

// The DLL at a place no real path names, so that the rows' values that name
// its path or its folder can be told apart and written as references.
const std::wstring placeholder_folder = L"\x1b{INSTALLDIR}";
const std::wstring placeholder_path = placeholder_folder + L"\\" + vx::identity::module_file_name;

std::wstring installer_value(const std::wstring& value) {
    if (value == placeholder_path) return L"[#" + std::wstring(vx::identity::module_file_name) + L"]";
    if (value == placeholder_folder) return L"[INSTALLDIR]";
    return value;
}

enum class component { registration, shared, view_prog_ids };

bool starts_with(const std::wstring& text, const wchar_t* prefix) { return text.rfind(prefix, 0) == 0; }

// The components that write a row, by the rule in the opening comment.
std::vector<component> placement(const vx::registration_row& row, SYSKIND platform, const std::wstring& own_path) {
    const bool wide = platform == SYS_WIN64;
    if (starts_with(row.key, L"TypeLib\\"))  // one key in both views
        return {row.owner == own_path ? component::registration : component::shared};
    if (starts_with(row.key, L"CLSID\\")) return {component::registration};
    if (starts_with(row.key, L"Interface\\"))  // both views
        return wide ? std::vector<component>{component::registration, component::shared}
                    : std::vector<component>{component::shared};
    return wide ? std::vector<component>{component::shared, component::view_prog_ids}
                : std::vector<component>{component::shared};
}

struct value_row {
    std::wstring key, name, value;
    bool operator<(const value_row& o) const { return std::tie(key, name) < std::tie(o.key, o.name); }
};

std::string component_xml(const char* id, const char* guid, const char* win64, const std::set<value_row>& rows) {
    std::string out = std::string("      <Component Id=\"") + id + "\" Guid=\"$(var." + guid + ")\" Win64=\"" + win64 +
                      "\">\n";
    bool first = true;
    for (const value_row& r : rows) {
        out += "        <RegistryValue Root=\"HKMU\" Key=\"Software\\Classes\\" + xml(r.key) + "\"" +
               (r.name.empty() ? "" : " Name=\"" + xml(r.name) + "\"") + " Type=\"string\" Value=\"" +
               xml(installer_value(r.value)) + "\"" + (first ? " KeyPath=\"yes\"" : "") + "/>\n";
        first = false;
    }
    return out + "      </Component>\n";
}

std::string include_xml(ITypeLib* library) {
    TLIBATTR* attributes = nullptr;
    if (FAILED(library->GetLibAttr(&attributes))) return {};
    const SYSKIND platform = attributes->syskind;
    library->ReleaseTLibAttr(attributes);

    std::map<component, std::set<value_row>> rows;
    const std::vector<vx::registration_row> all = vx::registration_rows(library, {placeholder_path, platform});
    std::wstring own_path;
    for (const vx::registration_row& row : all)
        if (row.value == placeholder_path && starts_with(row.key, L"TypeLib\\")) own_path = row.owner;
    for (const vx::registration_row& row : all)
        for (component c : placement(row, platform, own_path)) rows[c].insert({row.key, row.name, row.value});

    std::string out =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<!-- Generated by make_installer_rows from the class table and the type library; do not edit. -->\n"
        "<Include>\n  <Fragment>\n    <ComponentGroup Id=\"Registration\" Directory=\"INSTALLDIR\">\n";
    out += component_xml("Registration", "RegistrationComponentGuid", "$(var.Win64)", rows[component::registration]);
    out += component_xml("SharedRegistration", "SharedComponentGuid", "no", rows[component::shared]);
    // Installed on the condition VIEWPROGIDS, which the build sets in the
    // package (wixl takes no condition of a component).
    if (platform == SYS_WIN64)
        out += component_xml("ViewProgIds", "ViewProgIdsComponentGuid", "yes", rows[component::view_prog_ids]);
    return out + "    </ComponentGroup>\n  </Fragment>\n</Include>\n";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_installer_rows TYPELIB OUTPUT.wxi\n");
        return 2;
    }
    vx::com_ptr<ITypeLib> library;
    if (FAILED(LoadTypeLibEx(argv[1], REGKIND_NONE, library.put()))) {
        std::fprintf(stderr, "make_installer_rows: cannot load the type library\n");
        return 1;
    }
    const std::string text = include_xml(library.get());
    FILE* file = _wfopen(argv[2], L"wb");
    const bool written = file && !text.empty() && fwrite(text.data(), 1, text.size(), file) == text.size();
    if (!file || fclose(file) != 0 || !written) {
        std::fprintf(stderr, "make_installer_rows: cannot write %ls\n", argv[2]);
        return 1;
    }
    return 0;
}

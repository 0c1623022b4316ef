// Writes the manifests for registration-free use from the class table, the
// library's identity and the type library, so that they cannot drift from
// what the DLL serves (NAME is the library's name):
//   NAME.manifest         the DLL's assembly: its classes, type library and
//                         marshalled interfaces
//   NAME.client.manifest  an application manifest that depends on it
// Usage: make_manifests TYPELIB OUTPUT_DIR
#include "frame/class_table.h"
#include "frame/handles.h"
#include "frame/registration.h"
#include "library_identity.h"

#include <cstdio>
#include <string>

namespace {

// The manifests name the platform this tool was built for, the DLL's own.
#if defined(_WIN64)
constexpr const char* architecture = "amd64";
#else
constexpr const char* architecture = "x86";
#endif

std::string utf8(const std::wstring& text) {
    std::string out(WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    out.pop_back();
    return out;
}

bool write(const std::wstring& path, const std::string& text) {
    FILE* file = _wfopen(path.c_str(), L"wb");
    if (!file) return false;
    const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
    return fclose(file) == 0 && written;
}

const std::string assembly_name = utf8(vx::identity::library_name);

std::string assembly_manifest(ITypeLib* library) {
    TLIBATTR* attributes = nullptr;
    library->GetLibAttr(&attributes);
    const std::string libid = utf8(vx::guid_text(attributes->guid));
    const std::string version = std::to_string(attributes->wMajorVerNum) + "." + std::to_string(attributes->wMinorVerNum);
    library->ReleaseTLibAttr(attributes);

    std::string m =
        "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\r\n"
        "<assembly xmlns=\"urn:schemas-microsoft-com:asm.v1\" manifestVersion=\"1.0\">\r\n"
        "  <assemblyIdentity type=\"win32\" name=\"" + assembly_name + "\" version=\"" +
        vx::identity::assembly_version + "\" processorArchitecture=\"" + architecture + "\"/>\r\n"
        "  <file name=\"" + utf8(vx::identity::module_file_name) + "\">\r\n"
        "    <typelib tlbid=\"" + libid + "\" version=\"" + version + "\" helpdir=\"\" flags=\"\"/>\r\n";
    for (const vx::class_entry& entry : vx::class_table())
        m += "    <comClass clsid=\"" + utf8(vx::guid_text(*entry.clsid)) + "\" progid=\"" + utf8(vx::prog_id(entry)) +
             "\" threadingModel=\"" + utf8(vx::threading_model) + "\" tlbid=\"" + libid + "\"/>\r\n";
    m += "  </file>\r\n";
    for (const vx::marshalled_interface& i : vx::marshalled_interfaces(library))
        m += "  <comInterfaceExternalProxyStub name=\"" + utf8(i.name) + "\" iid=\"" + utf8(i.iid) +
             "\" proxyStubClsid32=\"" + utf8(i.proxy_stub) + "\" tlbid=\"" + libid + "\"/>\r\n";
    // The earlier identity of an interface is marshalled as the interface.
    for (const vx::class_entry& entry : vx::class_table()) {
        if (!entry.earlier_interface_id) continue;
        for (const vx::marshalled_interface& i : vx::marshalled_interfaces(library))
            if (i.iid == vx::guid_text(*entry.interface_id))
                m += "  <comInterfaceExternalProxyStub name=\"" + utf8(i.name) + "\" iid=\"" +
                     utf8(vx::guid_text(*entry.earlier_interface_id)) + "\" proxyStubClsid32=\"" +
                     utf8(i.proxy_stub) + "\" tlbid=\"" + libid + "\"/>\r\n";
    }
    return m + "</assembly>\r\n";
}

std::string client_manifest() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\r\n"
           "<assembly xmlns=\"urn:schemas-microsoft-com:asm.v1\" manifestVersion=\"1.0\">\r\n"
           "  <assemblyIdentity type=\"win32\" name=\"" + assembly_name + ".client\" version=\"1.0.0.0\" "
           "processorArchitecture=\"" + architecture + "\"/>\r\n"
           "  <dependency>\r\n"
           "    <dependentAssembly>\r\n"
           "      <assemblyIdentity type=\"win32\" name=\"" + assembly_name + "\" version=\"" +
           vx::identity::assembly_version + "\" processorArchitecture=\"" + architecture + "\"/>\r\n"
           "    </dependentAssembly>\r\n"
           "  </dependency>\r\n"
           "</assembly>\r\n";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_manifests TYPELIB OUTPUT_DIR\n");
        return 2;
    }
    vx::com_ptr<ITypeLib> library;
    if (FAILED(LoadTypeLibEx(argv[1], REGKIND_NONE, library.put()))) {
        std::fprintf(stderr, "make_manifests: cannot load the type library\n");
        return 1;
    }
    const std::wstring named = std::wstring(argv[2]) + L"\\" + vx::identity::library_name;
    if (!write(named + L".manifest", assembly_manifest(library.get())) ||
        !write(named + L".client.manifest", client_manifest())) {
        std::fprintf(stderr, "make_manifests: cannot write the manifests\n");
        return 1;
    }
    return 0;
}

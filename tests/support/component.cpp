#include "support/component.h"

#include <cstdio>

namespace vx::test {

namespace {

// Every test program runs in a single-threaded apartment, as the suite's clients do.
class apartment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)); }
    void TearDown() override { CoUninitialize(); }
};
const auto* const registered_apartment = ::testing::AddGlobalTestEnvironment(new apartment);

template <class Function>
void bind(HMODULE module, const char* name, Function& function) {
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace

std::wstring dll_path() {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::wstring path = program;
    return path.substr(0, path.find_last_of(L"\\/") + 1) + L"vxTypes32.dll";
}

const component& dll() {
    static const component loaded = [] {
        component c{LoadLibraryW(dll_path().c_str())};
        if (!c.module) return c;
        bind(c.module, "DllGetClassObject", c.get_class_object);
        bind(c.module, "DllCanUnloadNow", c.can_unload_now);
        bind(c.module, "DllRegisterServer", c.register_server);
        bind(c.module, "DllUnregisterServer", c.unregister_server);
        bind(c.module, "DllInstall", c.install);
        return c;
    }();
    if (!loaded.get_class_object) ADD_FAILURE() << "vxTypes32.dll did not load with its exports";
    return loaded;
}

std::wstring text_of(BSTR value) { return value ? std::wstring(value, SysStringLen(value)) : std::wstring(); }

error_info take_error_info() {
    com_ptr<IErrorInfo> info;
    unique_bstr source, description;
    if (GetErrorInfo(0, info.put()) != S_OK || !info) return {};
    info->GetSource(source.put());
    info->GetDescription(description.put());
    return {text_of(source.get()), text_of(description.get())};
}

std::string hex(HRESULT hr) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

}  // namespace vx::test

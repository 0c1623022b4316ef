// The DLL's entry point and its five exports.
#include "frame/class_factory.h"
#include "frame/class_table.h"
#include "frame/compiler_runtime.h"
#include "frame/module.h"
#include "frame/registration.h"
#include "frame/type_library.h"

// Loading the DLL runs none of the component's code. An ending thread and
// the freed DLL give back what the compiler's runtime took for them; at
// process exit (reserved set) the process takes everything back itself.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    if (reason == DLL_THREAD_DETACH) vx::compiler_runtime::thread_ending();
    if (reason == DLL_PROCESS_DETACH && !reserved) vx::compiler_runtime::dll_freed();
    return TRUE;
}

// The class object of a class in the table, queried for iid.
extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    const vx::class_entry* entry = vx::find_class(clsid);
    if (!entry) return CLASS_E_CLASSNOTAVAILABLE;
    return vx::get_class_object(*entry, iid, object);
}

// S_OK once no instance and no class-object lock remains, else S_FALSE.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    if (vx::module::in_use()) return S_FALSE;
    vx::type_library::release_cache();
    return S_OK;
}

// S_OK once the type library and every class are in the registry.
extern "C" HRESULT STDAPICALLTYPE DllRegisterServer() {
    return vx::register_server(vx::registration_scope::machine);
}

// S_OK once everything registration wrote is gone.
extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer() {
    return vx::unregister_server(vx::registration_scope::machine);
}

// "regsvr32 /n /i:user" registers for the current user alone, and
// "regsvr32 /u /n /i:user" removes that. The command line is that one word,
// in any case; any other, or none, is refused with E_INVALIDARG and
// nothing is written.
extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL install, LPCWSTR command_line) {
    if (!command_line || CompareStringOrdinal(command_line, -1, L"user", -1, TRUE) != CSTR_EQUAL) return E_INVALIDARG;
    return install ? vx::register_server(vx::registration_scope::user)
                   : vx::unregister_server(vx::registration_scope::user);
}

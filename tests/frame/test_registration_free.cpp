// Registration-free activation: with nothing in the registry, a client that
// activates the generated manifests creates every class of the table.
#include "frame/class_table.h"
#include "frame/registration.h"
#include "support/component.h"

#include <ocidl.h>

#include <string>

namespace vx::test {
namespace {

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

class activation_context {
public:
    explicit activation_context(const std::wstring& folder) {
        const std::wstring manifest = folder + L"vxTypes32.client.manifest";
        ACTCTXW description = {};
        description.cbSize = sizeof description;
        description.dwFlags = ACTCTX_FLAG_ASSEMBLY_DIRECTORY_VALID;
        description.lpSource = manifest.c_str();
        description.lpAssemblyDirectory = folder.c_str();
        context_ = CreateActCtxW(&description);
        if (context_ != INVALID_HANDLE_VALUE && !ActivateActCtx(context_, &cookie_)) cookie_ = 0;
    }
    ~activation_context() {
        if (cookie_) DeactivateActCtx(0, cookie_);
        if (context_ != INVALID_HANDLE_VALUE) ReleaseActCtx(context_);
    }
    bool active() const { return cookie_ != 0; }

private:
    HANDLE context_ = INVALID_HANDLE_VALUE;
    ULONG_PTR cookie_ = 0;
};

TEST(RegistrationFree, EveryClassActivatesFromTheManifests) {
    ASSERT_EQ(S_OK, dll().unregister_server());
    for (const class_entry& c : class_table()) {
        com_ptr<IDispatch> object;
        EXPECT_EQ(REGDB_E_CLASSNOTREG,
                  CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void()))
            << narrow(c.name) << " is not registered";
    }
    {
        std::wstring folder = dll_path();
        folder.erase(folder.find_last_of(L'\\') + 1);
        activation_context context(folder);
        ASSERT_TRUE(context.active()) << "the manifests load";
        for (const class_entry& c : class_table()) {
            com_ptr<IDispatch> object;
            EXPECT_EQ(S_OK, CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, *c.interface_id,
                                             object.put_void()))
                << narrow(c.name) << " by CLSID";
            // Within an activation context a ProgID may map to an alias of
            // the CLSID, which activates the same class.
            CLSID by_name{};
            ASSERT_EQ(S_OK, CLSIDFromProgID(prog_id(c).c_str(), &by_name)) << narrow(c.name) << " by ProgID";
            com_ptr<IProvideClassInfo> named;
            ASSERT_EQ(S_OK, CoCreateInstance(by_name, nullptr, CLSCTX_INPROC_SERVER, IID_IProvideClassInfo,
                                             named.put_void()))
                << narrow(c.name) << " by ProgID";
            com_ptr<ITypeInfo> info;
            ASSERT_EQ(S_OK, named->GetClassInfo(info.put()));
            TYPEATTR* attributes = nullptr;
            ASSERT_EQ(S_OK, info->GetTypeAttr(&attributes));
            EXPECT_EQ(narrow(guid_text(*c.clsid)), narrow(guid_text(attributes->guid))) << narrow(c.name);
            info->ReleaseTypeAttr(attributes);
        }
    }
    ASSERT_EQ(S_OK, dll().register_server());
}

}  // namespace
}  // namespace vx::test

// The type library read back from the built DLL and compared, fact by fact,
// with the published contract.
#include "support/component.h"

#include <string>
#include <vector>

namespace vx::test {
namespace {

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

GUID guid(const wchar_t* text) {
    GUID value{};
    CLSIDFromString(text, &value);
    return value;
}

com_ptr<ITypeLib> load_library() {
    com_ptr<ITypeLib> library;
    EXPECT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    return library;
}

struct type_attributes {
    TYPEKIND kind;
    GUID guid;
    WORD major, minor, flags, functions, variables, implemented;
    TYPEDESC alias;
    WORD vtable_size;
};

type_attributes attributes_of(ITypeInfo* info) {
    TYPEATTR* a = nullptr;
    EXPECT_EQ(S_OK, info->GetTypeAttr(&a));
    type_attributes copy{a->typekind, a->guid, a->wMajorVerNum, a->wMinorVerNum, a->wTypeFlags,
                         a->cFuncs,   a->cVars, a->cImplTypes,  a->tdescAlias, a->cbSizeVft};
    info->ReleaseTypeAttr(a);
    return copy;
}

std::wstring name_of(ITypeInfo* info, MEMBERID member = MEMBERID_NIL, std::wstring* doc = nullptr) {
    unique_bstr name, documentation;
    info->GetDocumentation(member, name.put(), documentation.put(), nullptr, nullptr);
    if (doc) *doc = text_of(documentation.get());
    return text_of(name.get());
}

// The vtable half of a dual interface.
com_ptr<ITypeInfo> vtable_view(ITypeInfo* dispatch_view) {
    HREFTYPE reference = 0;
    EXPECT_EQ(S_OK, dispatch_view->GetRefTypeOfImplType(-1, &reference));
    com_ptr<ITypeInfo> view;
    EXPECT_EQ(S_OK, dispatch_view->GetRefTypeInfo(reference, view.put()));
    return view;
}

com_ptr<ITypeInfo> implemented(ITypeInfo* info, UINT index, int* flags = nullptr) {
    HREFTYPE reference = 0;
    EXPECT_EQ(S_OK, info->GetRefTypeOfImplType(index, &reference));
    if (flags) {
        EXPECT_EQ(S_OK, info->GetImplTypeFlags(index, flags));
    }
    com_ptr<ITypeInfo> target;
    EXPECT_EQ(S_OK, info->GetRefTypeInfo(reference, target.put()));
    return target;
}

struct expected_type {
    const wchar_t* name;
    TYPEKIND kind;  // as LoadTypeLib reports it: a dual interface shows its dispatch view
    const wchar_t* guid;
    WORD major, minor, flags;
};

// In index order; the exact indices come with the complete library.
const expected_type expected_types[] = {
    {L"_Class_vxTypes32", TKIND_DISPATCH, L"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}", 1, 0, 0x11D0},
    {L"Class_vxTypes32", TKIND_COCLASS, L"{907DE45C-E88A-45F7-AFB0-1CCD810FF83A}", 1, 0, 0x0B},
    {L"_UserInfo", TKIND_DISPATCH, L"{9245A22A-FEC2-4CA5-8D19-BC6484D89305}", 1, 1, 0x11D0},
    {L"UserInfo", TKIND_COCLASS, L"{11E50AB6-E704-4F7C-963C-410640ACA91C}", 1, 1, 0x0B},
    {L"UserInfo___v0", TKIND_ALIAS, L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}", 1, 0, 0x10},
};

int index_of(ITypeLib* library, const wchar_t* name) {
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
        unique_bstr found;
        library->GetDocumentation(static_cast<INT>(i), found.put(), nullptr, nullptr, nullptr);
        if (text_of(found.get()) == name) return static_cast<int>(i);
    }
    return -1;
}

TEST(TypeLibrary, Identity) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(S_OK, library->GetLibAttr(&attributes));
    EXPECT_TRUE(IsEqualGUID(guid(L"{4CF34B96-9FF3-440A-A358-4CF5DCBADA69}"), attributes->guid));
    EXPECT_EQ(1, attributes->wMajorVerNum);
    EXPECT_EQ(2, attributes->wMinorVerNum);
    EXPECT_EQ(0u, attributes->lcid);
    EXPECT_EQ(SYS_WIN32, attributes->syskind);
    // Disk image is how the platform says it read the library from a file.
    EXPECT_EQ(0, attributes->wLibFlags & ~LIBFLAG_FHASDISKIMAGE);
    library->ReleaseTLibAttr(attributes);

    unique_bstr name, doc, help_file;
    DWORD help_context = 1;
    ASSERT_EQ(S_OK, library->GetDocumentation(-1, name.put(), doc.put(), &help_context, help_file.put()));
    EXPECT_EQ(L"vxTypes32", text_of(name.get()));
    EXPECT_EQ(L"", text_of(doc.get()));
    EXPECT_EQ(L"", text_of(help_file.get()));
    EXPECT_EQ(0u, help_context);
}

TEST(TypeLibrary, TypesInOrderWithTheirIdentities) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    int previous = -1;
    for (const expected_type& e : expected_types) {
        const int index = index_of(library.get(), e.name);
        ASSERT_GE(index, 0) << narrow(e.name) << " is missing";
        EXPECT_EQ(previous + 1, index) << narrow(e.name) << " follows the type before it";
        previous = index;

        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, library->GetTypeInfo(static_cast<UINT>(index), info.put()));
        const type_attributes a = attributes_of(info.get());
        EXPECT_EQ(e.kind, a.kind) << narrow(e.name);
        EXPECT_TRUE(IsEqualGUID(guid(e.guid), a.guid)) << narrow(e.name);
        EXPECT_EQ(e.major, a.major) << narrow(e.name);
        EXPECT_EQ(e.minor, a.minor) << narrow(e.name);
        if (e.kind == TKIND_DISPATCH && (e.flags & TYPEFLAG_FDUAL)) {
            // The platform reports the dispatch view of a dual interface
            // without the oleautomation flag; the vtable view has them all.
            EXPECT_EQ(e.flags & ~TYPEFLAG_FOLEAUTOMATION, a.flags) << narrow(e.name);
            EXPECT_EQ(e.flags, attributes_of(vtable_view(info.get()).get()).flags) << narrow(e.name);
        } else {
            EXPECT_EQ(e.flags, a.flags) << narrow(e.name);
        }

        com_ptr<ITypeInfo> by_guid;
        EXPECT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(e.guid), by_guid.put())) << narrow(e.name);
    }
}

struct expected_member {
    const wchar_t* name;
    MEMBERID id;
    INVOKEKIND kind;
    short vtable_offset;
    short parameters;  // on the vtable side, retval included
    const wchar_t* help;
};

TEST(TypeLibrary, UserInfoMembers) {
    com_ptr<ITypeLib> library = load_library();
    com_ptr<ITypeInfo> dispatch_view;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(L"{9245A22A-FEC2-4CA5-8D19-BC6484D89305}"), dispatch_view.put()));
    com_ptr<ITypeInfo> info = vtable_view(dispatch_view.get());
    const type_attributes a = attributes_of(info.get());
    EXPECT_EQ(TKIND_INTERFACE, a.kind);
    EXPECT_EQ(2, a.functions);
    EXPECT_EQ(36, a.vtable_size) << "seven IDispatch slots and two of its own";

    int base_flags = 0;
    com_ptr<ITypeInfo> base = implemented(info.get(), 0, &base_flags);
    EXPECT_EQ(L"IDispatch", name_of(base.get()));
    EXPECT_TRUE(IsEqualGUID(IID_IDispatch, attributes_of(base.get()).guid));

    const expected_member members[] = {
        {L"Logon", 0, INVOKE_PROPERTYGET, 28, 1, L"Get user logon name."},
        {L"ComputerName", 0x68030000, INVOKE_PROPERTYGET, 32, 1, L""},
    };
    for (UINT i = 0; i < 2; ++i) {
        const expected_member& e = members[i];
        FUNCDESC* f = nullptr;
        ASSERT_EQ(S_OK, info->GetFuncDesc(i, &f));
        std::wstring help;
        EXPECT_EQ(e.name, name_of(info.get(), f->memid, &help));
        EXPECT_EQ(e.help, help) << narrow(e.name);
        EXPECT_EQ(e.id, f->memid) << narrow(e.name);
        EXPECT_EQ(e.kind, f->invkind) << narrow(e.name);
        EXPECT_EQ(e.vtable_offset, f->oVft) << narrow(e.name);
        EXPECT_EQ(FUNC_PUREVIRTUAL, f->funckind) << narrow(e.name);
        EXPECT_EQ(CC_STDCALL, f->callconv) << narrow(e.name);
        EXPECT_EQ(VT_HRESULT, f->elemdescFunc.tdesc.vt) << narrow(e.name);
        ASSERT_EQ(e.parameters, f->cParams) << narrow(e.name);
        EXPECT_EQ(0, f->cParamsOpt) << narrow(e.name);
        const ELEMDESC& result = f->lprgelemdescParam[0];
        EXPECT_EQ(VT_PTR, result.tdesc.vt) << narrow(e.name);
        EXPECT_EQ(VT_VARIANT, result.tdesc.lptdesc->vt) << narrow(e.name);
        EXPECT_EQ(PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, result.paramdesc.wParamFlags) << narrow(e.name);
        info->ReleaseFuncDesc(f);
    }
}

TEST(TypeLibrary, CoclassesAliasAndAnchor) {
    com_ptr<ITypeLib> library = load_library();
    const struct {
        const wchar_t* coclass;
        const wchar_t* default_interface;
    } coclasses[] = {{L"{907DE45C-E88A-45F7-AFB0-1CCD810FF83A}", L"_Class_vxTypes32"},
                     {L"{11E50AB6-E704-4F7C-963C-410640ACA91C}", L"_UserInfo"}};
    for (const auto& c : coclasses) {
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(c.coclass), info.put()));
        ASSERT_EQ(1, attributes_of(info.get()).implemented) << narrow(c.default_interface);
        int flags = 0;
        com_ptr<ITypeInfo> target = implemented(info.get(), 0, &flags);
        EXPECT_EQ(c.default_interface, name_of(target.get()));
        EXPECT_EQ(IMPLTYPEFLAG_FDEFAULT, flags) << narrow(c.default_interface);
    }

    com_ptr<ITypeInfo> alias;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}"), alias.put()));
    const type_attributes a = attributes_of(alias.get());
    ASSERT_EQ(VT_USERDEFINED, a.alias.vt);
    com_ptr<ITypeInfo> target;
    ASSERT_EQ(S_OK, alias->GetRefTypeInfo(a.alias.hreftype, target.put()));
    EXPECT_EQ(L"_UserInfo", name_of(target.get()));

    com_ptr<ITypeInfo> anchor;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(L"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}"), anchor.put()));
    EXPECT_EQ(0, attributes_of(vtable_view(anchor.get()).get()).functions);
}

}  // namespace
}  // namespace vx::test

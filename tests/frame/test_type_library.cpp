// The type library read back from the built DLL and compared, fact by fact,
// with the published contract: the index of every type, the members of every
// dual interface, the events, the coclasses and the enumerations. The
// records' fields are checked by the records' own tests.
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

std::wstring guid_text(const GUID& value) {
    wchar_t text[40] = {};
    StringFromGUID2(value, text, 40);
    return text;
}

const wchar_t* const library_id = L"{4CF34B96-9FF3-440A-A358-4CF5DCBADA69}";

// Resolving the raster-operation enumeration goes through the registry, so
// the stand-in for the VB runtime's library is registered in the test prefix.
class registered_standin : public ::testing::Environment {
public:
    void SetUp() override {
        com_ptr<ITypeLib> library;
        ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, library.put()));
    }
};
const auto* const standin = ::testing::AddGlobalTestEnvironment(new registered_standin);

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

com_ptr<ITypeInfo> type_named(ITypeLib* library, const wchar_t* name) {
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
        unique_bstr found;
        library->GetDocumentation(static_cast<INT>(i), found.put(), nullptr, nullptr, nullptr);
        if (text_of(found.get()) == name) {
            com_ptr<ITypeInfo> info;
            EXPECT_EQ(S_OK, library->GetTypeInfo(i, info.put()));
            return info;
        }
    }
    ADD_FAILURE() << narrow(name) << " is missing";
    return {};
}

// A type as IDL would spell it. Types of this library go by name; types of
// other libraries by GUID, since their names are those libraries' business.
std::wstring type_text(ITypeInfo* owner, const TYPEDESC& type) {
    switch (type.vt) {
    case VT_PTR: return type_text(owner, *type.lptdesc) + L"*";
    case VT_SAFEARRAY: return L"SAFEARRAY(" + type_text(owner, *type.lptdesc) + L")";
    case VT_USERDEFINED: {
        com_ptr<ITypeInfo> target;
        if (FAILED(owner->GetRefTypeInfo(type.hreftype, target.put()))) return L"(unresolved)";
        com_ptr<ITypeLib> home;
        UINT index = 0;
        if (FAILED(target->GetContainingTypeLib(home.put(), &index))) return L"(no library)";
        TLIBATTR* attributes = nullptr;
        home->GetLibAttr(&attributes);
        const bool ours = IsEqualGUID(guid(library_id), attributes->guid);
        home->ReleaseTLibAttr(attributes);
        return ours ? name_of(target.get()) : guid_text(attributes_of(target.get()).guid);
    }
    case VT_I2: return L"short";
    case VT_I4: return L"long";
    case VT_I8: return L"hyper";
    case VT_R8: return L"double";
    case VT_BSTR: return L"BSTR";
    case VT_BOOL: return L"VARIANT_BOOL";
    case VT_VARIANT: return L"VARIANT";
    case VT_DISPATCH: return L"IDispatch*";
    case VT_HRESULT: return L"HRESULT";
    case VT_VOID: return L"void";
    default: return L"vt" + std::to_wstring(type.vt);
    }
}

TEST(TypeLibrary, Identity) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(S_OK, library->GetLibAttr(&attributes));
    EXPECT_TRUE(IsEqualGUID(guid(library_id), attributes->guid));
    EXPECT_EQ(1, attributes->wMajorVerNum);
    EXPECT_EQ(2, attributes->wMinorVerNum);
    EXPECT_EQ(0u, attributes->lcid);
    EXPECT_EQ(sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32, attributes->syskind);
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

// A fact that the contract leaves to the implementer; not compared.
constexpr WORD free_fact = 0xFFFF;

struct expected_type {
    const wchar_t* name;
    TYPEKIND kind;      // as LoadTypeLib reports it: a dual interface shows its dispatch view
    const wchar_t* id;  // null for the records, whose identities their own tests check
    WORD major, minor, flags;
};

// Every type at its index, 0 to 29.
const expected_type expected_types[] = {
    {L"_Class_vxTypes32", TKIND_DISPATCH, L"{F8C1D47F-C472-42B4-98C3-797A00CC45FF}", 1, 0, 0x11D0},
    {L"Class_vxTypes32", TKIND_COCLASS, L"{907DE45C-E88A-45F7-AFB0-1CCD810FF83A}", 1, 0, 0x0B},
    {L"_CComplexNumber", TKIND_DISPATCH, L"{3986CECB-15A2-4AEC-939B-6FA01FA5E59C}", 1, 0, 0x11D0},
    {L"CComplexNumber", TKIND_COCLASS, L"{A21A9CF6-8F1C-4FDC-A0C8-8F02FB640344}", 1, 0, 0x0B},
    {L"_cDIBSection", TKIND_DISPATCH, L"{BCFEA24D-F839-4CDF-86B8-FB46F906C28C}", 1, 0, 0x11D0},
    {L"cDIBSection", TKIND_COCLASS, L"{A6575B9F-7E37-45DD-9761-C961A3A73EA9}", 1, 0, 0x0B},
    {L"_clsQuickSort", TKIND_DISPATCH, L"{E0592E2C-A229-43F7-A393-8956C50648B5}", 1, 0, 0x11D0},
    {L"clsQuickSort", TKIND_COCLASS, L"{12795561-2C65-4F75-A559-C55E07D92DEC}", 1, 0, 0x0B},
    {L"_clsEasyRegistry", TKIND_DISPATCH, L"{F4BBD37D-F4E6-41F9-B6BB-E27E25DACF7C}", 1, 0, 0x11D0},
    {L"clsEasyRegistry", TKIND_COCLASS, L"{B48E5C3D-DDFD-4349-BBFA-5744D966D2F5}", 1, 0, 0x0B},
    {L"_UserInfo", TKIND_DISPATCH, L"{9245A22A-FEC2-4CA5-8D19-BC6484D89305}", 1, 1, 0x11D0},
    {L"UserInfo", TKIND_COCLASS, L"{11E50AB6-E704-4F7C-963C-410640ACA91C}", 1, 1, 0x0B},
    {L"UserInfo___v0", TKIND_ALIAS, L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}", 1, 0, 0x10},
    {L"_clsBitmap", TKIND_DISPATCH, L"{ED5DAF74-73DE-4DA5-B0D3-CC8D70F6581B}", 1, 0, 0x11D0},
    {L"clsBitmap", TKIND_COCLASS, L"{08735274-E64B-4DE3-9E5E-984B103A9CB3}", 1, 0, 0x0B},
    {L"__clsQuickSort", TKIND_DISPATCH, L"{67D601DC-CB76-4D06-ADCC-D8F8780C249B}", free_fact, free_fact, 0x1090},
    {L"IPDataRecord", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Veltrax_point_transform", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"datum_transform", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Coordinate_System", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"OPENFILENAME", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"CHOOSECOLOR", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"BrowseInfo", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Veltrax_posting_file", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Veltrax_posting_field", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Veltrax_posting_source", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"Veltrax_facet_file", TKIND_RECORD, nullptr, 0, 0, 0},
    {L"enmDirValueIndex", TKIND_ENUM, L"{21E9C06E-A0F0-498C-B6E7-7295F6E5DEED}", free_fact, free_fact, free_fact},
    {L"enmDataType", TKIND_ENUM, L"{944EE54A-1FED-4B37-BF7D-D02D13E13679}", free_fact, free_fact, free_fact},
    {L"enmValueOfIndex", TKIND_ENUM, L"{A11616DE-3D78-47F3-85CF-6E784A8D6F83}", free_fact, free_fact, free_fact},
};

TEST(TypeLibrary, EveryTypeAtItsIndexWithItsIdentity) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    ASSERT_EQ(30u, library->GetTypeInfoCount());
    for (UINT index = 0; index < 30; ++index) {
        const expected_type& e = expected_types[index];
        const std::string what = narrow(e.name) + " at " + std::to_string(index);
        unique_bstr name;
        ASSERT_EQ(S_OK, library->GetDocumentation(static_cast<INT>(index), name.put(), nullptr, nullptr, nullptr));
        EXPECT_EQ(e.name, text_of(name.get())) << "index " << index;
        TYPEKIND kind = TKIND_MAX;
        EXPECT_EQ(S_OK, library->GetTypeInfoType(index, &kind));
        EXPECT_EQ(e.kind, kind) << what;
        if (!e.id) continue;

        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, library->GetTypeInfo(index, info.put()));
        const type_attributes a = attributes_of(info.get());
        EXPECT_TRUE(IsEqualGUID(guid(e.id), a.guid)) << what;
        if (e.major != free_fact) {
            EXPECT_EQ(e.major, a.major) << what;
            EXPECT_EQ(e.minor, a.minor) << what;
        }
        if (e.flags == free_fact) {
        } else if (e.kind == TKIND_DISPATCH && (e.flags & TYPEFLAG_FDUAL)) {
            // The platform reports the dispatch view of a dual interface
            // without the oleautomation flag; the vtable view has them all.
            EXPECT_EQ(e.flags & ~TYPEFLAG_FOLEAUTOMATION, a.flags) << what;
            const type_attributes v = attributes_of(vtable_view(info.get()).get());
            EXPECT_EQ(TKIND_INTERFACE, v.kind) << what;
            EXPECT_EQ(e.flags, v.flags) << what;
        } else {
            EXPECT_EQ(e.flags, a.flags) << what;
        }

        com_ptr<ITypeInfo> by_guid;
        EXPECT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(e.id), by_guid.put())) << what;
    }
}

// Types of other libraries, by GUID.
const std::wstring picture_disp = L"{7BF80981-BF32-101A-8BBB-00AA00300CAB}";
const std::wstring raster_op = L"{AD4EF4E8-FAC9-11CF-8425-00A0C9110056}";  // the runtime's; its name is free
// Handles and addresses are pointer-sized.
const std::wstring handle = sizeof(void*) == 8 ? L"hyper" : L"long";
const std::wstring handle_pointer = handle + L"*";

constexpr USHORT in = PARAMFLAG_FIN;
constexpr USHORT in_out = PARAMFLAG_FIN | PARAMFLAG_FOUT;
constexpr USHORT optional_in = PARAMFLAG_FIN | PARAMFLAG_FOPT | PARAMFLAG_FHASDEFAULT;

struct expected_param {
    const wchar_t* name;  // null: free (the value of a property put)
    std::wstring type;
    USHORT flags;
    VARTYPE default_type = VT_EMPTY;
    LONG default_value = 0;
};

struct expected_member {
    const wchar_t* name;
    MEMBERID id;
    INVOKEKIND kind;
    std::vector<expected_param> params;  // without the retval
    std::wstring result;                 // the [out, retval] parameter's type; empty for none
    const wchar_t* help = L"";
};

struct expected_interface {
    const wchar_t* name;
    std::vector<expected_member> members;  // in vtable order after IDispatch's seven
};

constexpr INVOKEKIND get = INVOKE_PROPERTYGET;
constexpr INVOKEKIND let = INVOKE_PROPERTYPUT;
constexpr INVOKEKIND method = INVOKE_FUNC;

const std::vector<expected_param> real_imaginary = {{L"Real", L"double*", in_out},
                                                    {L"Imaginary", L"double*", in_out}};

const expected_interface expected_interfaces[] = {
    {L"_Class_vxTypes32", {}},
    {L"_CComplexNumber",
     {
         {L"Real", 0x40030000, get, {}, L"double*"},
         {L"Real", 0x40030000, let, {{nullptr, L"double", in}}, L""},
         {L"Imaginary", 0x40030001, get, {}, L"double*"},
         {L"Imaginary", 0x40030001, let, {{nullptr, L"double", in}}, L""},
         {L"Init", 0x60030000, method, real_imaginary, L"_CComplexNumber**"},
         {L"Complex", 0x60030001, method, real_imaginary, L"_CComplexNumber**"},
         {L"Add", 0x60030002, method, {{L"other", L"_CComplexNumber**", in_out}}, L"_CComplexNumber**"},
         {L"Add2", 0x60030003, method, real_imaginary, L"_CComplexNumber**"},
         {L"Subtract2", 0x60030004, method, real_imaginary, L"_CComplexNumber**"},
         {L"Multiply2", 0x60030005, method, real_imaginary, L"_CComplexNumber**"},
         {L"Multiply", 0x60030006, method, {{L"cVal", L"_CComplexNumber**", in_out}}, L"_CComplexNumber**"},
         {L"Divide", 0x60030007, method, {{L"cVal", L"_CComplexNumber**", in_out}}, L"_CComplexNumber**"},
         {L"Reciprocal", 0x60030008, method, {}, L"_CComplexNumber**"},
         {L"Magnitude", 0x60030009, method, {}, L"double*"},
         {L"Divide2", 0x6003000A, method, real_imaginary, L"_CComplexNumber**"},
         {L"Text", 0x6003000B, method, {}, L"BSTR*"},
     }},
    {L"_cDIBSection",
     {
         {L"CopyToClipboard", 0x60030006, method, {{L"bAsDIB", L"VARIANT_BOOL", optional_in, VT_BOOL, -1}},
          L"VARIANT_BOOL*"},
         {L"CreateDIB",
          0x60030007,
          method,
          {{L"lhDC", handle, in}, {L"lwidth", L"long", in}, {L"lHeight", L"long", in}, {L"hDib", handle_pointer, in_out}},
          L"VARIANT_BOOL*"},
         {L"CreateFromPicture", 0x60030008, method, {{L"picThis", picture_disp + L"**", in_out}}, L"VARIANT*"},
         {L"Create", 0x60030009, method, {{L"lwidth", L"long", in}, {L"lHeight", L"long", in}}, L"VARIANT_BOOL*"},
         {L"BytesPerScanLine", 0x68030005, get, {}, L"long*"},
         {L"Width", 0x68030004, get, {}, L"long*"},
         {L"Height", 0x68030003, get, {}, L"long*"},
         {L"LoadPictureBlt",
          0x6003000A,
          method,
          {{L"lhDC", handle, in},
           {L"lSrcLeft", L"long", optional_in, VT_I4, 0},
           {L"lSrcTop", L"long", optional_in, VT_I4, 0},
           {L"lSrcWidth", L"long", optional_in, VT_I4, -1},
           {L"lSrcHeight", L"long", optional_in, VT_I4, -1},
           {L"eRop", raster_op, optional_in, VT_I4, 13369376}},
          L""},
         {L"PaintPicture",
          0x6003000B,
          method,
          {{L"lhDC", handle, in},
           {L"lDestLeft", L"long", optional_in, VT_I4, 0},
           {L"lDestTop", L"long", optional_in, VT_I4, 0},
           {L"lDestWidth", L"long", optional_in, VT_I4, -1},
           {L"lDestHeight", L"long", optional_in, VT_I4, -1},
           {L"lSrcLeft", L"long", optional_in, VT_I4, 0},
           {L"lSrcTop", L"long", optional_in, VT_I4, 0},
           {L"eRop", raster_op, optional_in, VT_I4, 13369376}},
          L""},
         {L"hdc", 0x68030002, get, {}, handle_pointer},
         {L"hDib", 0x68030001, get, {}, handle_pointer},
         {L"DIBSectionBitsPtr", 0x68030000, get, {}, handle_pointer},
         {L"RandomiseBits", 0x6003000C, method, {{L"bGray", L"VARIANT_BOOL", optional_in, VT_BOOL, 0}}, L""},
         {L"ClearUp", 0x6003000D, method, {}, L""},
         {L"Resample", 0x6003000E, method, {{L"lNewHeight", L"long", in}, {L"lNewWidth", L"long", in}},
          L"_cDIBSection**"},
     }},
    {L"_clsQuickSort",
     {
         {L"runtime", 0x40030000, get, {}, L"long*"},
         {L"runtime", 0x40030000, let, {{nullptr, L"long", in}}, L""},
         {L"Sort", 0x60030002, method, {{L"lastNdx", L"long", in}, {L"firstNdx", L"long", optional_in, VT_I4, 1}}, L""},
     }},
    {L"_clsEasyRegistry",
     {
         {L"CurrentKey", 0x68030001, get, {}, L"BSTR*"},
         {L"CD", 0x60030004, method, {{L"strDirectory", L"BSTR", in}}, L"long*"},
         {L"DirKey", 0x60030005, method, {{L"DirList", L"VARIANT*", in_out}}, L"long*"},
         {L"DirValue", 0x60030006, method, {{L"ValueList", L"VARIANT*", in_out}}, L"long*"},
         {L"ValueOf",
          0x68030000,
          let,
          {{L"strValueName", L"BSTR", in},
           {L"lngValueType", L"enmDataType*", in_out},
           {L"lRet", L"long*", in_out},
           {nullptr, L"VARIANT", in}},
          L""},
         {L"ValueOf",
          0x68030000,
          get,
          {{L"strValueName", L"BSTR", in}, {L"lngValueType", L"enmDataType*", in_out}, {L"lRet", L"long*", in_out}},
          L"VARIANT*"},
         {L"MakeKey", 0x60030007, method, {{L"strDirectory", L"BSTR", in}}, L"long*"},
         {L"DeleteKey", 0x60030008, method, {{L"strName", L"BSTR", in}}, L"long*"},
         {L"DeleteValue", 0x60030009, method, {{L"strName", L"BSTR", in}}, L"long*"},
     }},
    {L"_UserInfo",
     {
         {L"Logon", 0, get, {}, L"VARIANT*", L"Get user logon name."},
         {L"ComputerName", 0x68030000, get, {}, L"VARIANT*"},
     }},
    {L"_clsBitmap",
     {
         {L"ImageDC", 0x68030004, get, {}, handle_pointer},
         {L"InvertImageDC", 0x68030003, get, {}, handle_pointer},
         {L"MaskDC", 0x68030002, get, {}, handle_pointer},
         {L"Width", 0x68030001, get, {}, L"long*"},
         {L"Height", 0x68030000, get, {}, L"long*"},
         {L"SetBitmap", 0x60030005, method, {{L"NewBitmap", handle_pointer, in_out}}, L"VARIANT_BOOL*"},
     }},
};

// A parameter's flags, type and default against the expectation.
void check_param(ITypeInfo* info, const ELEMDESC& actual, const expected_param& e, const std::string& what) {
    EXPECT_EQ(e.type, type_text(info, actual.tdesc)) << what;
    EXPECT_EQ(e.flags, actual.paramdesc.wParamFlags) << what;
    if (e.default_type == VT_EMPTY) return;
    ASSERT_TRUE(actual.paramdesc.pparamdescex) << what << " has no default";
    const VARIANT& value = actual.paramdesc.pparamdescex->varDefaultValue;
    EXPECT_EQ(e.default_type, V_VT(&value)) << what;
    VARIANT as_long;
    VariantInit(&as_long);
    ASSERT_EQ(S_OK, VariantChangeType(&as_long, const_cast<VARIANT*>(&value), 0, VT_I4)) << what;
    EXPECT_EQ(e.default_value, V_I4(&as_long)) << what;
}

// The parameter names that GetNames gives for a member; a property put
// shares its DISPID with the get, so the first of the two answers.
std::vector<std::wstring> param_names(ITypeInfo* info, MEMBERID id) {
    BSTR names[16] = {};
    UINT count = 0;
    EXPECT_EQ(S_OK, info->GetNames(id, names, 16, &count));
    std::vector<std::wstring> out;
    for (UINT i = 0; i < count; ++i) {
        if (i > 0) out.push_back(text_of(names[i]));
        SysFreeString(names[i]);
    }
    return out;
}

TEST(TypeLibrary, DualInterfaceMembers) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    for (const expected_interface& e : expected_interfaces) {
        const std::string interface_name = narrow(e.name);
        com_ptr<ITypeInfo> dispatch_view = type_named(library.get(), e.name);
        ASSERT_TRUE(dispatch_view) << interface_name;
        com_ptr<ITypeInfo> info = vtable_view(dispatch_view.get());
        ASSERT_TRUE(info) << interface_name;
        const type_attributes a = attributes_of(info.get());
        EXPECT_EQ(TKIND_INTERFACE, a.kind) << interface_name;
        ASSERT_EQ(e.members.size(), a.functions) << interface_name;
        EXPECT_EQ(sizeof(void*) * (7 + e.members.size()), a.vtable_size)
            << interface_name << ": IDispatch's seven slots, then its own";
        ASSERT_EQ(1, a.implemented) << interface_name;
        com_ptr<ITypeInfo> base = implemented(info.get(), 0);
        EXPECT_TRUE(IsEqualGUID(IID_IDispatch, attributes_of(base.get()).guid)) << interface_name;

        for (UINT i = 0; i < e.members.size(); ++i) {
            const expected_member& m = e.members[i];
            const std::string what = interface_name + "." + narrow(m.name) + (m.kind == let ? " (put)" : "");
            FUNCDESC* f = nullptr;
            ASSERT_EQ(S_OK, info->GetFuncDesc(i, &f)) << what;
            std::wstring help;
            EXPECT_EQ(m.name, name_of(info.get(), f->memid, &help)) << interface_name << " member " << i;
            EXPECT_EQ(m.help, help) << what;
            EXPECT_EQ(m.id, f->memid) << what;
            EXPECT_EQ(m.kind, f->invkind) << what;
            EXPECT_EQ(static_cast<int>(sizeof(void*)) * (7 + static_cast<int>(i)), f->oVft) << what;
            EXPECT_EQ(FUNC_PUREVIRTUAL, f->funckind) << what;
            EXPECT_EQ(CC_STDCALL, f->callconv) << what;
            EXPECT_EQ(VT_HRESULT, f->elemdescFunc.tdesc.vt) << what;
            // Every optional parameter carries a default, so none counts as
            // optional without one.
            EXPECT_EQ(0, f->cParamsOpt) << what;
            const MEMBERID id = f->memid;
            const size_t with_result = m.params.size() + (m.result.empty() ? 0 : 1);
            if (static_cast<size_t>(f->cParams) != with_result) {
                ADD_FAILURE() << what << ": " << f->cParams << " parameters, expected " << with_result;
                info->ReleaseFuncDesc(f);
                continue;
            }
            for (size_t k = 0; k < m.params.size(); ++k) {
                check_param(info.get(), f->lprgelemdescParam[k], m.params[k], what + " parameter " + std::to_string(k));
            }
            if (!m.result.empty()) {
                check_param(info.get(), f->lprgelemdescParam[m.params.size()],
                            {nullptr, m.result, PARAMFLAG_FOUT | PARAMFLAG_FRETVAL}, what + " result");
            }
            info->ReleaseFuncDesc(f);

            const std::vector<std::wstring> names = param_names(info.get(), id);
            for (size_t k = 0; k < m.params.size() && m.params[k].name; ++k) {
                ASSERT_LT(k, names.size()) << what << ": no name for parameter " << k;
                EXPECT_EQ(m.params[k].name, names[k]) << what << " parameter " << k;
            }

            // Late-bound clients find the member by name on the dispatch view.
            LPOLESTR name = const_cast<LPOLESTR>(m.name);
            MEMBERID by_name = MEMBERID_NIL;
            EXPECT_EQ(S_OK, dispatch_view->GetIDsOfNames(&name, 1, &by_name)) << what;
            EXPECT_EQ(m.id, by_name) << what;
        }
    }
}

TEST(TypeLibrary, QuickSortEvents) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    com_ptr<ITypeInfo> info;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(L"{67D601DC-CB76-4D06-ADCC-D8F8780C249B}"), info.put()));
    const type_attributes a = attributes_of(info.get());
    EXPECT_EQ(TKIND_DISPATCH, a.kind);
    ASSERT_EQ(2, a.functions);
    ASSERT_EQ(1, a.implemented);
    EXPECT_TRUE(IsEqualGUID(IID_IDispatch, attributes_of(implemented(info.get(), 0).get()).guid));

    const expected_member events[] = {
        {L"isLess",
         1,
         method,
         {{L"ndx1", L"long", in}, {L"ndx2", L"long", in}, {L"Result", L"short*", in_out}},
         L""},
        {L"SwapItems", 2, method, {{L"ndx1", L"long", in}, {L"ndx2", L"long", in}}, L""},
    };
    for (UINT i = 0; i < 2; ++i) {
        const expected_member& m = events[i];
        const std::string what = narrow(m.name);
        FUNCDESC* f = nullptr;
        ASSERT_EQ(S_OK, info->GetFuncDesc(i, &f)) << what;
        EXPECT_EQ(m.name, name_of(info.get(), f->memid)) << "event " << i;
        EXPECT_EQ(m.id, f->memid) << what;
        EXPECT_EQ(INVOKE_FUNC, f->invkind) << what;
        EXPECT_EQ(FUNC_DISPATCH, f->funckind) << what;
        EXPECT_EQ(VT_VOID, f->elemdescFunc.tdesc.vt) << what;
        EXPECT_EQ(0, f->cParamsOpt) << what;
        if (static_cast<size_t>(f->cParams) == m.params.size()) {
            for (size_t k = 0; k < m.params.size(); ++k) {
                check_param(info.get(), f->lprgelemdescParam[k], m.params[k], what + " parameter " + std::to_string(k));
            }
        } else {
            ADD_FAILURE() << what << ": " << f->cParams << " parameters";
        }
        info->ReleaseFuncDesc(f);

        const std::vector<std::wstring> names = param_names(info.get(), m.id);
        ASSERT_EQ(m.params.size(), names.size()) << what;
        for (size_t k = 0; k < names.size(); ++k) EXPECT_EQ(m.params[k].name, names[k]) << what << " parameter " << k;
    }
}

TEST(TypeLibrary, CoclassesAndWhatTheyImplement) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    struct implementation {
        const wchar_t* name;
        int flags;
    };
    const struct {
        const wchar_t* coclass;
        std::vector<implementation> interfaces;
    } coclasses[] = {
        {L"Class_vxTypes32", {{L"_Class_vxTypes32", IMPLTYPEFLAG_FDEFAULT}}},
        {L"CComplexNumber", {{L"_CComplexNumber", IMPLTYPEFLAG_FDEFAULT}}},
        {L"cDIBSection", {{L"_cDIBSection", IMPLTYPEFLAG_FDEFAULT}}},
        {L"clsQuickSort",
         {{L"_clsQuickSort", IMPLTYPEFLAG_FDEFAULT},
          {L"__clsQuickSort", IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE}}},
        {L"clsEasyRegistry", {{L"_clsEasyRegistry", IMPLTYPEFLAG_FDEFAULT}}},
        {L"UserInfo", {{L"_UserInfo", IMPLTYPEFLAG_FDEFAULT}}},
        {L"clsBitmap", {{L"_clsBitmap", IMPLTYPEFLAG_FDEFAULT}}},
    };
    for (const auto& c : coclasses) {
        const std::string what = narrow(c.coclass);
        com_ptr<ITypeInfo> info = type_named(library.get(), c.coclass);
        ASSERT_TRUE(info) << what;
        ASSERT_EQ(c.interfaces.size(), attributes_of(info.get()).implemented) << what;
        for (UINT i = 0; i < c.interfaces.size(); ++i) {
            int flags = 0;
            com_ptr<ITypeInfo> target = implemented(info.get(), i, &flags);
            EXPECT_EQ(c.interfaces[i].name, name_of(target.get())) << what << " implements " << i;
            EXPECT_EQ(c.interfaces[i].flags, flags) << what << " implements " << i;
        }
    }
}

TEST(TypeLibrary, EarlierUserInfoIdentityIsAnAlias) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    com_ptr<ITypeInfo> alias;
    ASSERT_EQ(S_OK, library->GetTypeInfoOfGuid(guid(L"{46CA20A9-F4C9-459C-A3FB-19DFE14D73F8}"), alias.put()));
    const type_attributes a = attributes_of(alias.get());
    ASSERT_EQ(VT_USERDEFINED, a.alias.vt);
    com_ptr<ITypeInfo> target;
    ASSERT_EQ(S_OK, alias->GetRefTypeInfo(a.alias.hreftype, target.put()));
    EXPECT_EQ(L"_UserInfo", name_of(target.get()));
}

TEST(TypeLibrary, RegistryEnumerations) {
    com_ptr<ITypeLib> library = load_library();
    ASSERT_TRUE(library);
    struct constant {
        const wchar_t* name;
        LONG value;
    };
    const struct {
        const wchar_t* name;
        constant members[3];
    } enumerations[] = {
        {L"enmDirValueIndex", {{L"erValueName", 0}, {L"erValue", 1}, {L"erValueType", 2}}},
        {L"enmDataType", {{L"erSTRING", 0}, {L"erByte", 1}, {L"erDWord", 2}}},
        {L"enmValueOfIndex", {{L"erStringFormat", 0}, {L"erByteFormat", 1}, {L"erDWordFormat", 2}}},
    };
    for (const auto& e : enumerations) {
        const std::string what = narrow(e.name);
        com_ptr<ITypeInfo> info = type_named(library.get(), e.name);
        ASSERT_TRUE(info) << what;
        ASSERT_EQ(3, attributes_of(info.get()).variables) << what;
        for (UINT i = 0; i < 3; ++i) {
            VARDESC* v = nullptr;
            ASSERT_EQ(S_OK, info->GetVarDesc(i, &v)) << what;
            EXPECT_EQ(e.members[i].name, name_of(info.get(), v->memid)) << what << " member " << i;
            EXPECT_EQ(VAR_CONST, v->varkind) << what << " member " << i;
            VARIANT value;
            VariantInit(&value);
            EXPECT_EQ(S_OK, VariantChangeType(&value, v->lpvarValue, 0, VT_I4)) << what << " member " << i;
            EXPECT_EQ(e.members[i].value, V_I4(&value)) << what << " member " << i;
            info->ReleaseVarDesc(v);
        }
    }
}

}  // namespace
}  // namespace vx::test

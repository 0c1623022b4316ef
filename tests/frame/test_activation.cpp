// What the DLL publishes and activates through its own exports: class objects, instances, identity, unload
// counting and failures; its type library as the platform loads it, and its other resources; the runtime
// services the classes share.
#include "frame/automation_error.h"
#include "frame/class_table.h"
#include "frame/registration.h"
#include "frame/runtime.h"
#include "sort/sort_sinks.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <ocidl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace vx::test {
namespace {

// What the type library publishes of a class: the interfaces it answers for (its default one and that one's
// aliases, earlier IIDs still in force) and its default source, if any.
struct published_class { std::vector<GUID> interfaces; GUID events = GUID_NULL; };
// A type's GUID, or where asked for, the GUID of the named type it is an alias of.
GUID guid_of(ITypeInfo* info, bool aliased = false) {
    TYPEATTR* a = nullptr;
    if (!info || FAILED(info->GetTypeAttr(&a))) return GUID_NULL;
    com_ptr<ITypeInfo> target;
    if (aliased && a->typekind == TKIND_ALIAS && a->tdescAlias.vt == VT_USERDEFINED)
        info->GetRefTypeInfo(a->tdescAlias.hreftype, target.put());
    const GUID guid = aliased ? guid_of(target.get()) : a->guid;
    info->ReleaseTypeAttr(a);
    return guid;
}
published_class published(ITypeLib* library, REFCLSID clsid) {
    published_class c;
    com_ptr<ITypeInfo> coclass;
    EXPECT_EQ(S_OK, library->GetTypeInfoOfGuid(clsid, coclass.put()));
    HREFTYPE reference = 0;
    int flags = 0;
    for (UINT i = 0; coclass && coclass->GetRefTypeOfImplType(i, &reference) == S_OK && coclass->GetImplTypeFlags(i, &flags) == S_OK; ++i) {
        com_ptr<ITypeInfo> implemented;
        coclass->GetRefTypeInfo(reference, implemented.put());
        (flags & IMPLTYPEFLAG_FSOURCE ? c.events : c.interfaces.emplace_back()) = guid_of(implemented.get());
    }
    for (UINT i = 0; !c.interfaces.empty() && i < library->GetTypeInfoCount(); ++i) {
        com_ptr<ITypeInfo> info;
        library->GetTypeInfo(i, info.put());
        if (IsEqualGUID(guid_of(info.get(), true), c.interfaces[0])) c.interfaces.push_back(guid_of(info.get()));
    }
    return c;
}

TEST(ClassObjects, OnlyTheClassesHaveOneAndTheyRefuseAggregation) {
    const GUID made_up = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    for (const GUID* refused : {&LIBID_vxTypes32, &IID__UserInfo, &IID_IDispatch, &made_up}) {
        void* object = reinterpret_cast<void*>(0x1234);
        EXPECT_TRUE(dll().get_class_object(*refused, IID_IClassFactory, &object) == CLASS_E_CLASSNOTAVAILABLE && !object);
    }
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    EXPECT_EQ(E_NOINTERFACE, dll().get_class_object(CLSID_UserInfo, IID_IDispatch, com_ptr<IUnknown>().put_void()));
    com_ptr<IUnknown> outer = create<IUnknown>(CLSID_Class_vxTypes32, IID_IUnknown);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_TRUE(factory->CreateInstance(outer.get(), IID_IUnknown, &object) == CLASS_E_NOAGGREGATION && !object);
}

// An enumerator the sorter handed out is an object of the DLL too; a lock released once too often counts nothing.
TEST(Unloading, WaitsForEveryInstanceEnumeratorAndLock) {
    ASSERT_EQ(S_OK, dll().can_unload_now()) << "nothing of ours should be alive between tests";
    recording_sink sink(nullptr);
    com_ptr<IEnumConnections> connections;  // holds the sink, not the sorter
    {
        connected_sorter sorter = new_sorter();
        EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "an instance";
        sorter.advise(&sink);
        ASSERT_EQ(S_OK, sorter.point->EnumConnections(connections.put()));
    }
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "an enumerator";
    connections.reset();
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "both released";
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    EXPECT_TRUE(factory->LockServer(FALSE) == S_OK && factory->LockServer(TRUE) == S_OK);
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "a lock after an unmatched unlock";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "the lock released";
}

TEST(Identity, EachClassAnswersForWhatTheTypeLibraryPublishesOfIt) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    std::vector<GUID> every_interface;
    for (const class_entry& entry : class_table()) {
        const published_class c = published(library.get(), *entry.clsid);
        every_interface.insert(every_interface.end(), c.interfaces.begin(), c.interfaces.end());
        if (!IsEqualGUID(c.events, GUID_NULL)) every_interface.push_back(c.events);
    }
    for (const class_entry& c : class_table()) {
        const published_class own = published(library.get(), *c.clsid);
        com_ptr<IUnknown> object = create<IUnknown>(*c.clsid, IID_IUnknown);
        ASSERT_TRUE(object && !own.interfaces.empty()) << narrow(c.name);
        com_ptr<ISupportErrorInfo> errors = object.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
        for (const GUID& iid : every_interface) {
            const bool own_interface = std::count(own.interfaces.begin(), own.interfaces.end(), iid) > 0;
            EXPECT_EQ(std::make_pair(hex(own_interface ? S_OK : E_NOINTERFACE), hex(own_interface ? S_OK : S_FALSE)),
                      std::make_pair(hex(object->QueryInterface(iid, com_ptr<IUnknown>().put_void())),
                                     hex(errors->InterfaceSupportsErrorInfo(iid))))
                << narrow(c.name) << " asked for " << narrow(guid_text(iid)) << " and its error info";
        }
        com_ptr<IProvideClassInfo2> second = object.query<IProvideClassInfo2>(IID_IProvideClassInfo2);
        ASSERT_EQ(!IsEqualGUID(own.events, GUID_NULL), static_cast<bool>(second)) << narrow(c.name) << ": a default source only with events";
        GUID source{};
        EXPECT_TRUE(!second || (second->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source) == S_OK && source == own.events))
            << narrow(c.name);
    }
}

// The binary contract compiled clients depend on (names, DISPIDs, vtable slots, flags, parameter flags and
// defaults, enumeration values, record fields), one line per fact. The writer proves the library matches the
// .types descriptions; the hash catches a change to them that nobody meant. Both DLLs give the same listing;
// VX_TYPELIB_LISTING=<file> writes it out. The dispatch battery registers the VB runtime's stand-in it imports.
std::wstring name_of(ITypeInfo* info, MEMBERID member = MEMBERID_NIL) {
    unique_bstr name;
    info->GetDocumentation(member, name.put(), nullptr, nullptr, nullptr);
    return text_of(name.get());
}
std::wstring type_text(ITypeInfo* owner, const TYPEDESC& type) {
    if (type.vt == VT_PTR || type.vt == VT_SAFEARRAY) return L"*" + type_text(owner, *type.lptdesc);
    if (type.vt == VT_CARRAY) {
        std::wstring bounds;
        for (const SAFEARRAYBOUND* b = type.lpadesc->rgbounds; b < type.lpadesc->rgbounds + type.lpadesc->cDims; ++b)
            bounds += std::to_wstring(b->lLbound) + L"+" + std::to_wstring(b->cElements);
        return L"[" + bounds + L"]" + type_text(owner, type.lpadesc->tdescElem);
    }
    // LongPtr, the only 64-bit integer here, is a Long in the 32-bit DLL.
    if (type.vt == VT_I8 && sizeof(void*) == 8) return L"vt3";
    if (type.vt != VT_USERDEFINED) return L"vt" + std::to_wstring(type.vt);
    com_ptr<ITypeInfo> target;
    if (owner->GetRefTypeInfo(type.hreftype, target.put()) != S_OK) return L"(unresolved)";
    return name_of(target.get()) + guid_text(guid_of(target.get()));
}
std::wstring value_text(const VARIANT* value) {
    unique_variant copy;
    if (!value) return L"";
    if (value->vt == VT_BOOL) return L"=11:" + std::to_wstring(static_cast<USHORT>(value->boolVal));
    VariantChangeType(copy.get(), const_cast<VARIANT*>(value), 0, VT_BSTR);
    return L"=" + std::to_wstring(value->vt) + L":" + (V_VT(copy.get()) == VT_BSTR ? text_of(V_BSTR(copy.get())) : L"");
}
// Sizes and offsets that vary with the pointer size are checked by the header's static asserts and the kit's client.
void list_type(ITypeInfo* info, std::wstring& out) {
    TYPEATTR* a = nullptr;
    ASSERT_EQ(S_OK, info->GetTypeAttr(&a));
    out += name_of(info) + L" " + guid_text(a->guid) + L" k" + std::to_wstring(a->typekind) + L" f" + std::to_wstring(a->wTypeFlags) +
           L" v" + std::to_wstring(a->cbSizeVft / sizeof(void*)) + L"\n";
    for (UINT i = 0; i < a->cImplTypes; ++i) {
        HREFTYPE reference = 0;
        int flags = 0;
        com_ptr<ITypeInfo> target;
        EXPECT_TRUE(info->GetRefTypeOfImplType(i, &reference) == S_OK && info->GetImplTypeFlags(i, &flags) == S_OK &&
                    info->GetRefTypeInfo(reference, target.put()) == S_OK) << "an implemented type does not resolve";
        if (target) out += L" impl " + name_of(target.get()) + L" " + std::to_wstring(flags) + L"\n";
    }
    for (UINT i = 0; i < a->cFuncs; ++i) {
        FUNCDESC* f = nullptr;
        ASSERT_EQ(S_OK, info->GetFuncDesc(i, &f));
        BSTR names[32] = {};
        UINT count = 0;
        info->GetNames(f->memid, names, 32, &count);
        out += L" func " + std::to_wstring(f->memid) + L" i" + std::to_wstring(f->invkind) + L" s" + std::to_wstring(f->oVft / sizeof(void*)) +
               L" f" + std::to_wstring(f->wFuncFlags) + L" c" + std::to_wstring(f->callconv) + L" o" + std::to_wstring(f->cParamsOpt) +
               L" " + type_text(info, f->elemdescFunc.tdesc);
        for (UINT n = 0; n < count; ++n) out += L" " + text_of(names[n]), SysFreeString(names[n]);
        for (SHORT p = 0; p < f->cParams; ++p) {
            const PARAMDESC& d = f->lprgelemdescParam[p].paramdesc;
            out += L" (" + std::to_wstring(d.wParamFlags) + type_text(info, f->lprgelemdescParam[p].tdesc) +
                   value_text(d.wParamFlags & PARAMFLAG_FHASDEFAULT ? &d.pparamdescex->varDefaultValue : nullptr) + L")";
        }
        out += L"\n", info->ReleaseFuncDesc(f);
    }
    for (UINT i = 0; i < a->cVars; ++i) {
        VARDESC* v = nullptr;
        ASSERT_EQ(S_OK, info->GetVarDesc(i, &v));
        out += L" var " + name_of(info, v->memid) + L" " + type_text(info, v->elemdescVar.tdesc) +
               value_text(v->varkind == VAR_CONST ? v->lpvarValue : nullptr) + L"\n";
        info->ReleaseVarDesc(v);
    }
    if (a->typekind == TKIND_ALIAS) out += L" alias " + type_text(info, a->tdescAlias) + L"\n";
    info->ReleaseTypeAttr(a);
}
std::uint64_t fnv1a(const std::wstring& text) {
    std::uint64_t hash = 14695981039346656037ull;
    for (wchar_t c : text) hash = (hash ^ static_cast<std::uint16_t>(c)) * 1099511628211ull;
    return hash;
}

TEST(TypeLibrary, EmbeddedLibraryResolvesAndKeepsItsBinaryContract) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(S_OK, library->GetLibAttr(&attributes));
    std::wstring listing = guid_text(attributes->guid) + L" " + std::to_wstring(attributes->wMajorVerNum) + L"." +
                           std::to_wstring(attributes->wMinorVerNum) + L"\n";
    library->ReleaseTLibAttr(attributes);
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, library->GetTypeInfo(i, info.put()));
        list_type(info.get(), listing);
        HREFTYPE dispatch_view = 0;  // the vtable half of a dual interface
        com_ptr<ITypeInfo> vtable;
        if (SUCCEEDED(info->GetRefTypeOfImplType(-1, &dispatch_view)) && SUCCEEDED(info->GetRefTypeInfo(dispatch_view, vtable.put())))
            list_type(vtable.get(), listing);
    }
    EXPECT_EQ(std::wstring::npos, listing.find(L"(unresolved)"));
    if (FILE* out = std::getenv("VX_TYPELIB_LISTING") ? std::fopen(std::getenv("VX_TYPELIB_LISTING"), "wb") : nullptr)
        std::fputs(narrow(listing).c_str(), out), std::fclose(out);
    EXPECT_EQ(11736308034015426356ull, fnv1a(listing)) << "the binary contract changed; if that was meant, record the new hash";
}
// The version resource declares that the DLL registers itself. Each class's _IID_ item (and _SRCIID_ for its
// events) is a byte count and then the IIDs, an earlier one first.
TEST(Resources, SelfRegistrationIsDeclaredAndIidItemsCountTheirBytes) {
    DWORD ignored = 0;
    std::vector<char> block(GetFileVersionInfoSizeW(dll_path().c_str(), &ignored));
    ASSERT_TRUE(!block.empty() && GetFileVersionInfoW(dll_path().c_str(), 0, static_cast<DWORD>(block.size()), block.data()));
    void* value = nullptr;
    UINT length = 0;
    EXPECT_TRUE(VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\OLESelfRegister", &value, &length));
    for (const class_entry& c : class_table()) {
        std::wstring name = c.name;
        CharUpperW(name.data());
        using list = std::vector<const IID*>;
        const std::pair<std::wstring, list> items[] = {
            {L"_IID_" + name, c.earlier_interface_id ? list{c.earlier_interface_id, c.interface_id} : list{c.interface_id}},
            {L"_SRCIID_" + name, c.source_interface ? list{c.source_interface} : list{}}};
        for (const auto& [type, iids] : items) {
            const HRSRC found = FindResourceW(dll().module, MAKEINTRESOURCEW(1), type.c_str());
            ASSERT_EQ(iids.empty(), !found) << narrow(type);
            if (!found) continue;
            const auto* data = static_cast<const unsigned char*>(LockResource(LoadResource(dll().module, found)));
            std::vector<unsigned char> expected = {static_cast<unsigned char>(16 * iids.size()), 0, 0, 0};
            for (const IID* iid : iids)
                expected.insert(expected.end(), reinterpret_cast<const unsigned char*>(iid), reinterpret_cast<const unsigned char*>(iid + 1));
            EXPECT_EQ(expected, std::vector<unsigned char>(data, data + SizeofResource(dll().module, found))) << narrow(type);
        }
    }
}

constexpr LCID english = 0x0409, german = 0x0407;
const double nan = std::numeric_limits<double>::quiet_NaN(), infinity = std::numeric_limits<double>::infinity();
vx::automation_error raised_by(const std::function<void()>& body) {  // number 0 for none
    try { body(); } catch (const vx::automation_error& error) { return error; }
    return {};
}

TEST(RuntimeNumbers, WholeNumberConversionsRoundHalvesToEvenAndRefuseOverflow) {
    const wchar_t caller[] = L"clsQuickSort.Sort";
    const std::function<long(double)> to[] = {[&](double v) { return vx::to_long(v, caller); },
                                              [&](double v) { return long{vx::to_integer(v, caller)}; },
                                              [&](double v) { return long{vx::to_byte(v, caller)}; }};
    enum { to_long, to_integer, to_byte };
    struct row { int to; double value; long expected; bool overflows = false; };
    const row rows[] = {
        {to_long, 0.5, 0}, {to_long, 1.5, 2}, {to_long, 2.5, 2}, {to_long, -1.5, -2},
        {to_long, -2147483648.5, -2147483647L - 1}, {to_long, 2147483647.5, 0, true}, {to_long, -infinity, 0, true},
        {to_long, nan, 0, true}, {to_integer, 32767.5, 0, true}, {to_byte, 254.5, 254}, {to_byte, -0.6, 0, true},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(testing::Message() << "conversion " << r.to << " of " << r.value);
        const vx::automation_error error = raised_by([&] { EXPECT_EQ(to[r.to](r.value), r.expected); });
        EXPECT_EQ(r.overflows, error.number == 6 && error.source == caller && error.description == L"Overflow");
    }
}
// Trim takes spaces only; a start below 1 or a negative length is refused.
TEST(RuntimeText, NumbersAsTextTrimAndTheRefusalsOfTheStringOperations) {
    struct row { LCID locale; double value; const wchar_t* expected; };
    const row rows[] = {
        {english, 0.1 + 0.2, L"0.3"}, {english, 2.0 / 3, L"0.666666666666667"}, {english, 123456789012345678.0, L"1.23456789012346E+17"},
        {english, 1e-5, L"1E-05"}, {english, -0.0, L"0"}, {german, -0.125, L"-0,125"}, {german, -infinity, L"-1.#INF"},
        {english, nan, L"1.#QNAN"}, {english, -nan, L"-1.#IND"},
    };
    for (const row& r : rows)
        EXPECT_EQ(vx::double_to_text(r.value, r.locale), r.expected) << "locale " << r.locale << ", " << r.value;
    for (const auto& r : {std::pair{0u, L"0"}, {0xABCDEFu, L"ABCDEF"}, {0xFFFFFFFFu, L"FFFFFFFF"}}) EXPECT_EQ(vx::hex(r.first), r.second);
    EXPECT_EQ(vx::format_number(305419896, L"0,000,000,000", german), L"0.305.419.896");
    EXPECT_EQ(vx::trim(L" \ta\t  "), L"\ta\t");
    const std::function<void()> refused[] = {[] { vx::instr(L"abc", L"a", 0, L"S"); }, [] { vx::mid(L"abc", 0, L"S"); },
                                             [] { vx::left(L"abc", -1, L"S"); }};
    for (const auto& r : refused) EXPECT_TRUE(raised_by(r).number == 5 && raised_by(r).source == L"S") << raised_by(r).number;
}

TEST(RuntimeServices, RandomNumbersCoverTheUnitIntervalAndRepeatAfterReseed) {
    auto draws = [](int count) {
        std::vector<float> values(count);
        return std::generate(values.begin(), values.end(), vx::random_number), values;
    };
    vx::reseed_random(12345.5);
    std::vector<int> byte_counts(256);
    for (float r : draws(100000)) {
        ASSERT_TRUE(r >= 0.0f && r < 1.0f && std::ldexp(r, 24) == std::floor(std::ldexp(r, 24))) << r;
        byte_counts[static_cast<int>(r * 256)]++;
    }
    for (int v = 0; v < 256; ++v) EXPECT_GT(byte_counts[v], 0) << "byte " << v << " never drawn";
    vx::reseed_random(100.25);
    const std::vector<float> first = draws(8);
    vx::reseed_random(100.25f);
    EXPECT_EQ(draws(8), first) << "the same seed as a Single";
}

}  // namespace
}  // namespace vx::test

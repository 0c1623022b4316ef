// Activation through the DLL's own exports: class objects, instances, identity, unload counting and failures.
#include "frame/class_table.h"
#include "frame/registration.h"
#include "support/component.h"
#include "vxTypes32_types.h"

#include <ocidl.h>

#include <algorithm>
#include <vector>

namespace vx::test {
namespace {

// What the type library publishes of a class: the interfaces it answers
// for (its default one and that one's aliases, earlier IIDs still in
// force) and its default source, if any.
struct published_class {
    std::vector<GUID> interfaces;
    GUID events = GUID_NULL;
};

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

bool contains(const std::vector<GUID>& guids, REFGUID guid) {
    return std::any_of(guids.begin(), guids.end(), [&](const GUID& g) { return IsEqualGUID(g, guid); });
}

TEST(ClassObjects, OnlyTheClassesHaveOneAndTheyRefuseAggregation) {
    const GUID made_up = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    for (const GUID* refused : {&LIBID_vxTypes32, &IID__UserInfo, &IID_IDispatch, &made_up}) {
        void* object = reinterpret_cast<void*>(0x1234);
        EXPECT_TRUE(dll().get_class_object(*refused, IID_IClassFactory, &object) == CLASS_E_CLASSNOTAVAILABLE && !object);
    }
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    com_ptr<IUnknown> not_a_factory;
    EXPECT_EQ(E_NOINTERFACE, dll().get_class_object(CLSID_UserInfo, IID_IDispatch, not_a_factory.put_void()));
    com_ptr<IUnknown> outer = create<IUnknown>(CLSID_Class_vxTypes32, IID_IUnknown);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_TRUE(factory->CreateInstance(outer.get(), IID_IUnknown, &object) == CLASS_E_NOAGGREGATION && !object);
}

// An enumerator the sorter handed out is an object of the DLL too; a lock
// released once too often counts nothing.
TEST(Unloading, WaitsForEveryInstanceEnumeratorAndLock) {
    ASSERT_EQ(S_OK, dll().can_unload_now()) << "nothing of ours should be alive between tests";
    auto first = create<IConnectionPointContainer>(CLSID_clsQuickSort, IID_IConnectionPointContainer);
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "an instance";
    com_ptr<IEnumConnectionPoints> points;
    ASSERT_EQ(S_OK, first->EnumConnectionPoints(points.put()));
    first.reset();
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "an enumerator";
    points.reset();
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "both released";

    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "a lock after an unmatched unlock";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "the lock released";
}

TEST(Identity, EachClassAnswersForWhatTheTypeLibraryPublishesOfIt) {
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    std::vector<published_class> classes;
    std::vector<GUID> every_interface;
    for (const class_entry& entry : class_table()) {
        const published_class& c = classes.emplace_back(published(library.get(), *entry.clsid));
        every_interface.insert(every_interface.end(), c.interfaces.begin(), c.interfaces.end());
        if (!IsEqualGUID(c.events, GUID_NULL)) every_interface.push_back(c.events);
    }
    const published_class* expected = classes.data();
    for (const class_entry& c : class_table()) {
        const published_class& own = *expected++;
        com_ptr<IUnknown> object = create<IUnknown>(*c.clsid, IID_IUnknown);
        ASSERT_TRUE(object && !own.interfaces.empty()) << narrow(c.name);
        com_ptr<ISupportErrorInfo> errors = object.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
        for (const GUID& iid : every_interface) {
            com_ptr<IUnknown> answer;
            const bool own_interface = contains(own.interfaces, iid);
            EXPECT_EQ(own_interface ? S_OK : E_NOINTERFACE, object->QueryInterface(iid, answer.put_void()))
                << narrow(c.name) << " asked for " << narrow(guid_text(iid));
            EXPECT_EQ(own_interface ? S_OK : S_FALSE, errors->InterfaceSupportsErrorInfo(iid))
                << narrow(c.name) << " error info for " << narrow(guid_text(iid));
        }
        // Only a class with events has a default source to report.
        const bool has_events = !IsEqualGUID(own.events, GUID_NULL);
        com_ptr<IProvideClassInfo2> second = object.query<IProvideClassInfo2>(IID_IProvideClassInfo2);
        ASSERT_EQ(has_events, static_cast<bool>(second)) << narrow(c.name);
        GUID source{};
        EXPECT_TRUE(!second || (second->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source) == S_OK && source == own.events))
            << narrow(c.name);
    }
}

}  // namespace
}  // namespace vx::test

// Activation through the DLL's own exports: class objects, instances,
// identity, unload counting and failures.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <ocidl.h>

#include <algorithm>
#include <vector>

namespace vx::test {
namespace {

// The seven classes and the interfaces they answer for, as published.
struct served_class {
    const char* name;
    const CLSID* clsid;
    std::vector<const IID*> interfaces;
    const IID* events;
};
const served_class served_classes[] = {
    {"Class_vxTypes32", &CLSID_Class_vxTypes32, {&IID__Class_vxTypes32}, nullptr},
    {"CComplexNumber", &CLSID_CComplexNumber, {&IID__CComplexNumber}, nullptr},
    {"cDIBSection", &CLSID_cDIBSection, {&IID__cDIBSection}, nullptr},
    {"clsQuickSort", &CLSID_clsQuickSort, {&IID__clsQuickSort}, &DIID___clsQuickSort},
    {"clsEasyRegistry", &CLSID_clsEasyRegistry, {&IID__clsEasyRegistry}, nullptr},
    {"UserInfo", &CLSID_UserInfo, {&IID__UserInfo, &IID_UserInfo___v0}, nullptr},
    {"clsBitmap", &CLSID_clsBitmap, {&IID__clsBitmap}, nullptr},
};
const IID* const published_interfaces[] = {
    &IID__Class_vxTypes32, &IID__CComplexNumber, &IID__cDIBSection, &IID__clsQuickSort, &IID__clsEasyRegistry,
    &IID__UserInfo,        &IID_UserInfo___v0,   &IID__clsBitmap,   &DIID___clsQuickSort};

TEST(ClassObjects, OnlyTheClassesHaveOneAndTheyRefuseAggregation) {
    const GUID made_up = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    for (const GUID* refused : {&LIBID_vxTypes32, &IID__UserInfo, &IID_IDispatch, &made_up}) {
        void* object = reinterpret_cast<void*>(0x1234);
        EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, dll().get_class_object(*refused, IID_IClassFactory, &object));
        EXPECT_EQ(nullptr, object);
    }
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    com_ptr<IUnknown> outer = create<IUnknown>(CLSID_Class_vxTypes32, IID_IUnknown);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.get(), IID_IUnknown, &object));
    EXPECT_EQ(nullptr, object);
}

TEST(Unloading, WaitsForEveryInstanceAndLock) {
    ASSERT_EQ(S_OK, dll().can_unload_now()) << "nothing of ours should be alive between tests";
    com_ptr<IDispatch> first = create<IDispatch>(CLSID_UserInfo, IID_IDispatch);
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "an instance";
    first.reset();
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "the instance released";

    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "a lock";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "the lock released";
}

TEST(Identity, EachClassAnswersForItsOwnInterfacesAndClassInfo) {
    for (const served_class& c : served_classes) {
        com_ptr<IUnknown> object = create<IUnknown>(*c.clsid, IID_IUnknown);
        ASSERT_TRUE(object) << c.name;
        for (const IID* iid : published_interfaces) {
            const bool own = std::find(c.interfaces.begin(), c.interfaces.end(), iid) != c.interfaces.end();
            com_ptr<IUnknown> answer;
            EXPECT_EQ(own ? S_OK : E_NOINTERFACE, object->QueryInterface(*iid, answer.put_void())) << c.name;
        }
        // Only a class with events has a default source to report.
        com_ptr<IProvideClassInfo2> second = object.query<IProvideClassInfo2>(IID_IProvideClassInfo2);
        ASSERT_EQ(c.events != nullptr, static_cast<bool>(second)) << c.name;
        GUID source{};
        if (second) {
            EXPECT_EQ(S_OK, second->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source));
            EXPECT_TRUE(IsEqualGUID(*c.events, source)) << c.name;
        }
    }
}

}  // namespace
}  // namespace vx::test

// Activation through the DLL's own exports: class objects, instances,
// identity, unload counting, the dual interface and failures.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <ocidl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace vx::test {
namespace {

struct served_class {
    const char* name;
    const CLSID* clsid;
    std::vector<const IID*> interfaces;  // what an instance answers for
    const IID* events;
};

// The seven classes and their identities, as published.
const std::vector<served_class>& served_classes() {
    static const std::vector<served_class> classes = {
        {"Class_vxTypes32", &CLSID_Class_vxTypes32, {&IID__Class_vxTypes32}, nullptr},
        {"CComplexNumber", &CLSID_CComplexNumber, {&IID__CComplexNumber}, nullptr},
        {"cDIBSection", &CLSID_cDIBSection, {&IID__cDIBSection}, nullptr},
        {"clsQuickSort", &CLSID_clsQuickSort, {&IID__clsQuickSort}, &DIID___clsQuickSort},
        {"clsEasyRegistry", &CLSID_clsEasyRegistry, {&IID__clsEasyRegistry}, nullptr},
        {"UserInfo", &CLSID_UserInfo, {&IID__UserInfo, &IID_UserInfo___v0}, nullptr},
        {"clsBitmap", &CLSID_clsBitmap, {&IID__clsBitmap}, nullptr},
    };
    return classes;
}

// Every IID the library or the frame knows, so that each class can be
// checked against the ones it must refuse.
const std::vector<const IID*>& published_interfaces() {
    static const std::vector<const IID*> iids = {
        &IID__Class_vxTypes32, &IID__CComplexNumber, &IID__cDIBSection, &IID__clsQuickSort,
        &IID__clsEasyRegistry, &IID__UserInfo,       &IID_UserInfo___v0, &IID__clsBitmap,
        &DIID___clsQuickSort};
    return iids;
}

TEST(ClassObjects, EveryClassInTheTableHasOne) {
    for (const served_class& c : served_classes()) {
        com_ptr<IClassFactory> factory;
        EXPECT_EQ(S_OK, dll().get_class_object(*c.clsid, IID_IClassFactory, factory.put_void())) << c.name;
        EXPECT_TRUE(factory) << c.name;
        com_ptr<IUnknown> unknown;
        EXPECT_EQ(S_OK, dll().get_class_object(*c.clsid, IID_IUnknown, unknown.put_void())) << c.name;
    }
}

TEST(ClassObjects, AnyOtherGuidIsRefusedWithANullPointer) {
    const GUID made_up = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    const struct {
        const char* what;
        const GUID* guid;
    } refused[] = {
        {"library id", &LIBID_vxTypes32},
        {"interface id", &IID__UserInfo},
        {"earlier interface id", &IID_UserInfo___v0},
        {"anchor interface id", &IID__Class_vxTypes32},
        {"IDispatch", &IID_IDispatch},
        {"made-up id", &made_up},
    };
    for (const auto& r : refused) {
        void* object = reinterpret_cast<void*>(0x1234);
        EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, dll().get_class_object(*r.guid, IID_IClassFactory, &object)) << r.what;
        EXPECT_EQ(nullptr, object) << r.what;
    }
}

TEST(ClassObjects, RefuseAggregation) {
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    com_ptr<IUnknown> outer = create<IUnknown>(CLSID_Class_vxTypes32, IID_IUnknown);
    void* object = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.get(), IID_IUnknown, &object));
    EXPECT_EQ(nullptr, object);
}

TEST(Unloading, WaitsForEveryInstanceAndLock) {
    ASSERT_EQ(S_OK, dll().can_unload_now()) << "nothing of ours should be alive between tests";
    {
        com_ptr<IDispatch> first = create<IDispatch>(CLSID_UserInfo, IID_IDispatch);
        com_ptr<IDispatch> second = create<IDispatch>(CLSID_Class_vxTypes32, IID_IDispatch);
        EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "two instances";
        first.reset();
        EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "one instance left";
    }
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "all instances released";

    com_ptr<IClassFactory> factory;
    ASSERT_EQ(S_OK, dll().get_class_object(CLSID_UserInfo, IID_IClassFactory, factory.put_void()));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "two locks";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "one lock left";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, dll().can_unload_now()) << "all locks released";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_FALSE, dll().can_unload_now()) << "a lock after an unmatched unlock";
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
}

TEST(Identity, EachClassAnswersForItsOwnInterfacesOnly) {
    for (const served_class& c : served_classes()) {
        com_ptr<IUnknown> object = create<IUnknown>(*c.clsid, IID_IUnknown);
        ASSERT_TRUE(object) << c.name;
        for (const IID* iid : published_interfaces()) {
            const bool own = std::find(c.interfaces.begin(), c.interfaces.end(), iid) != c.interfaces.end();
            com_ptr<IUnknown> answer;
            EXPECT_EQ(own ? S_OK : E_NOINTERFACE, object->QueryInterface(*iid, answer.put_void()))
                << c.name << " asked for one of the library's interfaces";
        }
    }
}

TEST(Identity, ClassInfoAndErrorInfoSupport) {
    for (const served_class& c : served_classes()) {
        com_ptr<IUnknown> object = create<IUnknown>(*c.clsid, IID_IUnknown);
        com_ptr<IProvideClassInfo> provider = object.query<IProvideClassInfo>(IID_IProvideClassInfo);
        ASSERT_TRUE(provider) << c.name;
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, provider->GetClassInfo(info.put())) << c.name;
        TYPEATTR* attributes = nullptr;
        ASSERT_EQ(S_OK, info->GetTypeAttr(&attributes));
        EXPECT_EQ(TKIND_COCLASS, attributes->typekind) << c.name;
        EXPECT_TRUE(IsEqualGUID(*c.clsid, attributes->guid)) << c.name;
        info->ReleaseTypeAttr(attributes);

        // Only a class with events has a default source to report.
        com_ptr<IProvideClassInfo2> second = object.query<IProvideClassInfo2>(IID_IProvideClassInfo2);
        EXPECT_EQ(c.events != nullptr, static_cast<bool>(second)) << c.name;
        EXPECT_EQ(c.events != nullptr,
                  static_cast<bool>(object.query<IConnectionPointContainer>(IID_IConnectionPointContainer)))
            << c.name;
        if (second) {
            GUID source{};
            EXPECT_EQ(S_OK, second->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source));
            EXPECT_TRUE(IsEqualGUID(*c.events, source)) << c.name;
        }

        com_ptr<ISupportErrorInfo> support = object.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
        ASSERT_TRUE(support) << c.name;
        for (const IID* iid : c.interfaces) EXPECT_EQ(S_OK, support->InterfaceSupportsErrorInfo(*iid)) << c.name;
        EXPECT_EQ(S_FALSE, support->InterfaceSupportsErrorInfo(IID_IClassFactory)) << c.name;
    }
}

// Reads a property through IDispatch the way a given client sends it.
HRESULT invoke_get(IDispatch* object, DISPID id, WORD flags, VARIANT* result, EXCEPINFO* exception = nullptr) {
    DISPPARAMS none = {nullptr, nullptr, 0, 0};
    UINT argument_error = 0;
    return object->Invoke(id, IID_NULL, 0, flags, &none, result, exception, &argument_error);
}

TEST(DualInterface, VtableAndLateBindingReachTheSameMember) {
    com_ptr<_UserInfo> user = create<_UserInfo>(CLSID_UserInfo, IID__UserInfo);
    ASSERT_TRUE(user);
    unique_variant through_vtable;
    ASSERT_EQ(S_OK, user->get_Logon(through_vtable.get()));
    ASSERT_EQ(VT_BSTR, V_VT(through_vtable.get()));
    const std::wstring logon = text_of(V_BSTR(through_vtable.get()));

    wchar_t member[] = L"LOGON";  // names are case-insensitive
    LPOLESTR names[] = {member};
    DISPID id = -1;
    ASSERT_EQ(S_OK, user->GetIDsOfNames(IID_NULL, names, 1, 0, &id));
    EXPECT_EQ(0, id) << "Logon is the default member";

    const struct {
        const char* how;
        DISPID id;
        WORD flags;
    } calls[] = {
        {"property get", 0, DISPATCH_PROPERTYGET},
        {"as scripts send it", 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET},
        {"default value", DISPID_VALUE, DISPATCH_PROPERTYGET},
    };
    for (const auto& call : calls) {
        unique_variant result;
        ASSERT_EQ(S_OK, invoke_get(user.get(), call.id, call.flags, result.get())) << call.how;
        ASSERT_EQ(VT_BSTR, V_VT(result.get())) << call.how;
        EXPECT_EQ(logon, text_of(V_BSTR(result.get()))) << call.how;
    }
}

}  // namespace
}  // namespace vx::test

// The classes across apartments: each made in one single-threaded apartment
// and called from another through the marshaller that the registered type
// library provides, clsQuickSort's events coming back to a sink in the
// caller's apartment.
#include "frame/class_table.h"
#include "robustness/apartment_thread.h"
#include "sort/sort_sinks.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace vx::test {
namespace {

std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

class Apartments : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        // The marshaller of _cDIBSection describes eRop from the VB runtime's
        // library, which Windows has registered; here the stand-in does.
        com_ptr<ITypeLib> standin;
        ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, standin.put()));
        CLSID clsid{};
        ASSERT_EQ(S_OK, CLSIDFromProgID(L"vxTypes32.UserInfo", &clsid)) << "the DLL is not registered";
    }
};

// An object made in the home apartment and handed to the calling one through
// a stream: what the caller holds is the marshaller's proxy.
template <class Interface>
struct made_elsewhere {
    com_ptr<Interface> proxy;
    void* object = nullptr;  // the instance's own pointer, valid in its home apartment only
};

template <class Interface>
made_elsewhere<Interface> make_in(apartment_thread& home, REFCLSID clsid, REFIID iid) {
    made_elsewhere<Interface> made;
    IStream* stream = nullptr;
    HRESULT created = E_FAIL, marshalled = E_FAIL;
    home.run([&] {
        com_ptr<Interface> object;
        created = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object.put_void());
        if (FAILED(created)) return;
        made.object = object.get();
        marshalled = CoMarshalInterThreadInterfaceInStream(iid, object.get(), &stream);
    });
    EXPECT_EQ(hex(S_OK), hex(created)) << "CoCreateInstance in the home apartment";
    EXPECT_EQ(hex(S_OK), hex(marshalled)) << "marshalling to the caller";
    if (stream) {
        EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(stream, iid, made.proxy.put_void()));
    }
    EXPECT_TRUE(made.proxy);
    EXPECT_NE(made.object, static_cast<void*>(made.proxy.get())) << "the caller holds a proxy, not the object";
    return made;
}

TEST_F(Apartments, EveryClassIsMarshalledFromTheRegisteredTypeLibrary) {
    apartment_thread home;
    ASSERT_TRUE(home.initialised());
    for (const class_entry& c : class_table()) {
        const std::string name = narrow(c.name);
        made_elsewhere<IDispatch> made = make_in<IDispatch>(home, *c.clsid, *c.interface_id);
        if (!made.proxy) continue;
        com_ptr<IDispatch> dual = made.proxy.query<IDispatch>(IID_IDispatch);
        ASSERT_TRUE(dual) << name;
        UINT count = 0;
        EXPECT_EQ(S_OK, dual->GetTypeInfoCount(&count)) << name;
        EXPECT_EQ(1u, count) << name;
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(S_OK, dual->GetTypeInfo(0, 0, info.put())) << name;
        unique_bstr interface_name;
        info->GetDocumentation(MEMBERID_NIL, interface_name.put(), nullptr, nullptr, nullptr);
        EXPECT_EQ(std::wstring(L"_") + c.name, text_of(interface_name.get())) << name;
        com_ptr<ISupportErrorInfo> errors = made.proxy.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
        ASSERT_TRUE(errors) << name;
        EXPECT_EQ(S_OK, errors->InterfaceSupportsErrorInfo(*c.interface_id)) << name;
        if (c.earlier_interface_id) {
            com_ptr<IUnknown> earlier = made.proxy.query<IUnknown>(*c.earlier_interface_id);
            EXPECT_TRUE(earlier) << name << ": the earlier IID is marshalled as the interface";
        }
    }
}

TEST_F(Apartments, QuickSortRaisesItsEventsIntoASinkInTheCallersApartment) {
    apartment_thread home;
    made_elsewhere<_clsQuickSort> made = make_in<_clsQuickSort>(home, CLSID_clsQuickSort, IID__clsQuickSort);
    ASSERT_TRUE(made.proxy);
    connected_sorter s(made.proxy);
    ASSERT_TRUE(s.point);

    item_store store{1, std::vector<int>(300)};
    std::iota(store.values.begin(), store.values.end(), 0);
    std::shuffle(store.values.begin(), store.values.end(), std::mt19937(11));
    recording_sink sink(&store);
    const DWORD caller = GetCurrentThreadId();
    long elsewhere = 0;
    sink.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) -> HRESULT {
        if (GetCurrentThreadId() != caller) ++elsewhere;
        return S_OK;
    };
    const DWORD cookie = s.advise(&sink);
    EXPECT_EQ(S_OK, made.proxy->Sort(300, 1));
    EXPECT_TRUE(std::is_sorted(store.values.begin(), store.values.end()));
    EXPECT_GT(sink.events, 300);
    EXPECT_EQ(0, elsewhere) << "every event runs on the sink's own thread";

    EXPECT_EQ(S_OK, s.point->Unadvise(cookie));
    s.point.reset();
    made.proxy.reset();
    s.sorter.reset();
    // The sinks check, as they go, that no reference to them was kept.
}

}  // namespace
}  // namespace vx::test

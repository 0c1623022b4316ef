// The classes across apartments: each made in a single-threaded apartment
// of its own thread and called from the test's through the marshaller that
// the registered type library provides, clsQuickSort's events coming back
// to a sink in the caller's apartment.
#include "frame/class_table.h"
#include "sort/sort_sinks.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <thread>

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
    }
};

// Makes the object in a new apartment with a message loop, as a client's
// user-interface thread has, and hands the caller the marshaller's proxy.
struct home_thread {
    std::thread thread;
    DWORD id = 0;
    ~home_thread() {
        PostThreadMessageW(id, WM_QUIT, 0, 0);
        thread.join();
    }
};

template <class Interface>
com_ptr<Interface> made_elsewhere(REFCLSID clsid, REFIID iid, home_thread& home) {
    IStream* stream = nullptr;
    const HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    home.thread = std::thread([&] {
        home.id = GetCurrentThreadId();
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        {
            com_ptr<Interface> object;
            EXPECT_EQ(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object.put_void()));
            if (object) {
                EXPECT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(iid, object.get(), &stream));
            }
            SetEvent(ready);
            MSG message;
            while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
        }
        CoUninitialize();
    });
    WaitForSingleObject(ready, INFINITE);
    CloseHandle(ready);
    com_ptr<Interface> proxy;
    if (stream) {
        EXPECT_EQ(S_OK, CoGetInterfaceAndReleaseStream(stream, iid, proxy.put_void()));
    }
    return proxy;
}

TEST_F(Apartments, EveryClassIsMarshalledFromTheRegisteredTypeLibrary) {
    for (const class_entry& c : class_table()) {
        const std::string name = narrow(c.name);
        home_thread home;
        com_ptr<IDispatch> proxy = made_elsewhere<IDispatch>(*c.clsid, *c.interface_id, home);
        com_ptr<ITypeInfo> info;
        EXPECT_TRUE(proxy && proxy->GetTypeInfo(0, 0, info.put()) == S_OK) << name;
        unique_bstr interface_name;
        if (info) info->GetDocumentation(MEMBERID_NIL, interface_name.put(), nullptr, nullptr, nullptr);
        EXPECT_EQ(std::wstring(L"_") + c.name, text_of(interface_name.get())) << name;
        if (proxy && c.earlier_interface_id) {
            EXPECT_TRUE(proxy.query<IUnknown>(*c.earlier_interface_id)) << name << ": the earlier IID";
        }
    }
}

TEST_F(Apartments, QuickSortRaisesItsEventsIntoASinkInTheCallersApartment) {
    home_thread home;
    connected_sorter s(made_elsewhere<_clsQuickSort>(CLSID_clsQuickSort, IID__clsQuickSort, home));
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
    EXPECT_EQ(S_OK, s.sorter->Sort(300, 1));
    EXPECT_TRUE(std::is_sorted(store.values.begin(), store.values.end()));
    EXPECT_GT(sink.events, 300);
    EXPECT_EQ(0, elsewhere) << "every event runs on the sink's own thread";
    EXPECT_EQ(S_OK, s.point->Unadvise(cookie));
    s.point.reset();
    s.sorter.reset();
    // The sinks check, as they go, that no reference to them was kept.
}

}  // namespace
}  // namespace vx::test

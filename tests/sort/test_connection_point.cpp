// How clients find and connect to clsQuickSort's events: the container,
// the connection point, cookies, enumerators, class info, and sinks that
// disconnect while a sort is running.
#include "sort/sort_sinks.h"

#include <utility>

namespace vx::test {
namespace {

TEST(QuickSortConnections, TheContainerOffersExactlyTheEventsInterface) {
    connected_sorter s = new_sorter();
    ASSERT_TRUE(s.point);
    IID iid = IID_NULL;
    EXPECT_EQ(S_OK, s.point->GetConnectionInterface(&iid));
    EXPECT_TRUE(IsEqualIID(DIID___clsQuickSort, iid));

    com_ptr<IConnectionPointContainer> container =
        s.sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
    com_ptr<IConnectionPointContainer> back;
    EXPECT_EQ(S_OK, s.point->GetConnectionPointContainer(back.put()));
    EXPECT_EQ(container.get(), back.get()) << "the point leads back to its container";

    const IID others[] = {IID_IDispatch, IID__clsQuickSort, IID_IUnknown};
    for (const IID& other : others) {
        com_ptr<IConnectionPoint> none;
        EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(container->FindConnectionPoint(other, none.put())));
        EXPECT_FALSE(none);
    }

    com_ptr<IEnumConnectionPoints> points;
    ASSERT_EQ(S_OK, container->EnumConnectionPoints(points.put()));
    IConnectionPoint* got[2] = {};
    ULONG fetched = 0;
    EXPECT_EQ(S_FALSE, points->Next(2, got, &fetched));
    ASSERT_EQ(1u, fetched) << "one connection point";
    IID listed = IID_NULL;
    got[0]->GetConnectionInterface(&listed);
    EXPECT_TRUE(IsEqualIID(DIID___clsQuickSort, listed));
    got[0]->Release();
    EXPECT_EQ(S_OK, points->Reset());
    EXPECT_EQ(S_OK, points->Skip(1));
    EXPECT_EQ(S_FALSE, points->Skip(1));

    com_ptr<IProvideClassInfo2> info = s.sorter.query<IProvideClassInfo2>(IID_IProvideClassInfo2);
    ASSERT_TRUE(info);
    GUID source = GUID_NULL;
    EXPECT_EQ(S_OK, info->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &source));
    EXPECT_TRUE(IsEqualIID(DIID___clsQuickSort, source));
}

TEST(QuickSortConnections, AdviseTakesTheEventsInterfaceOrIDispatch) {
    struct case_ {
        const char* name;
        bool events_interface, dispatch;
        HRESULT expected;
    };
    const case_ cases[] = {
        {"both", true, true, S_OK},
        {"the events interface only", true, false, S_OK},
        {"IDispatch only", false, true, S_OK},
        {"neither", false, false, CONNECT_E_CANNOTCONNECT},
    };
    for (const case_& c : cases) {
        connected_sorter s = new_sorter();
        recording_sink sink(nullptr);
        sink.answers_for_events_interface = c.events_interface;
        sink.answers_for_dispatch = c.dispatch;
        DWORD cookie = 12345;
        EXPECT_EQ(hex(c.expected), hex(s.point->Advise(&sink, &cookie))) << c.name;
        if (c.expected == S_OK) {
            EXPECT_NE(0u, cookie) << c.name;
            EXPECT_EQ(S_OK, s.sorter->Sort(2, 1)) << c.name;
            EXPECT_EQ(1, sink.events) << c.name << ": the sink hears the sort";
            EXPECT_EQ(S_OK, s.point->Unadvise(cookie)) << c.name;
        } else {
            EXPECT_EQ(0u, cookie) << c.name;
        }
    }
}

TEST(QuickSortConnections, CookiesNameConnectionsUntilTheyAreUnadvised) {
    connected_sorter s = new_sorter();
    recording_sink a(nullptr), b(nullptr);
    const DWORD first = s.advise(&a), second = s.advise(&b), third = s.advise(&a);
    EXPECT_NE(first, second);
    EXPECT_NE(second, third);
    EXPECT_NE(first, third);

    com_ptr<IEnumConnections> connections;
    ASSERT_EQ(S_OK, s.point->EnumConnections(connections.put()));
    CONNECTDATA data[4] = {};
    ULONG fetched = 0;
    EXPECT_EQ(S_FALSE, connections->Next(4, data, &fetched));
    ASSERT_EQ(3u, fetched);
    const DWORD cookies[] = {first, second, third};
    for (ULONG i = 0; i < fetched; ++i) {
        EXPECT_EQ(cookies[i], data[i].dwCookie) << "connection " << i;
        EXPECT_EQ(static_cast<IUnknown*>(i == 1 ? &b : &a), data[i].pUnk) << "connection " << i;
        data[i].pUnk->Release();
    }
    com_ptr<IEnumConnections> copy;
    EXPECT_EQ(S_OK, connections->Clone(copy.put()));
    connections.reset();
    copy.reset();

    EXPECT_EQ(S_OK, s.point->Unadvise(second));
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(second))) << "twice";
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(0))) << "cookie 0";
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(third + 100))) << "never given";
    EXPECT_EQ(S_OK, s.sorter->Sort(2, 1));
    EXPECT_EQ(2, a.events) << "connected twice, a sink hears each event twice";
    EXPECT_EQ(0, b.events);
    EXPECT_EQ(S_OK, s.point->Unadvise(first));
    EXPECT_EQ(S_OK, s.point->Unadvise(third));
}

TEST(QuickSortConnections, SinksMayDisconnectFromInsideAnEvent) {
    struct case_ {
        const char* name;
        int victim;        // which connection the first sink removes at the first event
        long first_events, second_events, third_events;
    };
    // Three items in order: five comparisons.
    const case_ cases[] = {
        {"itself", 0, 1, 5, 5},
        {"the sink after it", 1, 5, 0, 5},
        {"the last sink", 2, 5, 5, 0},
    };
    for (const case_& c : cases) {
        item_store store{1, {1, 2, 3}};
        connected_sorter s = new_sorter();
        recording_sink first(&store), second(nullptr), third(nullptr);
        DWORD cookies[3] = {};
        bool done = false;
        first.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) {
            if (!done) {
                done = true;
                EXPECT_EQ(S_OK, s.point->Unadvise(cookies[c.victim])) << c.name;
                EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(cookies[c.victim]))) << c.name;
            }
            return S_OK;
        };
        cookies[0] = s.advise(&first);
        cookies[1] = s.advise(&second);
        cookies[2] = s.advise(&third);
        EXPECT_EQ(S_OK, s.sorter->Sort(3, 1)) << c.name;
        EXPECT_EQ(c.first_events, first.events) << c.name;
        EXPECT_EQ(c.second_events, second.events) << c.name;
        EXPECT_EQ(c.third_events, third.events) << c.name;
        for (int i = 0; i < 3; ++i) {
            if (i != c.victim) {
                EXPECT_EQ(S_OK, s.point->Unadvise(cookies[i])) << c.name << " connection " << i;
            }
        }
    }
}

TEST(QuickSortConnections, ASinkConnectedDuringAnEventHearsTheEventsAfterIt) {
    item_store store{1, {1, 2, 3}};
    connected_sorter s = new_sorter();
    recording_sink first(&store), late(nullptr);
    DWORD late_cookie = 0;
    first.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) {
        if (!late_cookie) late_cookie = s.advise(&late);
        return S_OK;
    };
    const DWORD cookie = s.advise(&first);
    EXPECT_EQ(S_OK, s.sorter->Sort(3, 1));
    EXPECT_EQ(5, first.events);
    EXPECT_EQ(4, late.events);
    s.point->Unadvise(cookie);
    s.point->Unadvise(late_cookie);
}

TEST(QuickSortConnections, AHandlerMayReleaseTheLastReferenceToTheSorter) {
    item_store store{1, {3, 1, 2}};
    recording_sink sink(&store);
    _clsQuickSort* sorter = nullptr;
    {
        connected_sorter s = new_sorter();
        s.advise(&sink);  // left connected: the sorter's end releases the sink
        sorter = s.sorter.get();
        sorter->AddRef();
    }
    sink.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) {
        if (sorter) std::exchange(sorter, nullptr)->Release();
        return S_OK;
    };
    _clsQuickSort* const raw = sorter;
    EXPECT_EQ(S_OK, raw->Sort(3, 1));
    EXPECT_EQ((std::vector<int>{1, 2, 3}), store.values);
}

}  // namespace
}  // namespace vx::test

// How clsQuickSort's events reach their sinks: the container, the
// connection point, cookies, enumerators and class info; every sink in
// turn, sharing one answer; sinks that do not know an event; and sinks that
// connect, disconnect or release the sorter while a sort is running.
#include "sort/sort_sinks.h"

#include <memory>
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

TEST(QuickSortConnections, EveryConnectedSinkGetsEveryEventAndTheLastAnswerCounts) {
    connected_sorter s = new_sorter();
    event_list log;
    recording_sink first(nullptr), second(nullptr);
    first.log = second.log = &log;
    first.name = "A:";
    second.name = "B:";
    SHORT* handed_to_first = nullptr;
    // The first sink says "after"; the second sees that, unchanged, through
    // the same variable and overrules it with "before".
    first.before = [&](DISPID id, LONG, LONG, SHORT* answer, EXCEPINFO*) {
        if (id == 1) {
            EXPECT_EQ(0, *answer) << "the answer is reset before each event";
            handed_to_first = answer;
            *answer = 1;
        }
        return S_OK;
    };
    second.before = [&](DISPID id, LONG, LONG, SHORT* answer, EXCEPINFO*) {
        if (id == 1) {
            EXPECT_EQ(handed_to_first, answer) << "both sinks get the sorter's one variable";
            EXPECT_EQ(1, *answer) << "nothing resets the answer between sinks";
            *answer = -1;
        }
        return S_OK;
    };
    const DWORD a = s.advise(&first), b = s.advise(&second);
    EXPECT_EQ(S_OK, s.sorter->Sort(4, 1));
    ASSERT_FALSE(log.empty());
    ASSERT_EQ(0u, log.size() % 2);
    for (size_t i = 0; i < log.size(); i += 2) {
        EXPECT_EQ("A:", log[i].substr(0, 2)) << "event " << i / 2;
        EXPECT_EQ("B:" + log[i].substr(2), log[i + 1]) << "event " << i / 2;
        EXPECT_EQ(std::string::npos, log[i].find("SwapItems")) << "the last sink's answer decides";
    }
    s.point->Unadvise(a);
    s.point->Unadvise(b);
}

TEST(QuickSortConnections, ASinkThatDoesNotKnowAnEventIsPassedOver) {
    for (HRESULT unknown : {DISP_E_MEMBERNOTFOUND, DISP_E_UNKNOWNNAME}) {
        for (bool alone : {true, false}) {
            const std::string name = hex(unknown) + (alone ? ", alone" : ", before a sink that sorts");
            item_store store{1, {3, 1, 2}};
            connected_sorter s = new_sorter();
            recording_sink ignorant(nullptr), worker(&store);
            ignorant.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) { return unknown; };
            const DWORD first = s.advise(&ignorant), second = alone ? 0 : s.advise(&worker);
            EXPECT_EQ(S_OK, s.sorter->Sort(3, 1)) << name;
            // Unanswered, every comparison says "equal": one pass, no swaps.
            EXPECT_EQ(alone ? 5 : 7, ignorant.events) << name;
            EXPECT_EQ(alone ? 0 : 7, worker.events) << name << ": the next sink still gets each event";
            EXPECT_EQ((std::vector<int>{alone ? 3 : 1, alone ? 1 : 2, alone ? 2 : 3}), store.values) << name;
            s.point->Unadvise(first);
            if (!alone) s.point->Unadvise(second);
        }
    }
}

TEST(QuickSortConnections, SinksConnectedOrDisconnectedInsideAnEventTakeEffectFromTheNextSink) {
    struct case_ {
        const char* name;
        int sinks;                  // connected before the sort; the first one sorts
        int victim;                 // which one the first sink disconnects at the first event; -1: none
        bool connects_another;      // the first sink connects one more at the first event
        std::vector<long> events;   // heard by each sink, the late one last
    };
    // Three items in order: five comparisons; then Sort(2) asks once more.
    const case_ cases[] = {
        {"alone, disconnects itself", 1, 0, false, {1}},
        {"of two, disconnects itself", 2, 0, false, {1, 6}},
        {"of two, disconnects the other", 2, 1, false, {6, 0}},
        {"of three, disconnects the middle one", 3, 1, false, {6, 0, 6}},
        {"alone, connects another", 1, -1, true, {6, 5}},
        {"of two, swaps the other for a new one", 2, 1, true, {6, 0, 5}},
    };
    for (const case_& c : cases) {
        item_store store{1, {1, 2, 3}};
        connected_sorter s = new_sorter();
        std::vector<std::unique_ptr<recording_sink>> sinks;
        for (int i = 0; i <= c.sinks; ++i) sinks.push_back(std::make_unique<recording_sink>(i == 0 ? &store : nullptr));
        std::vector<DWORD> cookies(c.sinks + 1);
        bool done = false;
        sinks[0]->before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) {
            if (done) return S_OK;
            done = true;
            if (c.victim >= 0) {
                EXPECT_EQ(S_OK, s.point->Unadvise(cookies[c.victim])) << c.name;
                EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(cookies[c.victim]))) << c.name;
                cookies[c.victim] = 0;
            }
            if (c.connects_another) cookies[c.sinks] = s.advise(sinks[c.sinks].get());
            return S_OK;
        };
        for (int i = 0; i < c.sinks; ++i) cookies[i] = s.advise(sinks[i].get());
        EXPECT_EQ(S_OK, s.sorter->Sort(3, 1)) << c.name;
        // After the sort the disconnected are gone for good and the rest
        // still hear everything.
        EXPECT_EQ(S_OK, s.sorter->Sort(2, 1)) << c.name;
        for (size_t i = 0; i < c.events.size(); ++i) {
            const size_t which = i < static_cast<size_t>(c.sinks) ? i : c.sinks;
            EXPECT_EQ(c.events[i], sinks[which]->events) << c.name << ", sink " << which;
        }
        for (DWORD cookie : cookies) {
            if (cookie) {
                EXPECT_EQ(S_OK, s.point->Unadvise(cookie)) << c.name;
            }
        }
    }
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

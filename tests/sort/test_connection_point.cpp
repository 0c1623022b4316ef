// How clsQuickSort's events reach their sinks: the connection point, cookies
// and the enumerator; sinks that do not know an event or leave mid-sort.
#include "sort/sort_sinks.h"

namespace vx::test {
namespace {

TEST(QuickSortConnections, CookiesNameConnectionsUntilTheyAreUnadvised) {
    connected_sorter s = new_sorter();
    recording_sink a(nullptr), b(nullptr);
    const DWORD cookies[] = {s.advise(&a), s.advise(&b), s.advise(&a)};
    com_ptr<IEnumConnections> connections;
    ASSERT_EQ(S_OK, s.point->EnumConnections(connections.put()));
    CONNECTDATA data[4] = {};
    ULONG fetched = 0;
    EXPECT_EQ(S_FALSE, connections->Next(4, data, &fetched));
    ASSERT_EQ(3u, fetched);
    for (ULONG i = 0; i < fetched; ++i) {
        EXPECT_TRUE(data[i].dwCookie == cookies[i] && data[i].pUnk == (i == 1 ? &b : &a)) << "connection " << i;
        data[i].pUnk->Release();  // the sinks count: a missing AddRef shows as they go
    }
    EXPECT_EQ(S_OK, connections->Reset());
    EXPECT_TRUE(connections->Skip(3) == S_OK && connections->Skip(1) == S_FALSE) << "skipping exactly what is left";
    connections.reset();
    EXPECT_EQ(S_OK, s.point->Unadvise(cookies[1]));
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(cookies[1]))) << "twice";
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(0))) << "cookie 0";
    EXPECT_EQ(S_OK, s.sorter->Sort(2, 1));
    EXPECT_TRUE(a.events == 2 && b.events == 0) << "connected twice, a sink hears each event twice";
    EXPECT_TRUE(s.point->Unadvise(cookies[0]) == S_OK && s.point->Unadvise(cookies[2]) == S_OK);
    com_ptr<IConnectionPoint> other;
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer)
                                                   ->FindConnectionPoint(IID_IDispatch, other.put())));
}

// Every sink hears every event in turn (one that answers only for IDispatch too); one that does not know SwapItems
// is passed over; one that unadvises inside its second event hears no more and is let go as the sort ends.
TEST(QuickSortConnections, SinksThatDoNotKnowAnEventOrLeaveMidSortLetTheSortGoOn) {
    item_store store{1, {3, 1, 2}};
    event_list deaf_heard, leaving_heard, keeper_heard;
    recording_sink deaf(nullptr), leaving(nullptr), keeper(&store);
    deaf.log = &deaf_heard, leaving.log = &leaving_heard, keeper.log = &keeper_heard, deaf.script_like = true;
    connected_sorter s = new_sorter();
    deaf.before = [](DISPID id, LONG, LONG, SHORT*, EXCEPINFO*) {
        return id == sort_event::SwapItems ? DISP_E_MEMBERNOTFOUND : S_OK;
    };
    const DWORD deaf_cookie = s.advise(&deaf), leaving_cookie = s.advise(&leaving), keeper_cookie = s.advise(&keeper);
    leaving.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) {
        return leaving_heard.size() == 2 ? s.point->Unadvise(leaving_cookie) : S_OK;
    };
    EXPECT_EQ(S_OK, s.sorter->Sort(3, 1));
    EXPECT_TRUE(keeper_heard == worked_example && deaf_heard == worked_example);
    EXPECT_EQ((event_list{"isLess(1,3)", "SwapItems(1,3)"}), leaving_heard);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), store.values);
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(leaving_cookie)));
    s.point->Unadvise(deaf_cookie), s.point->Unadvise(keeper_cookie);
}

}  // namespace
}  // namespace vx::test

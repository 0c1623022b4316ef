// How clsQuickSort's events reach their sinks: the connection point, cookies
// and the enumerator.
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
        EXPECT_EQ(cookies[i], data[i].dwCookie) << "connection " << i;
        EXPECT_EQ(static_cast<IUnknown*>(i == 1 ? &b : &a), data[i].pUnk) << "connection " << i;
        data[i].pUnk->Release();  // the sinks count: a missing AddRef shows as they go
    }
    EXPECT_EQ(S_OK, connections->Reset());
    EXPECT_EQ(S_OK, connections->Skip(3)) << "skipping exactly what is left";
    EXPECT_EQ(S_FALSE, connections->Skip(1));
    connections.reset();

    EXPECT_EQ(S_OK, s.point->Unadvise(cookies[1]));
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(cookies[1]))) << "twice";
    EXPECT_EQ(hex(CONNECT_E_NOCONNECTION), hex(s.point->Unadvise(0))) << "cookie 0";
    EXPECT_EQ(S_OK, s.sorter->Sort(2, 1));
    EXPECT_EQ(2, a.events) << "connected twice, a sink hears each event twice";
    EXPECT_EQ(0, b.events);
    EXPECT_EQ(S_OK, s.point->Unadvise(cookies[0]));
    EXPECT_EQ(S_OK, s.point->Unadvise(cookies[2]));
}

}  // namespace
}  // namespace vx::test

// EvtCreateBookmark, EvtUpdateBookmark and the bookmark text.
#include "EvtsimTestUtil.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

TEST(BookmarkTest, TextIsByteExact) {
    EvtsimStore store;
    store.createChannel("Application");
    for (int i = 0; i < 3; ++i) store.append("Application", sampleEvent(1));

    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(nullptr));
    ASSERT_TRUE(bm);
    EXPECT_EQ(L"<BookmarkList>\r\n</BookmarkList>", renderBookmark(bm.get()));

    UniqueEvtHandle fwd(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | EvtQueryForwardDirection));
    auto events = readAll(fwd.get());
    ASSERT_TRUE(evtsim::EvtUpdateBookmark(bm.get(), events[1].get()));
    const std::wstring expected = L"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='2' IsCurrent='true'/>\r\n</BookmarkList>";
    EXPECT_EQ(expected, renderBookmark(bm.get()));
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(nullptr, bm.get(), EvtRenderBookmark, 0, nullptr, &used, &count));
    EXPECT_EQ(122u, GetLastError());
    EXPECT_EQ((expected.size() + 1) * 2, used);

    UniqueEvtHandle rev(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | EvtQueryReverseDirection));
    auto back = readAll(rev.get(), 1, 1);
    ASSERT_TRUE(evtsim::EvtUpdateBookmark(bm.get(), back[0].get()));
    EXPECT_EQ(L"<BookmarkList Direction='backward'>\r\n  <Bookmark Channel='Application' RecordId='3' IsCurrent='true'/>\r\n</BookmarkList>",
              renderBookmark(bm.get()));
}

}  // namespace

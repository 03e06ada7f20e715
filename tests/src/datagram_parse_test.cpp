// TarnSession::parse_head and parse_segment: one step through a received datagram.
#include <gtest/gtest.h>

#include <string>

#include "src/tarn_session.h"
#include "tests/support/kit_bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_peer.h"

using namespace tarn_test;

namespace {

DataView view_of(const Bytes& bytes) { return owned_view(std::string(bytes.begin(), bytes.end())); }

Bytes bytes_of_view(const DataView& view) { return tarn_test::bytes_of(text_of(view)); }

}  // namespace

TEST(HeaderParser, TakesTwoBytesAndReportsThem) {
  for (const char magic : {'$', '#'}) {
    DataView view = view_of({static_cast<uint8_t>(magic), 0, 7, 8});
    char found = 0;
    unsigned char version = 9;

    EXPECT_TRUE(TarnSession::parse_head(view, found, version));

    EXPECT_EQ(found, magic);
    EXPECT_EQ(version, 0);
    EXPECT_EQ(bytes_of_view(view), (Bytes{7, 8}));
  }
}

TEST(HeaderParser, ReportsAnotherVersionAndGoesOn) {
  const LogCapture log;
  DataView view = view_of({'$', 3, 7});
  char magic = 0;
  unsigned char version = 0;

  EXPECT_TRUE(TarnSession::parse_head(view, magic, version));

  EXPECT_EQ(version, 3);
  EXPECT_EQ(log.count(2, "not match version 3"), 1);
}

TEST(HeaderParser, RefusesAnotherMagic) {
  DataView view = view_of({'T', 0, 7});
  char magic = 0;
  unsigned char version = 0;

  EXPECT_FALSE(TarnSession::parse_head(view, magic, version));
}

TEST(HeaderParser, RefusesWhatIsShorterThanAHeader) {
  DataView view = view_of({'$'});
  char magic = 0;
  unsigned char version = 0;

  EXPECT_FALSE(TarnSession::parse_head(view, magic, version));
}

TEST(SegmentParser, FillsTypeFlagAndBody) {
  DataView view = view_of({6 << 2 | 3, 0, 4, 1, 2, 3, 4});
  TarnSession::Segment segment;

  EXPECT_TRUE(TarnSession::parse_segment(view, segment));

  EXPECT_EQ(segment.type, 6);
  EXPECT_EQ(segment.flag, 3);
  EXPECT_EQ(bytes_of_view(segment.data), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(view.size(), 0u);
}

TEST(SegmentParser, LeavesWhatComesAfterTheSegment) {
  DataView view = view_of({1 << 2, 0, 1, 'a', 0 << 2 | 1, 0, 2, 'b', 'c'});
  TarnSession::Segment first;
  TarnSession::Segment second;

  EXPECT_TRUE(TarnSession::parse_segment(view, first));
  EXPECT_EQ(bytes_of_view(view), (Bytes{1, 0, 2, 'b', 'c'}));
  EXPECT_TRUE(TarnSession::parse_segment(view, second));

  EXPECT_EQ(bytes_of_view(first.data), (Bytes{'a'}));
  EXPECT_EQ(second.type, 0);
  EXPECT_EQ(second.flag, 1);
  EXPECT_EQ(bytes_of_view(second.data), (Bytes{'b', 'c'}));
}

TEST(SegmentParser, TheBodyLiesInTheDatagram) {
  char datagram[] = {1 << 2, 0, 2, 'a', 'b'};
  Block block(datagram, sizeof datagram);
  DataView view = DataView::lend(block);
  TarnSession::Segment segment;

  EXPECT_TRUE(TarnSession::parse_segment(view, segment));

  EXPECT_EQ(segment.data.data(), datagram + 3);
}

TEST(SegmentParser, TakesAnEmptyBody) {
  DataView view = view_of({4 << 2, 0, 0, 9});
  TarnSession::Segment segment;

  EXPECT_TRUE(TarnSession::parse_segment(view, segment));

  EXPECT_EQ(segment.type, 4);
  EXPECT_EQ(segment.data.size(), 0u);
  EXPECT_EQ(bytes_of_view(view), (Bytes{9}));
}

TEST(SegmentParser, StoresTheTypeThatItRefuses) {
  const LogCapture log;
  for (const uint8_t type : {5, 7, 63}) {
    DataView view = view_of({static_cast<uint8_t>(type << 2 | 2), 0, 0, 0});
    TarnSession::Segment segment;

    EXPECT_FALSE(TarnSession::parse_segment(view, segment));

    EXPECT_EQ(segment.type, type);
    EXPECT_EQ(segment.flag, 2);
    EXPECT_EQ(log.count(2, "error segment type " + std::to_string(type)), 1);
  }
}

TEST(SegmentParser, RefusesALengthBeyondTheDatagram) {
  const LogCapture log;
  DataView view = view_of({1 << 2, 0, 3, 'a', 'b'});
  TarnSession::Segment segment;

  EXPECT_FALSE(TarnSession::parse_segment(view, segment));

  EXPECT_EQ(segment.type, 1);
  EXPECT_EQ(segment.data.size(), 0u);
  EXPECT_EQ(log.count(2, "error segment len 3"), 1);
}

TEST(SegmentParser, RefusesWhatIsShorterThanAHead) {
  for (size_t size = 0; size < 3; ++size) {
    // The reads want a larger block around the view, as any datagram is.
    DataView view = view_of(Bytes(size + 2, 0x07));
    view.consume_front(2);
    TarnSession::Segment segment;
    EXPECT_FALSE(TarnSession::parse_segment(view, segment)) << size;
  }
}

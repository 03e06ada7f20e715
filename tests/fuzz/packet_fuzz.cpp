// Any bytes as a datagram: the two calls that look at one, and the parsers behind them, against a
// second decoder.
#include "src/tarn_session.h"
#include "tarn/tarn.h"
#include "tests/fuzz/support/exact_copy.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/plain_decoder.h"

namespace {

using tarn_fuzz::decode;
using tarn_fuzz::ExactCopy;
using tarn_fuzz::PlainDatagram;
using tarn_fuzz::PlainSegment;

std::string text_of(DataView& view) {
  const unsigned long size = view.size();
  return size > 0 ? std::string(view.data(), size) : std::string();
}

void check_inspection(const std::string& bytes) {
  ExactCopy copy(bytes);
  FUZZ_CHECK(tarn_check_packet(copy.data(), copy.length()) == tarn_fuzz::expected_check(bytes));
  FUZZ_CHECK(tarn_read_packet_conv(copy.data(), copy.length()) == tarn_fuzz::expected_conv(bytes));
}

void check_segment(DataView& view, const PlainSegment& expected) {
  TarnSession::Segment segment;
  FUZZ_CHECK(TarnSession::parse_segment(view, segment));
  FUZZ_CHECK(segment.type == expected.type);
  FUZZ_CHECK(segment.flag == expected.flag);
  FUZZ_CHECK(segment.data.size() == expected.body.size());
  FUZZ_CHECK(text_of(segment.data) == expected.body);
}

void check_parsers(DataView& view, const PlainDatagram& expected) {
  char magic = 0;
  unsigned char version = 0;
  FUZZ_CHECK(TarnSession::parse_head(view, magic, version) == expected.has_header);
  if (!expected.has_header) return;
  for (const PlainSegment& each : expected.segments) check_segment(view, each);
  TarnSession::Segment refused;
  if (expected.is_cut_off) {
    FUZZ_CHECK(!TarnSession::parse_segment(view, refused));
  } else {
    FUZZ_CHECK(view.size() < 3);
    FUZZ_CHECK(!TarnSession::parse_segment(view, refused));
  }
}

// The caller's bytes lent, the same counted, and a copy: the parsers take all of them.
void check_every_kind_of_view(const std::string& bytes) {
  const PlainDatagram expected = decode(bytes);
  ExactCopy copy(bytes);
  Block block(copy.data(), copy.size());
  DataView lent = DataView::lend(block);
  check_parsers(lent, expected);
  DataView wrapped(copy.data(), copy.size());
  check_parsers(wrapped, expected);
  DataView owned(copy.data(), copy.size());
  owned.deep_copy();
  check_parsers(owned, expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  check_inspection(bytes);
  check_every_kind_of_view(bytes);
  return 0;
}

// tarn_check_packet and tarn_read_packet_conv beside a plain reading of the same bytes.
#include <rapidcheck.h>

#include "tests/support/packet_inspection.h"

using namespace tarn_test;

namespace {

bool has_header(const Bytes& in) { return in.size() >= 2 && (in[0] == '#' || in[0] == '$'); }

// The end of the segment at `at`, or 0 when there is no good one.
size_t segment_end(const Bytes& in, size_t at) {
  if (at + 3 > in.size()) return 0;
  const int type = in[at] >> 2;
  const size_t end = at + 3 + (in[at + 1] << 8 | in[at + 2]);
  return type > 6 || type == 5 || end > in.size() ? 0 : end;
}

int expected_check(const Bytes& in) {
  if (!has_header(in) || segment_end(in, 2) == 0) return -1;
  if (in[2] >> 2 != kReliable) return 1;
  if (segment_end(in, 2) < 7) return -1;
  return in[5] == 0 && in[6] == 0 ? 0 : 1;
}

unsigned expected_conv(const Bytes& in) {
  if (!has_header(in)) return kNotOurs;
  for (size_t at = 2, end; (end = segment_end(in, at)) != 0; at = end) {
    if (in[at] >> 2 != kConv) continue;
    if (end - at < 7) return 0;
    return static_cast<unsigned>(in[at + 3]) << 24 | in[at + 4] << 16 | in[at + 5] << 8 |
           in[at + 6];
  }
  return 0;
}

}  // namespace

TEST(PacketInspection, AgreesWithAPlainReadingOfAnyBytes) {
  // Small values make segments that fit; the rest is arbitrary.
  const auto byte = rc::gen::weightedOneOf<unsigned char>(
      {{6, rc::gen::inRange<unsigned char>(0, 30)}, {1, rc::gen::arbitrary<unsigned char>()}});
  rc::check("both calls", [&byte] {
    Bytes bytes = *rc::gen::container<Bytes>(byte);
    if (*rc::gen::inRange(0, 8) != 0) bytes = datagram({bytes});
    for (size_t at = 3; at < bytes.size() && at < 60; at += 8) {
      if (*rc::gen::arbitrary<bool>()) bytes[at] = 0;
    }
    RC_ASSERT(check(bytes) == expected_check(bytes));
    RC_ASSERT(read_conv(bytes) == expected_conv(bytes));
  });
}

TEST(PacketInspection, EveryTruncationOfARealDatagramIsSafe) {
  const Bytes whole = datagram({conv(5), una(1), ack({3, 4}), reliable(0, pattern(20)), bye()});
  for (size_t size = 0; size <= whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(check(cut), expected_check(cut)) << size;
    EXPECT_EQ(read_conv(cut), expected_conv(cut)) << size;
  }
}

// Reliable messages of any size, in any order.
#include <rapidcheck.h>

#include <algorithm>
#include <cstddef>
#include <random>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using ReliableProperty = SessionFixture;

namespace {

Bytes numbered(int n) { return {static_cast<unsigned char>(n), 'm'}; }

}  // namespace

TEST_F(ReliableProperty, AnySplitMessageComesApartIntoThePiecesOfItsFlags) {
  tarn_config_send_window_size(5000);
  rc::check("pieces are full except the last, flags tell their place", [] {
    const auto mtu = *rc::gen::inRange(1u, 1500u);
    const auto size = *rc::gen::inRange<size_t>(1, 4000);
    tarn_config_mtu(mtu);
    Endpoint a;
    const Bytes message = pattern(size, mtu);

    a.send(message);

    const auto pieces = segments_of_type(a.sent.all(), kReliable);
    Bytes joined;
    for (size_t i = 0; i < pieces.size(); ++i) {
      const bool first = i == 0;
      const bool last = i + 1 == pieces.size();
      RC_ASSERT(pieces[i].flag == (first ? 2 : 0) + (last ? 1 : 0));
      RC_ASSERT(pieces[i].seq() == i);
      RC_ASSERT(last || pieces[i].payload().size() == mtu);
      joined = concat({joined, pieces[i].payload()});
    }
    RC_ASSERT(pieces.size() == (size + mtu - 1) / mtu);
    RC_ASSERT(joined == message);
  });
}

TEST_F(ReliableProperty, AnyOrderOfAWindowComesOutInOrder) {
  rc::check("32 messages, shuffled", [] {
    Endpoint a;
    std::vector<int> order(33);
    for (int n = 0; n < 33; ++n) order[static_cast<size_t>(n)] = n;
    std::mt19937_64 random(*rc::gen::arbitrary<uint64_t>());
    std::shuffle(order.begin(), order.end(), random);

    for (int round = 0; round < 2; ++round) {
      for (const int n : order) a.input(datagram({reliable(static_cast<uint16_t>(n), numbered(n))}));
    }

    std::vector<Bytes> expected;
    for (int n = 0; n < 33; ++n) expected.push_back(numbered(n));
    RC_ASSERT(a.reliable_received.all() == expected);
  });
}

// What the tests of control.h as a contract share.
#ifndef TARN_TESTS_API_CONTRACT_KIT_H_
#define TARN_TESTS_API_CONTRACT_KIT_H_

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>

#include "tarn/control.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {

inline int try_send(void* session, const Bytes& message) {
  return tarn_try_send_reliable(session, message.data(), message.size());
}

inline TarnStats stats_of(void* session) {
  TarnStats stats;
  memset(&stats, 0xEE, sizeof stats);
  EXPECT_EQ(tarn_get_stats(session, &stats, sizeof stats), 0);
  return stats;
}

inline void set_option(void* session, TarnOption option, long long value) {
  EXPECT_EQ(tarn_set_option(session, option, value), 0) << option << " = " << value;
}

inline long long option_of(void* session, TarnOption option) {
  long long value = -77;
  EXPECT_EQ(tarn_get_option(session, option, &value), 0) << option;
  return value;
}

// Calls a function for a callback of any kind.
struct Hook {
  std::function<void()> does;
  std::atomic<int> runs{0};
  void run() {
    ++runs;
    if (does) does();
  }
  static void on_writable(void*, void* hook) { static_cast<Hook*>(hook)->run(); }
  static int on_error(TarnError, void* hook) {
    static_cast<Hook*>(hook)->run();
    return 0;
  }
  static int on_data(char*, int, void* hook) {
    static_cast<Hook*>(hook)->run();
    return 0;
  }
};

// The messages of the reliable segments in `sent`, put together from each number's first time.
// Fails the running test when numbers leave in another order than 0, 1, 2 ... or a message's
// fragments are not one run.
inline std::vector<Bytes> messages_in(const std::vector<Bytes>& sent) {
  std::vector<Bytes> messages;
  Bytes growing;
  bool open = false;
  uint64_t next = 0;
  for (const WireSegment& one : segments_of_type(sent, kReliable)) {
    const auto ahead = static_cast<int16_t>(one.seq() - static_cast<uint16_t>(next));
    if (ahead < 0) continue;
    EXPECT_EQ(ahead, 0) << "number " << one.seq() << " instead of " << next;
    ++next;
    EXPECT_EQ((one.flag & kFirst) != 0, !open) << one.seq();
    const Bytes payload = one.payload();
    growing.insert(growing.end(), payload.begin(), payload.end());
    open = (one.flag & kLast) == 0;
    if (open) continue;
    messages.push_back(growing);
    growing.clear();
  }
  return messages;
}

// Looks at what a session tells its peer.
class FeedbackFixture : public SessionFixture {
 protected:
  // What `a` says of what it has, after its next cycle.
  struct Feedback {
    std::vector<int> unas;
    std::vector<uint16_t> acks;
  };
  Feedback feedback(Endpoint& a) {
    a.sent.clear();
    advance(50);
    Feedback found;
    for (const WireSegment& one : segments_of_type(a.sent.all(), kUna)) {
      found.unas.push_back(one.seq());
    }
    for (const WireSegment& one : segments_of_type(a.sent.all(), kAck)) {
      for (const uint16_t number : one.numbers()) found.acks.push_back(number);
    }
    std::sort(found.acks.begin(), found.acks.end());
    return found;
  }
  void far_number(Endpoint& a, uint16_t seq, bool taken) {
    const int before = a.errors.count(TARN_ERROR_RECV_REJECTED);
    a.input(datagram({reliable(seq, pattern(3, seq))}));
    const std::vector<uint16_t> acks = feedback(a).acks;
    EXPECT_EQ(std::count(acks.begin(), acks.end(), seq), taken ? 1 : 0) << seq;
    EXPECT_EQ(a.errors.count(TARN_ERROR_RECV_REJECTED) - before, taken ? 0 : 1) << seq;
  }
};

}  // namespace tarn_test

#endif  // TARN_TESTS_API_CONTRACT_KIT_H_

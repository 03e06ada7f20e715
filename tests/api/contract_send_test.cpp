// control.h: what a controlled sender takes, in every state that acknowledgements, options and the
// calls themselves can bring it to.
#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <random>
#include <set>

#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

constexpr size_t kMtu = 100;

// A sender with an outside view of it: what it has accepted, what it has put on the wire, and what
// the test has acknowledged.
class Judge {
 public:
  explicit Judge(unsigned seed, bool peer_window) : random_(seed), peer_window_(peer_window) {
    set_option(a_.handle(), TARN_OPTION_MTU, kMtu);
    set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, window_);
    EXPECT_EQ(tarn_set_writable_callback(a_.handle(), on_writable, this), 0);
  }
  ~Judge() { tarn_set_writable_callback(a_.handle(), nullptr, nullptr); }

  void step() {
    switch (pick(peer_window_ ? 9 : 8)) {
      case 0:
      case 1:
      case 2:
        send_random();
        break;
      case 3:
        acknowledge_some();
        break;
      case 4:
        acknowledge_all_up_to();
        break;
      case 5:
        hostile();
        break;
      case 6:
        change_window();
        break;
      case 7:
        change_queue();
        break;
      case 8:
        change_peer_window();
        break;
    }
    look();
  }

  // Acknowledges until everything has left and arrived.
  void finish() {
    for (int i = 0; i < 100000 && (!outstanding_.empty() || queued() > 0); ++i) {
      ASSERT_FALSE(outstanding_.empty()) << "bytes wait and nothing is under way";
      const uint16_t seq = outstanding_.begin()->second;
      outstanding_.erase(outstanding_.begin());
      acknowledge({seq});
      look();
      if (::testing::Test::HasFailure()) return;
    }
    ASSERT_TRUE(outstanding_.empty());
    EXPECT_EQ(messages_in(a_.sent.all()), accepted_);
    EXPECT_FALSE(armed_ && smallest_refused_ <= tarn_send_room(a_.handle())) << smallest_refused_;
    EXPECT_TRUE(a_.errors.all().empty());
  }

 private:
  static void on_writable(void*, void* judge) {
    auto* self = static_cast<Judge*>(judge);
    EXPECT_TRUE(self->armed_) << "called without a refusal";
    // One that options have made too long is told, too: it would wait for ever.
    EXPECT_TRUE(self->smallest_refused_ <= tarn_send_room(self->a_.handle()) ||
                self->too_long(self->smallest_refused_))
        << self->smallest_refused_;
    self->armed_ = false;
  }

  size_t pick(size_t below) { return random_() % below; }
  size_t queued() { return stats_of(a_.handle()).queued_bytes; }

  bool too_long(size_t len) const { return len > static_cast<size_t>(window_) * kMtu + queue_; }

  // Room is exactly what is taken: one byte more is refused, and it is itself taken.
  void send_random() {
    const size_t room = tarn_send_room(a_.handle());
    const size_t numbers = numbers_.size();
    if (!armed_) {
      // No callback may be due to what is only asked here: the refusal is undone by none.
      const bool never = too_long(room + 1);
      armed_ = !never;
      smallest_refused_ = room + 1;
      EXPECT_EQ(try_send(a_.handle(), pattern(room + 1)), never ? -EMSGSIZE : -EAGAIN) << room;
      collect();
      ASSERT_EQ(numbers_.size(), numbers) << "refused, and yet sent";
    }
    if (room == 0) return;
    const size_t len = pick(4) == 0 ? room : 1 + pick(room);
    if (armed_ && len >= smallest_refused_) return;
    const Bytes message = pattern(len, static_cast<unsigned>(random_()));
    accepted_.push_back(message);
    ASSERT_EQ(try_send(a_.handle(), message), 0) << len << " with room for " << room;
  }

  void acknowledge(const std::vector<uint16_t>& wire) { a_.input(datagram({ack(wire)})); }
  void gone(uint64_t number) { outstanding_.erase(number); }

  void acknowledge_some() {
    std::vector<uint16_t> wire;
    std::vector<uint64_t> chosen;
    for (const auto& [number, seq] : outstanding_) {
      if (pick(3) == 0) {
        wire.push_back(seq);
        chosen.push_back(number);
      }
    }
    if (wire.empty()) return;
    if (pick(2) == 0) wire.push_back(wire.front());
    for (const uint64_t number : chosen) gone(number);
    acknowledge(wire);
  }

  void acknowledge_all_up_to() {
    if (outstanding_.empty()) return;
    auto it = outstanding_.begin();
    std::advance(it, static_cast<std::ptrdiff_t>(pick(outstanding_.size())));
    const uint16_t seq = it->second;
    outstanding_.erase(outstanding_.begin(), std::next(it));
    a_.input(datagram({una(seq)}));
  }

  // What is not outstanding cannot be acknowledged.
  void hostile() {
    const uint64_t next = numbers_.size();
    const auto wire = static_cast<uint16_t>(next + pick(4000));
    a_.input(datagram({una(wire)}));
    a_.input(datagram({ack({wire, static_cast<uint16_t>(wire + 1), static_cast<uint16_t>(next)})}));
    a_.input(datagram({una(static_cast<uint16_t>(next + 32768))}));
    const uint64_t oldest = outstanding_.empty() ? next : outstanding_.begin()->first;
    if (oldest > 0) {
      a_.input(datagram(
          {una(static_cast<uint16_t>(oldest - 1)), ack({static_cast<uint16_t>(oldest - 1)})}));
    }
  }

  void change_window() {
    window_ = 1 + static_cast<int>(pick(40));
    set_option(a_.handle(), TARN_OPTION_SEND_WINDOW, window_);
  }
  void change_queue() {
    queue_ = pick(2) == 0 ? 0 : pick(5000);
    set_option(a_.handle(), TARN_OPTION_SEND_QUEUE, static_cast<long long>(queue_));
  }
  void change_peer_window() {
    peer_ = pick(3) == 0 ? 0 : static_cast<int>(1 + pick(50));
    set_option(a_.handle(), TARN_OPTION_PEER_WINDOW, peer_);
  }

  // Takes what is new on the wire into the model.
  void collect() {
    const std::vector<Bytes> all = a_.sent.all();
    for (; seen_ < all.size(); ++seen_) {
      ASSERT_LE(all[seen_].size(), kMtu + 14);
      for (const WireSegment& one : segments_of(all[seen_])) {
        if (one.type != kReliable) continue;
        ASSERT_LE(one.payload().size(), kMtu);
        const uint64_t number = numbers_.size();
        ASSERT_EQ(one.seq(), static_cast<uint16_t>(number));
        numbers_.push_back(one.seq());
        bytes_[number] = one.payload().size();
        outstanding_[number] = one.seq();
        ASSERT_LE(outstanding_.size(), static_cast<size_t>(window_)) << "beyond the send window";
        if (peer_ > 0) {
          ASSERT_LE(number - outstanding_.begin()->first, static_cast<uint64_t>(peer_))
              << "beyond the peer's window";
        }
      }
    }
  }

  void look() {
    collect();
    const TarnStats stats = stats_of(a_.handle());
    uint32_t bytes = 0;
    for (const auto& [number, seq] : outstanding_) bytes += static_cast<uint32_t>(bytes_[number]);
    ASSERT_EQ(stats.outstanding_segments, outstanding_.size());
    ASSERT_EQ(stats.messages_sent, accepted_.size());
    ASSERT_EQ(stats.segments_sent, numbers_.size());
    // Headers may count or not, but the same way always.
    ASSERT_TRUE(stats.outstanding_bytes == bytes ||
                stats.outstanding_bytes == bytes + 5 * outstanding_.size())
        << stats.outstanding_bytes << " for " << bytes;
    // Whoever waits does so for a reason.
    const bool window_full = outstanding_.size() >= static_cast<size_t>(window_);
    const bool peer_full =
        peer_ > 0 && !outstanding_.empty() &&
        numbers_.size() - outstanding_.begin()->first > static_cast<uint64_t>(peer_);
    ASSERT_TRUE(stats.queued_bytes == 0 || window_full || peer_full) << "left waiting for nothing";
    if (outstanding_.empty()) {
      ASSERT_FALSE(armed_ && (smallest_refused_ <= tarn_send_room(a_.handle()) ||
                              too_long(smallest_refused_)))
          << "nobody was told of the room for " << smallest_refused_;
    }
  }

  std::mt19937 random_;
  const bool peer_window_;
  Endpoint a_;
  int window_ = 32;
  size_t queue_ = 0;
  int peer_ = 0;
  bool armed_ = false;
  size_t smallest_refused_ = 0;
  std::vector<Bytes> accepted_;
  size_t seen_ = 0;
  std::vector<uint16_t> numbers_;
  std::map<uint64_t, size_t> bytes_;
  std::map<uint64_t, uint16_t> outstanding_;
};

class ContractSend : public SessionFixture {
 protected:
  void judge(bool peer_window, unsigned first_seed, int steps) {
    for (unsigned seed = first_seed; seed < first_seed + 20; ++seed) {
      SCOPED_TRACE(seed);
      Judge judge(seed, peer_window);
      for (int i = 0; i < steps && !HasFatalFailure() && !HasNonfatalFailure(); ++i) {
        SCOPED_TRACE(i);
        judge.step();
      }
      if (HasFailure()) return;
      judge.finish();
      if (HasFailure()) return;
    }
  }
};

}  // namespace

TEST_F(ContractSend, RoomIsExactlyWhatIsTakenInEveryStateOfWindowAndQueue) { judge(false, 1, 150); }

TEST_F(ContractSend, RoomIsExactlyWhatIsTakenUnderAPeerWindow) { judge(true, 100, 150); }

TEST_F(ContractSend, TheCountsHoldThroughTheWrapOfTheNumbers) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 4096);
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  const Bytes message = pattern(10 * 4096);
  for (int round = 0; round < 18; ++round) {
    ASSERT_EQ(try_send(a.handle(), message), 0) << round;
    ASSERT_EQ(tarn_send_room(a.handle()), 0u);
    ASSERT_EQ(stats_of(a.handle()).outstanding_segments, 4096u);
    a.sent.clear();
    const auto last = static_cast<uint16_t>((round + 1) * 4096 - 1);
    // Twice, and an old one.
    a.input(datagram({una(last), una(last), una(static_cast<uint16_t>(last - 4096))}));
    ASSERT_EQ(stats_of(a.handle()).outstanding_segments, 0u) << round;
    ASSERT_EQ(tarn_send_room(a.handle()), 40960u);
  }
}

TEST_F(ContractSend, RoomCountsWhatPlainSendsHaveTaken) {
  Endpoint a;
  a.send(pattern(3000));
  EXPECT_EQ(tarn_send_room(a.handle()), 29u * 1400) << "the first call finds three outstanding";
  EXPECT_EQ(try_send(a.handle(), pattern(29 * 1400 + 1)), -EAGAIN);
  EXPECT_EQ(try_send(a.handle(), pattern(29 * 1400)), 0);
  EXPECT_EQ(tarn_send_room(a.handle()), 0u);
  a.input(datagram({una(2)}));
  EXPECT_EQ(tarn_send_room(a.handle()), 3u * 1400);
  EXPECT_EQ(a.sent_numbers().size(), 32u);
  EXPECT_EQ(stats_of(a.handle()).outstanding_segments, 29u);
}

TEST_F(ContractSend, TooLongArmsNoCallback) {
  Endpoint a;
  Hook hook;
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 3);
  tarn_set_writable_callback(a.handle(), Hook::on_writable, &hook);
  EXPECT_EQ(try_send(a.handle(), pattern(4201)), -EMSGSIZE);
  EXPECT_EQ(try_send(a.handle(), pattern(4200)), 0);
  a.input(datagram({una(2)}));
  EXPECT_EQ(hook.runs, 0);
}

TEST_F(ContractSend, ALearnedPeerWindowBeginsAtAtMost32Ahead) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_MTU, 10);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 1000);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 100000);
  set_option(a.handle(), TARN_OPTION_PEER_WINDOW, -1);
  EXPECT_EQ(try_send(a.handle(), pattern(50000)), 0);
  const std::vector<int> sent = a.sent_numbers();
  ASSERT_FALSE(sent.empty());
  EXPECT_LE(sent.back(), 32);
  EXPECT_GE(sent.back(), 31);
}

// How much a call may allocate: what it keeps, and nothing besides; and what is left when that
// fails. A program of its own, since it replaces operator new.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <list>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tarn/control.h"

namespace {

thread_local bool counting = false;
thread_local size_t allocations = 0;
thread_local size_t allocated_bytes = 0;
std::atomic<long> live_blocks{0};  // of all threads
// The allocation of this thread that fails, 0 being the next one; none if it is negative.
thread_local long failing = -1;

}  // namespace

void* operator new(size_t size) {
  if (counting) {
    ++allocations;
    allocated_bytes += size;
  }
  if (failing >= 0 && failing-- == 0) throw std::bad_alloc();
  ++live_blocks;
  if (void* memory = std::malloc(size > 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
// Said as well: a sanitizer's own would be taken otherwise.
void* operator new[](size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept {
  if (memory != nullptr) --live_blocks;
  std::free(memory);
}
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, size_t) noexcept { operator delete(memory); }
void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

namespace {

// Counts this thread's allocations while it lives.
class Count {
 public:
  Count() {
    allocations = 0;
    allocated_bytes = 0;
    counting = true;
  }
  ~Count() { counting = false; }
};

int discard(char*, int, void*) { return 0; }

int keep(char* data, int len, void* into) {
  const bool was_counting = counting;
  counting = false;
  static_cast<std::string*>(into)->assign(data, static_cast<size_t>(len));
  counting = was_counting;
  return 0;
}

class Allocation : public ::testing::Test {
 protected:
  Allocation() {
    tarn_init();
    session_ = tarn_create();
    tarn_set_output_callback(session_, keep, &emitted_);
    tarn_set_recv_reliable_callback(session_, discard, nullptr);
    tarn_set_recv_unreliable_callback(session_, discard, nullptr);
  }
  ~Allocation() override { tarn_destroy(session_); }

  void input(std::vector<char> datagram) {
    const Count count;
    tarn_input(session_, datagram.data(), static_cast<int>(datagram.size()));
  }

  void* session_;
  std::string emitted_;
};

TEST_F(Allocation, ReliableMessageInOrderIsDeliveredWithoutAny) {
  input({'$', 0, 0x03, 0, 5, 0, 0, 'a', 'b', 'c'});
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Allocation, UnreliableMessageIsDeliveredWithoutAny) {
  input({'$', 0, 0x07, 0, 3, 'a', 'b', 'c'});
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Allocation, AcknowledgementIsTakenWithoutAny) {
  char message[] = "abc";
  tarn_send_reliable(session_, message, 3);
  input({'$', 0, 0x0F, 0, 2, 0, 0, 0x0B, 0, 2, 0, 0});
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Allocation, RepeatedSegmentIsDroppedWithoutAny) {
  input({'$', 0, 0x03, 0, 5, 0, 0, 'a', 'b', 'c'});
  input({'$', 0, 0x03, 0, 5, 0, 0, 'a', 'b', 'c'});
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Allocation, EarlySegmentIsKeptWithoutTheDatagramAroundIt) {
  std::vector<char> datagram{'$', 0, 0x03, 0, 5, 0, 9, 'a', 'b', 'c', 0x07, 0x10, 0x00};
  datagram.resize(datagram.size() + 0x1000);
  input(datagram);
  EXPECT_GT(allocations, 0u);
  EXPECT_LT(allocated_bytes, 600u);
}

TEST_F(Allocation, ReliableSendKeepsOneCopy) {
  std::vector<char> message(1000, 'x');
  {
    const Count count;
    tarn_send_reliable(session_, message.data(), 1000);
  }
  EXPECT_GE(allocated_bytes, 1000u);
  EXPECT_LT(allocated_bytes, 1600u);
}

TEST_F(Allocation, RefusedUnreliableSendAllocatesNothing) {
  char message[] = "abc";
  tarn_set_output_callback(session_, nullptr, nullptr);
  {
    const Count count;
    tarn_send_unreliable(session_, message, 3);
  }
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Allocation, UnreliableSendAllocatesNothing) {
  std::vector<char> message(1400, 'x');
  {
    const Count count;
    tarn_send_unreliable(session_, message.data(), 1400);
  }
  EXPECT_EQ(allocations, 0u);
  EXPECT_EQ(emitted_.size(), 1405u);
}

TEST_F(Allocation, LookingAtADatagramAllocatesNothing) {
  char datagram[] = {'$', 0, 0x1B, 0, 4, 1, 2, 3, 4};
  unsigned int conv = 0;
  {
    const Count count;
    conv = tarn_read_packet_conv(datagram, sizeof datagram);
    EXPECT_EQ(tarn_check_packet(datagram, sizeof datagram), 1);
  }
  EXPECT_EQ(conv, 0x01020304u);
  EXPECT_EQ(allocations, 0u);
}

// Creates sessions on this thread that the worker destroys before it has heard of them, inside a
// callback of another one.
class Orphans {
 public:
  static constexpr int kSessions = 20;

  Orphans() {
    void* const session = tarn_create();
    tarn_set_output_callback(session, on_output, this);
    char message[] = "x";
    tarn_send_reliable(session, message, 1);
    while (stage_ != kWorkerWaits) std::this_thread::yield();
    for (void*& each : sessions_) each = tarn_create();
    stage_ = kCreated;
    while (stage_ != kDestroyed) std::this_thread::yield();
    tarn_destroy(session);
  }

 private:
  enum Stage { kFresh, kWorkerWaits, kCreated, kDestroyed };

  // First inside tarn_send_reliable(), then on the worker.
  static int on_output(char*, int, void* self) {
    auto* const orphans = static_cast<Orphans*>(self);
    if (orphans->creator_ == std::this_thread::get_id() || orphans->stage_ != kFresh) return 0;
    orphans->stage_ = kWorkerWaits;
    while (orphans->stage_ != kCreated) std::this_thread::yield();
    for (void* const each : orphans->sessions_) tarn_destroy(each);
    orphans->stage_ = kDestroyed;
    return 0;
  }

  const std::thread::id creator_ = std::this_thread::get_id();
  std::atomic<Stage> stage_{kFresh};
  void* sessions_[kSessions] = {};
};

// Until so many blocks are left at most; what is cancelled goes when it comes up, within 50 ms.
bool blocks_come_down_to(long blocks) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (live_blocks > blocks) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST_F(Allocation, SessionsDestroyedBeforeTheWorkerHasHeardOfThemLeaveNothing) {
  constexpr long kTables = 2 * Orphans::kSessions;  // which are kept for the next ones
  const long before = live_blocks;
  for (int round = 0; round < 3; ++round) {
    const Orphans orphans;
    EXPECT_TRUE(blocks_come_down_to(before + kTables)) << live_blocks - before << " are left";
  }
}

// Whether the call went through with its `failing_now`th allocation failing.
template <typename Call>
bool survives(long failing_now, const Call& call) {
  failing = failing_now;
  try {
    call();
  } catch (const std::bad_alloc&) {
    failing = -1;
    return false;
  }
  failing = -1;
  return true;
}

// The application's own allocations are not part of the test.
class Spared {
 public:
  Spared() : before_(failing) { failing = -1; }
  ~Spared() { failing = before_; }

 private:
  const long before_;
};

// Numbers of the reliable segments that leave, re-sends included.
class Numbers {
 public:
  static int add(char* data, int len, void* self) {
    const Spared spared;
    auto* const numbers = static_cast<Numbers*>(self);
    const std::lock_guard<std::mutex> hold(numbers->guard_);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data);
    if (len >= 7 && bytes[2] < 4) numbers->seen_.insert(bytes[5] << 8 | bytes[6]);
    return 0;
  }
  // Whether there is none missing up to the last one.
  bool are_whole() {
    const std::lock_guard<std::mutex> hold(guard_);
    return !seen_.empty() && *seen_.rbegin() + 1 == static_cast<int>(seen_.size());
  }

 private:
  std::mutex guard_;
  std::set<int> seen_;
};

TEST(FailedAllocation, LeavesNoHoleInWhatIsSent) {
  tarn_init();
  std::list<Numbers> kept;  // a re-send may still be under way in one
  for (const int size : {100, 3000, 4200}) {
    bool done = false;
    long k = 0;
    for (; !done; ++k) {
      void* const session = tarn_create();
      Numbers& numbers = kept.emplace_back();
      tarn_set_output_callback(session, &Numbers::add, &numbers);
      std::vector<char> message(static_cast<size_t>(size), 'x');
      done = survives(k, [&] { tarn_send_reliable(session, message.data(), size); });
      tarn_send_reliable(session, message.data(), 1);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!numbers.are_whole() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      EXPECT_TRUE(numbers.are_whole()) << size << " bytes, allocation " << k;
      tarn_set_output_callback(session, discard, nullptr);
      tarn_destroy(session);
    }
    EXPECT_GT(k, 2) << "no allocation failed";
  }
}

// Until `numbers` has no hole, for as long as re-sends may take.
bool become_whole(Numbers& numbers) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!numbers.are_whole()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TarnStats stats_of(void* session) {
  const Spared spared;
  TarnStats stats;
  EXPECT_EQ(tarn_get_stats(session, &stats, sizeof stats), 0);
  return stats;
}

// The first call of all, which makes what a session needs for it, with a window of its own or not;
// part of the long message waits behind the window.
TEST(FailedAllocation, TakesAMessageUnderControlWholeOrNotAtAll) {
  tarn_init();
  std::list<Numbers> kept;  // a re-send may still be under way in one
  for (const size_t size : {100, 3000, 60'000}) {
    bool done = false;
    long k = 0;
    for (; !done; ++k) {
      void* const session = tarn_create();
      Numbers& numbers = kept.emplace_back();
      tarn_set_output_callback(session, &Numbers::add, &numbers);
      std::vector<char> message(size, 'x');
      int result = 0;
      done = survives(k, [&] {
        if (size > 50'000) tarn_set_option(session, TARN_OPTION_SEND_QUEUE, 1 << 20);
        result = tarn_try_send_reliable(session, message.data(), size);
      });
      ASSERT_EQ(result, 0);
      const TarnStats after = stats_of(session);
      EXPECT_LE(after.messages_sent, 1u);
      EXPECT_EQ(after.message_bytes_sent, after.messages_sent * size) << "allocation " << k;
      EXPECT_EQ(after.outstanding_bytes + after.queued_bytes, after.messages_sent * size)
          << size << " bytes, allocation " << k;
      EXPECT_TRUE(!done || after.messages_sent == 1);
      tarn_set_option(session, TARN_OPTION_SEND_QUEUE, 1 << 20);
      EXPECT_EQ(tarn_try_send_reliable(session, message.data(), 1), 0);
      EXPECT_TRUE(become_whole(numbers)) << size << " bytes, allocation " << k;
      tarn_set_output_callback(session, discard, nullptr);
      tarn_destroy(session);
    }
    EXPECT_GT(k, 4) << "no allocation failed";
  }
}

// What waits leaves in the end, wherever the failure was; the acknowledgement comes again.
TEST(FailedAllocation, KeepsWhatWaitsForRoom) {
  tarn_init();
  std::list<Numbers> kept;
  bool done = false;
  long k = 0;
  for (; !done; ++k) {
    void* const session = tarn_create();
    Numbers& numbers = kept.emplace_back();
    tarn_set_output_callback(session, &Numbers::add, &numbers);
    tarn_set_option(session, TARN_OPTION_SEND_WINDOW, 1);
    tarn_set_option(session, TARN_OPTION_SEND_QUEUE, 100'000);
    const std::vector<char> message(20'000, 'x');
    EXPECT_EQ(tarn_try_send_reliable(session, message.data(), message.size()), 0);
    char una[] = {'$', 0, 0x0F, 0, 2, 0, 0};
    const auto input = [&] { tarn_input(session, una, sizeof una); };
    done = survives(k, input);
    for (una[6] = 0; una[6] < 15; ++una[6]) input();
    const TarnStats after = stats_of(session);
    EXPECT_EQ(after.queued_bytes + after.outstanding_segments, 0u) << "allocation " << k;
    EXPECT_EQ(after.segments_sent, 15u) << "allocation " << k;
    tarn_set_output_callback(session, discard, nullptr);
    tarn_destroy(session);
  }
  EXPECT_GT(k, 1) << "no allocation failed";
}

// A peer that has said its last word does not bring on what waits; the next send does, or a datagram
// with nothing in it.
TEST(FailedAllocation, LeavesNobodyWaitingWithNothingUnderWay) {
  tarn_init();
  for (const bool sends : {false, true}) {
    bool done = false;
    long k = 0;
    for (; !done; ++k) {
      void* const session = tarn_create();
      tarn_set_output_callback(session, discard, nullptr);
      tarn_set_option(session, TARN_OPTION_SEND_WINDOW, 1);
      tarn_set_option(session, TARN_OPTION_SEND_QUEUE, 1000);
      for (int i = 0; i < 3; ++i) EXPECT_EQ(tarn_try_send_reliable(session, "x", 1), 0);
      char una[] = {'$', 0, 0x0F, 0, 2, 0, 0};
      done = survives(k, [&] { tarn_input(session, una, sizeof una); });
      if (sends) {
        EXPECT_EQ(tarn_try_send_reliable(session, "x", 1), 0);
      } else {
        tarn_input(session, una, 2);
      }
      EXPECT_EQ(stats_of(session).outstanding_segments, 1u) << "allocation " << k;
      tarn_destroy(session);
    }
    EXPECT_GT(k, 1) << "no allocation failed";
  }
}

int add_size(char*, int len, void* sizes) {
  const Spared spared;
  static_cast<std::vector<int>*>(sizes)->push_back(len);
  return 0;
}

std::vector<char> reliable(unsigned char flag, unsigned char seq, size_t size) {
  const size_t length = size + 2;
  std::vector<char> bytes{'$',
                          0,
                          static_cast<char>(flag),
                          static_cast<char>(length >> 8),
                          static_cast<char>(length),
                          0,
                          static_cast<char>(seq)};
  bytes.resize(bytes.size() + size, 'x');
  return bytes;
}

// Each datagram comes again if it met a failure, as it would from a peer.
TEST(FailedAllocation, LosesNothingOfWhatIsReceived) {
  tarn_init();
  std::vector<std::vector<char>> datagrams{
      reliable(2, 0, 1000), reliable(1, 1, 500), reliable(3, 4, 30), reliable(3, 3, 4000),
      reliable(3, 2, 5000), reliable(2, 5, 10),  reliable(1, 7, 20), reliable(0, 6, 30)};
  bool done = false;
  long k = 0;
  for (; !done; ++k) {
    done = true;
    void* const session = tarn_create();
    std::vector<int> sizes;
    tarn_set_recv_reliable_callback(session, add_size, &sizes);
    for (std::vector<char>& each : datagrams) {
      const auto input = [&] { tarn_input(session, each.data(), static_cast<int>(each.size())); };
      if (survives(k, input)) continue;
      done = false;
      input();
    }
    EXPECT_EQ(sizes, (std::vector<int>{1500, 5000, 4000, 30, 60})) << "allocation " << k;
    tarn_destroy(session);
  }
  EXPECT_GT(k, 2) << "no allocation failed";
}

// The same while the session is paused, and when it is resumed.
TEST(FailedAllocation, LosesNothingOfWhatComesToAPausedSession) {
  tarn_init();
  std::vector<std::vector<char>> datagrams{reliable(2, 0, 1000), reliable(1, 1, 500),
                                           reliable(3, 3, 4000), reliable(3, 2, 5000)};
  bool done = false;
  long k = 0;
  for (; !done; ++k) {
    done = true;
    void* const session = tarn_create();
    std::vector<int> sizes;
    tarn_set_recv_reliable_callback(session, add_size, &sizes);
    const auto pause = [&](int on) {
      const auto call = [&] { tarn_pause_receive(session, on); };
      if (survives(k, call)) return;
      done = false;
      call();
    };
    pause(1);
    for (std::vector<char>& each : datagrams) {
      const auto input = [&] { tarn_input(session, each.data(), static_cast<int>(each.size())); };
      if (survives(k, input)) continue;
      done = false;
      input();
    }
    EXPECT_TRUE(sizes.empty());
    pause(0);
    EXPECT_EQ(sizes, (std::vector<int>{1500, 5000, 4000})) << "allocation " << k;
    tarn_destroy(session);
  }
  EXPECT_GT(k, 2) << "no allocation failed";
}

}  // namespace

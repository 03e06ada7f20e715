// How much a call may allocate: what it keeps, and nothing besides. A program of its own, since it
// replaces operator new.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tarn/tarn.h"

namespace {

thread_local bool counting = false;
thread_local size_t allocations = 0;
thread_local size_t allocated_bytes = 0;
std::atomic<long> live_blocks{0};  // of all threads

}  // namespace

void* operator new(size_t size) {
  if (counting) {
    ++allocations;
    allocated_bytes += size;
  }
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

}  // namespace

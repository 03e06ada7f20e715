// Many threads inside the library at once. What is asserted here is little; the thread and address
// sanitizers see the rest.
#include <array>
#include <atomic>
#include <random>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Concurrency = RealTimeFixture;

namespace {

constexpr int kThreads = 8;
constexpr int kSlots = 32;

// Stale handles are part of the exercise: a slot keeps the last handle that was stored in it.
struct Slots {
  std::array<std::atomic<void*>, kSlots> handles{};
  // One feeder at a time per slot.
  std::array<std::atomic_flag, kSlots> feeding{};
  std::atomic<int> outputs{0};
};

int count_output(char* data, int len, void* slots) {
  if (len > 2 && data[0] == '$') ++static_cast<Slots*>(slots)->outputs;
  return 0;
}
int count_received(char*, int, void*) { return 0; }
int count_error(TarnError, void*) { return 0; }

void set_callbacks(void* session, Slots& slots) {
  tarn_set_output_callback(session, count_output, &slots);
  tarn_set_recv_reliable_callback(session, count_received, &slots);
  tarn_set_recv_unreliable_callback(session, count_received, &slots);
  tarn_set_error_callback(session, count_error, &slots);
}

void replace(Slots& slots, size_t slot) {
  void* const fresh = tarn_create();
  set_callbacks(fresh, slots);
  void* const old = slots.handles[slot].exchange(fresh);
  if (old != nullptr) tarn_destroy(old);
}

void feed_one(Slots& slots, size_t slot, std::mt19937& random) {
  if (slots.feeding[slot].test_and_set()) return;
  const auto number = static_cast<uint16_t>(random() % 40);
  feed(slots.handles[slot], datagram({reliable(number, {1, 2}), ack({number}), una(number),
                                      unreliable({1}), conv(number)}));
  slots.feeding[slot].clear();
}

void work(Slots& slots, unsigned seed, int steps) {
  std::mt19937 random(seed);
  char buffer[3000 + 12] = {};
  for (int step = 0; step < steps; ++step) {
    const size_t slot = random() % kSlots;
    void* const session = slots.handles[slot];
    switch (random() % 12) {
      case 0:
        replace(slots, slot);
        break;
      case 1:
        tarn_send_reliable(session, buffer, 3000);
        break;
      case 2:
        tarn_send_reliable(session, buffer, 10);
        break;
      case 3:
        tarn_send_unreliable(session, buffer, 100);
        break;
      case 4:
        tarn_send_unreliable_nocp(session, buffer, 100);
        break;
      case 5:
        set_callbacks(session, slots);
        break;
      case 6:
        tarn_set_output_callback(session, nullptr, nullptr);
        break;
      case 7:
        tarn_set_conv(session, tarn_get_conv(session) + 1);
        break;
      case 8:
        tarn_destroy(session);
        break;
      case 9:
        tarn_update();
        break;
      case 10:
        tarn_check_update_ms();
        break;
      default:
        feed_one(slots, slot, random);
        break;
    }
  }
}

}  // namespace

TEST_F(Concurrency, EightThreadsOn32Sessions) {
  // A stale handle may have become a living session again by the time that it is used, also one of
  // another slot; that is as good as any.
  Slots slots;
  for (size_t slot = 0; slot < kSlots; ++slot) replace(slots, slot);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&slots, i] { work(slots, i, 3000); });
  }

  for (std::thread& each : threads) each.join();

  for (const auto& handle : slots.handles) tarn_destroy(handle);
  settle();
  EXPECT_GT(slots.outputs, 0);
}

TEST_F(Concurrency, SettingsAndLogCallbacksMayChangeWhileSessionsRun) {
  Slots slots;
  for (size_t slot = 0; slot < kSlots; ++slot) replace(slots, slot);
  std::atomic<bool> done{false};
  std::thread changer([&done] {
    unsigned i = 0;
    while (!done) {
      ++i;
      tarn_config_mtu(100 + i % 1400);
      tarn_config_rtx_timeout(20 + i % 50);
      tarn_config_active_timeout(i % 2 == 0 ? 1 : 5000);
      tarn_config_send_window_size(i % 64);
      tarn_config_recv_window_size(i % 64);
      tarn_config_thread_safe(i % 2 == 0);
      tarn_set_log_callback(
          static_cast<int>(i % 6), i % 3 == 0 ? nullptr : +[](const char*) {});
      tarn_set_log_callback2(
          static_cast<int>(i % 6), i % 5 == 0 ? nullptr : +[](int, const char*) {});
      tarn_init();
      tarn_fini();
    }
  });
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 3; ++i) {
    threads.emplace_back([&slots, i] { work(slots, 100 + i, 2000); });
  }

  for (std::thread& each : threads) each.join();
  done = true;
  changer.join();

  tarn_set_log_callback(0, nullptr);
  tarn_set_log_callback2(0, nullptr);
  for (const auto& handle : slots.handles) tarn_destroy(handle);
  settle();
}

TEST_F(Concurrency, PiecesOfAMessageStayTogetherWhenManyThreadsSend) {
  tarn_config_mtu(10);
  tarn_config_send_window_size(30000);
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;
  std::vector<std::thread> threads;
  for (unsigned char i = 0; i < 4; ++i) {
    threads.emplace_back([&a, i] {
      for (size_t n = 0; n < 300; ++n) a.send(Bytes(15 + n % 40, i));
    });
  }
  for (std::thread& each : threads) each.join();

  // The first emission of each number, put in order: what any receiver makes of them.
  std::vector<WireSegment> in_order(65536);
  for (const WireSegment& one : segments_of_type(a.sent.all(), kReliable))
    in_order[one.seq()] = one;
  size_t messages = 0;
  Bytes message;
  for (const WireSegment& one : in_order) {
    if (one.body.empty()) break;
    EXPECT_EQ((one.flag & 2) != 0, message.empty()) << one.seq();
    const Bytes payload = one.payload();
    message.insert(message.end(), payload.begin(), payload.end());
    if ((one.flag & 1) == 0) continue;
    EXPECT_EQ(message, Bytes(message.size(), message[0]));
    message.clear();
    ++messages;
  }
  EXPECT_EQ(messages, 4u * 300);
}

namespace {

// Records what a session sends, and has another message of it sent while its first datagram is on
// its way out: from inside the callback, or by another thread that the callback waits for.
struct Interrupted {
  void* session = nullptr;
  bool by_another_thread = false;
  bool is_interrupted = false;
  DatagramRecorder sent;

  static int on_data(char* data, int len, void* user) {
    auto* const self = static_cast<Interrupted*>(user);
    DatagramRecorder::on_data(data, len, &self->sent);
    if (self->is_interrupted) return 0;
    self->is_interrupted = true;
    if (self->by_another_thread) {
      std::thread([self] { self->send(); }).join();
    } else {
      self->send();
    }
    return 0;
  }
  // In three pieces at an mtu of 10.
  void send() {
    char message[25] = {};
    tarn_send_reliable(session, message, sizeof message);
  }
};

void expect_unbroken_runs(bool by_another_thread) {
  tarn_config_mtu(10);
  Endpoint a;
  Interrupted plan;
  plan.session = a.handle();
  plan.by_another_thread = by_another_thread;
  tarn_set_output_callback(a.handle(), Interrupted::on_data, &plan);

  plan.send();
  tarn_set_output_callback(a.handle(), nullptr, nullptr);

  std::vector<int> numbers;
  std::vector<int> flags;
  for (const WireSegment& one : segments_of_type(plan.sent.all(), kReliable)) {
    numbers.push_back(one.seq());
    flags.push_back(one.flag);
  }
  ASSERT_GE(numbers.size(), 6u);
  numbers.resize(6);  // a re-send may have followed
  flags.resize(6);
  EXPECT_EQ(numbers, (std::vector<int>{0, 3, 4, 5, 1, 2}));
  EXPECT_EQ(flags, (std::vector<int>{2, 2, 0, 1, 0, 1}));
}

}  // namespace

TEST_F(Concurrency, AMessageSentFromInsideAnotherDoesNotBreakItsNumbers) {
  expect_unbroken_runs(false);
}

TEST_F(Concurrency, AMessageOfAnotherThreadDoesNotBreakTheNumbersOfOneUnderWay) {
  expect_unbroken_runs(true);
}

TEST_F(Concurrency, EveryThreadDestroysTheSameSession) {
  for (int round = 0; round < 200; ++round) {
    void* const session = tarn_create();
    std::vector<std::thread> threads;
    std::atomic<int> first{0};
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] { first += tarn_destroy(session) == 0; });
    }
    for (std::thread& each : threads) each.join();
    EXPECT_GE(first, 1);
  }
  settle();
}

TEST_F(Concurrency, ASessionMayBeDestroyedWhileOthersAreInside) {
  for (int round = 0; round < 50; ++round) {
    Slots slots;
    replace(slots, 0);
    void* const session = slots.handles[0];
    std::atomic<bool> done{false};
    std::thread sender([&] {
      char message[3000] = {};
      while (!done) tarn_send_reliable(session, message, sizeof message);
    });
    std::thread feeder([&] {
      uint16_t number = 0;
      while (!done) feed(session, datagram({reliable(number++, {1}), unreliable({2}), una(9)}));
    });

    wait_until([&] { return slots.outputs > 3; });
    tarn_destroy(session);
    EXPECT_TRUE(wait_until_gone(session));

    done = true;
    sender.join();
    feeder.join();
    settle();
  }
}

TEST_F(Concurrency, UpdateBesideTheWorkerLosesNothing) {
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;
  a.send("x");
  std::atomic<bool> done{false};
  std::vector<std::thread> updaters;
  for (int i = 0; i < 2; ++i) {
    updaters.emplace_back([&done] {
      while (!done) tarn_update();
    });
  }

  const bool re_sent = wait_until([&] { return a.sent.count() >= 4; });

  done = true;
  for (std::thread& each : updaters) each.join();
  EXPECT_TRUE(re_sent);
  // Filing and deleting still come through.
  settle();
}

// control.h from several threads at once: nothing lost, nothing twice, nobody left waiting.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "tests/api/contract_kit.h"

using namespace tarn_test;

namespace {

// Carries one session's datagrams to another, or acknowledges them itself, on a thread of its own:
// the one feeder of what it feeds.
class Carrier {
 public:
  // Acknowledges each reliable segment of `from` to `from`.
  explicit Carrier(void* from) : from_(from), thread_([this] { run(); }) {
    tarn_set_output_callback(from, on_data, this);
  }
  ~Carrier() { stop(); }
  void stop() {
    {
      const std::lock_guard<std::mutex> hold(guard_);
      done_ = true;
    }
    more_.notify_one();
    if (thread_.joinable()) thread_.join();
  }
  // The payloads by number.
  std::map<uint64_t, WireSegment> seen() {
    const std::lock_guard<std::mutex> hold(guard_);
    return seen_;
  }

 private:
  static int on_data(char* data, int len, void* self) {
    auto* carrier = static_cast<Carrier*>(self);
    {
      const std::lock_guard<std::mutex> hold(carrier->guard_);
      carrier->waiting_.emplace_back(data, data + len);
    }
    carrier->more_.notify_one();
    return 0;
  }
  void run() {
    std::unique_lock<std::mutex> hold(guard_);
    for (;;) {
      more_.wait(hold, [this] { return done_ || !waiting_.empty(); });
      if (waiting_.empty()) return;
      const Bytes next = waiting_.front();
      waiting_.pop_front();
      std::vector<uint16_t> numbers;
      for (const WireSegment& one : segments_of(next)) {
        if (one.type != kReliable) continue;
        numbers.push_back(one.seq());
        const auto ahead = static_cast<int16_t>(one.seq() - static_cast<uint16_t>(highest_));
        seen_.emplace(highest_ + static_cast<uint64_t>(static_cast<int64_t>(ahead)), one);
        if (ahead > 0) highest_ += static_cast<uint64_t>(ahead);
      }
      if (numbers.empty()) continue;
      hold.unlock();
      feed(from_, datagram({ack(numbers)}));
      hold.lock();
    }
  }

  void* const from_;
  std::mutex guard_;
  std::condition_variable more_;
  std::deque<Bytes> waiting_;
  bool done_ = false;
  uint64_t highest_ = 1u << 20;
  std::map<uint64_t, WireSegment> seen_;
  std::thread thread_;
};

// Waits for the writable callback, for at most ten seconds.
class Gate {
 public:
  static void on_writable(void*, void* self) {
    auto* gate = static_cast<Gate*>(self);
    const std::lock_guard<std::mutex> hold(gate->guard_);
    ++gate->opened_;
    gate->changed_.notify_all();
  }
  uint64_t opened() {
    const std::lock_guard<std::mutex> hold(guard_);
    return opened_;
  }
  bool wait_beyond(uint64_t before) {
    std::unique_lock<std::mutex> hold(guard_);
    return changed_.wait_for(hold, std::chrono::seconds(10), [&] { return opened_ > before; });
  }

 private:
  std::mutex guard_;
  std::condition_variable changed_;
  uint64_t opened_ = 0;
};

// A message that names its thread and its place in the thread's order; its bytes follow from both.
Bytes marked(unsigned thread, unsigned place) {
  Bytes message = pattern(4 + (thread * 7 + place * 13) % 60, thread * 100000 + place);
  message[0] = static_cast<unsigned char>(thread);
  message[1] = static_cast<unsigned char>(place >> 16);
  message[2] = static_cast<unsigned char>(place >> 8);
  message[3] = static_cast<unsigned char>(place);
  return message;
}

// Checks that `seen` is every message of every thread once, whole, and each thread's in its order.
void expect_all(const std::map<uint64_t, WireSegment>& seen, unsigned threads, unsigned each) {
  std::vector<unsigned> next(threads, 0);
  Bytes growing;
  uint64_t expected = seen.empty() ? 0 : seen.begin()->first;
  for (const auto& [number, one] : seen) {
    ASSERT_EQ(number, expected++);
    ASSERT_EQ((one.flag & kFirst) != 0, growing.empty());
    const Bytes payload = one.payload();
    growing.insert(growing.end(), payload.begin(), payload.end());
    if ((one.flag & kLast) == 0) continue;
    const unsigned thread = growing.at(0);
    ASSERT_LT(thread, threads);
    ASSERT_EQ(growing, marked(thread, next[thread]));
    ++next[thread];
    growing.clear();
  }
  for (const unsigned count : next) EXPECT_EQ(count, each);
}

class ContractThreads : public RealTimeFixture {
 protected:
  // Threads that send until each has got `each` messages accepted; waits for the gate when refused.
  void flood(void* session, Gate& gate, unsigned threads, unsigned each, bool plain_too) {
    std::vector<std::thread> all;
    for (unsigned thread = 0; thread < threads; ++thread) {
      all.emplace_back([&, thread] {
        for (unsigned place = 0; place < each; ++place) {
          const Bytes message = marked(thread, place);
          if (plain_too && place % 3 == 0) {
            Bytes copy = message;
            tarn_send_reliable(session, reinterpret_cast<char*>(copy.data()),
                               static_cast<int>(copy.size()));
            continue;
          }
          for (;;) {
            const uint64_t before = gate.opened();
            const int result = try_send(session, message);
            if (result == 0) break;
            ASSERT_EQ(result, -EAGAIN);
            ASSERT_TRUE(gate.wait_beyond(before)) << "nobody was told of the room";
          }
        }
      });
    }
    for (std::thread& one : all) one.join();
  }
  bool drained(void* session) {
    return wait_until([session] {
      const TarnStats stats = stats_of(session);
      return stats.outstanding_segments == 0 && stats.queued_messages == 0;
    });
  }
};

}  // namespace

TEST_F(ContractThreads, NoRefusalIsForgotten) {
  for (const int window : {1, 2, 3, 7}) {
    for (const int queue : {0, 70, 500}) {
      for (const int peer : {0, 1, -1}) {
        SCOPED_TRACE(text("%d %d %d", window, queue, peer));
        Endpoint a;
        Gate& gate = *new Gate;
        set_option(a.handle(), TARN_OPTION_ACTIVE_TIMEOUT_MS, 2147483647);
        set_option(a.handle(), TARN_OPTION_MTU, 64);
        set_option(a.handle(), TARN_OPTION_SEND_WINDOW, window);
        set_option(a.handle(), TARN_OPTION_SEND_QUEUE, queue);
        set_option(a.handle(), TARN_OPTION_PEER_WINDOW, peer);
        tarn_set_writable_callback(a.handle(), Gate::on_writable, &gate);
        Carrier carrier(a.handle());
        flood(a.handle(), gate, 2, 300, false);
        if (HasFailure()) abort();
        EXPECT_TRUE(drained(a.handle()));
        tarn_set_writable_callback(a.handle(), nullptr, nullptr);
        a.destroy();
        carrier.stop();
        expect_all(carrier.seen(), 2, 300);
        delete &gate;
      }
    }
  }
}

TEST_F(ContractThreads, BothKindsOfSendTakeTheirPlacesInTheOrderOfTheCalls) {
  Endpoint a;
  Gate gate;
  set_option(a.handle(), TARN_OPTION_MTU, 20);
  set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 16);
  // A plain message that met a full queue would be lost to this test.
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1 << 20);
  tarn_set_writable_callback(a.handle(), Gate::on_writable, &gate);
  Carrier carrier(a.handle());
  flood(a.handle(), gate, 3, 2000, true);
  EXPECT_TRUE(drained(a.handle()));
  EXPECT_EQ(stats_of(a.handle()).messages_sent, 6000u);
  a.destroy();
  carrier.stop();
  expect_all(carrier.seen(), 3, 2000);
}

TEST_F(ContractThreads, OptionsChangedMeanwhileLoseNothing) {
  Endpoint a;
  Gate gate;
  set_option(a.handle(), TARN_OPTION_MTU, 20);
  set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 300);
  tarn_set_writable_callback(a.handle(), Gate::on_writable, &gate);
  Carrier carrier(a.handle());
  std::atomic<bool> done{false};
  std::thread changer([&] {
    std::mt19937 random(7);
    while (!done) {
      switch (random() % 3) {
        case 0:
          tarn_set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 4 + random() % 30);
          break;
        case 1:
          tarn_set_option(a.handle(), TARN_OPTION_SEND_QUEUE, random() % 500);
          break;
        default:
          tarn_set_option(a.handle(), TARN_OPTION_PEER_WINDOW,
                          static_cast<long long>(random() % 40) - 1);
      }
      tarn_send_room(a.handle());
      std::this_thread::yield();
    }
  });
  flood(a.handle(), gate, 3, 1500, false);
  done = true;
  changer.join();
  EXPECT_TRUE(drained(a.handle()));
  a.destroy();
  carrier.stop();
  expect_all(carrier.seen(), 3, 1500);
}

TEST_F(ContractThreads, ASessionMayGoWhileOthersUseIt) {
  for (int round = 0; round < 40; ++round) {
    Endpoint a;
    void* const session = a.handle();
    Gate& gate = *new Gate;
    set_option(session, TARN_OPTION_SEND_WINDOW, 3);
    set_option(session, TARN_OPTION_SEND_QUEUE, 1000);
    tarn_set_writable_callback(session, Gate::on_writable, &gate);
    Carrier carrier(session);
    std::atomic<int> tries{0};
    std::vector<std::thread> users;
    for (unsigned user = 0; user < 2; ++user) {
      users.emplace_back([&, user] {
        for (int result = 0; result != -EBADF;) {
          result = try_send(session, marked(user, 1));
          tarn_send_room(session);
          tarn_pause_receive(session, tries % 2);
          TarnStats stats;
          tarn_get_stats(session, &stats, sizeof stats);
          ++tries;
        }
      });
    }
    while (tries < 50) std::this_thread::yield();
    a.destroy();
    for (std::thread& one : users) one.join();
    carrier.stop();
    delete &gate;
  }
}

TEST_F(ContractThreads, TheFirstCallMayComeInTheMiddleOfAConversation) {
  for (int round = 0; round < 60; ++round) {
    tarn_config_send_window_size(100000);
    Endpoint a;
    Carrier carrier(a.handle());
    std::atomic<int> sent{0};
    std::thread sender([&] {
      for (int i = 0; i < 300; ++i) {
        a.send(marked(0, static_cast<unsigned>(i)));
        ++sent;
      }
    });
    while (sent < round * 4) std::this_thread::yield();
    if (round % 2 == 0) {
      stats_of(a.handle());
    } else {
      set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 1 << 20);
    }
    sender.join();
    EXPECT_TRUE(drained(a.handle())) << round << ": " << stats_of(a.handle()).outstanding_segments;
    set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 10);
    set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 0);
    EXPECT_EQ(tarn_send_room(a.handle()), 14000u);
    a.destroy();
    carrier.stop();
    expect_all(carrier.seen(), 1, 300);
    if (HasFailure()) return;
  }
}

TEST_F(ContractThreads, ResumingBesideTheFeederKeepsTheOrder) {
  Endpoint a;
  set_option(a.handle(), TARN_OPTION_RECV_WINDOW, 4096);
  struct Reader {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<Bytes> got;
    static int on_data(char* data, int len, void* self) {
      auto* reader = static_cast<Reader*>(self);
      if (reader->inside.fetch_add(1) != 0) {
        ++reader->overlaps;
      } else {
        reader->got.emplace_back(data, data + len);
      }
      std::this_thread::yield();
      --reader->inside;
      return 0;
    }
  } reader;
  tarn_set_recv_reliable_callback(a.handle(), Reader::on_data, &reader);
  std::atomic<bool> done{false};
  std::thread toggler([&] {
    while (!done) {
      tarn_pause_receive(a.handle(), 1);
      std::this_thread::yield();
      tarn_pause_receive(a.handle(), 0);
    }
  });
  std::vector<Bytes> expected;
  for (unsigned i = 0; i < 3000; ++i) expected.push_back(marked(0, i));
  for (unsigned i = 0; i < 3000; i += 3) {
    for (const unsigned k : {2, 1, 0}) {
      a.input(datagram({reliable(static_cast<uint16_t>(i + k), expected[i + k])}));
    }
  }
  done = true;
  toggler.join();
  tarn_pause_receive(a.handle(), 0);
  EXPECT_EQ(reader.overlaps, 0) << "two messages were delivered at once";
  EXPECT_EQ(reader.got, expected);
  tarn_set_recv_reliable_callback(a.handle(), nullptr, nullptr);
  a.destroy();
}

// tarn_update and tarn_check_update_ms: the worker's timers seen and driven from outside.
#include <pthread.h>

#include <atomic>
#include <functional>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

using Update = SessionFixture;
using CheckUpdateMs = SessionFixture;

TEST_F(CheckUpdateMs, IsTheTimeToTheNextTimer) {
  Endpoint a;
  settle();
  EXPECT_EQ(tarn_check_update_ms(), 30);
}

TEST_F(CheckUpdateMs, IsTheLeastOverAllPeriods) {
  tarn_config_rtx_timeout(7);
  Endpoint a;
  settle();
  EXPECT_EQ(tarn_check_update_ms(), 7);
}

TEST_F(CheckUpdateMs, IsMeasuredFromTheLastTurn) {
  Endpoint a;
  settle();

  clock_.advance_ms(10);
  tarn_update();

  ASSERT_TRUE(wait_until([] {
    tarn_update();
    return tarn_check_update_ms() == 20;
  }));
}

TEST_F(CheckUpdateMs, Is10000WithoutTimers) {
  Endpoint a;
  a.destroy();

  // What was cancelled leaves the queue when it falls due.
  EXPECT_TRUE(wait_until([this] {
    clock_.advance_ms(20000);
    tarn_update();
    return tarn_check_update_ms() == 10000;
  }));
}

TEST_F(Update, RunsDueTimersOnTheCallingThread) {
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;
  a.send("x");
  settle();

  // The worker may be quicker now and then.
  EXPECT_TRUE(wait_until([&] {
    clock_.advance_ms(120);
    tarn_update();
    return a.sent.last_thread() == std::this_thread::get_id() && a.sent.count() > 1;
  }));
}

TEST_F(Update, RunsNothingThatIsNotDue) {
  Endpoint a;
  a.send("x");
  settle();

  for (int i = 0; i < 1000; ++i) tarn_update();

  EXPECT_EQ(a.sent.count(), 1u);
}

TEST_F(Update, ReturnsAtOnceInsideATurn) {
  struct Nested {
    VirtualClock* clock;
    std::atomic<int> depth{0};
    std::atomic<int> deepest{0};
    std::atomic<int> calls{0};
    static int on_data(char*, int, void* self) {
      auto* nested = static_cast<Nested*>(self);
      const int depth = ++nested->depth;
      if (depth > nested->deepest) nested->deepest = depth;
      if (++nested->calls < 20) {
        nested->clock->advance_ms(120);
        tarn_update();
      }
      --nested->depth;
      return 0;
    }
  } nested;
  nested.clock = &clock_;
  Endpoint a;
  a.send("x");
  tarn_set_output_callback(a.handle(), Nested::on_data, &nested);

  advance(60);

  EXPECT_TRUE(wait_until([&] { return nested.calls >= 20; }));
  EXPECT_EQ(nested.deepest, 1);
  a.destroy();
}

TEST_F(Update, InsideAnUpdateReturnsAtOnceToo) {
  struct Nested {
    std::atomic<int> depth{0};
    std::atomic<int> deepest{0};
    std::atomic<int> calls{0};
    static int on_data(char*, int, void* self) {
      auto* nested = static_cast<Nested*>(self);
      const int depth = ++nested->depth;
      if (depth > nested->deepest) nested->deepest = depth;
      ++nested->calls;
      tarn_update();
      --nested->depth;
      return 0;
    }
  } nested;
  Endpoint a;
  a.send("x");
  tarn_set_output_callback(a.handle(), Nested::on_data, &nested);
  settle();

  EXPECT_TRUE(wait_until([&] {
    clock_.advance_ms(120);
    tarn_update();
    return nested.calls >= 20;
  }));

  EXPECT_EQ(nested.deepest, 1);
  a.destroy();
}

TEST_F(Update, FromAReceiveCallbackRunsTheTimersThere) {
  struct Updater {
    VirtualClock* clock;
    static int on_data(char*, int, void* self) {
      static_cast<Updater*>(self)->clock->advance_ms(120);
      tarn_update();
      return 0;
    }
  } updater{&clock_};
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;
  a.send("x");
  tarn_set_recv_unreliable_callback(a.handle(), Updater::on_data, &updater);
  settle();

  EXPECT_TRUE(wait_until([&] {
    a.input(datagram({unreliable({1})}));
    return a.sent.count() > 1 && a.sent.last_thread() == std::this_thread::get_id();
  }));
}

TEST_F(Update, NeverRunsBesideTheWorkersTurn) {
  struct Watcher {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> calls{0};
    static int on_data(char*, int, void* self) {
      auto* watcher = static_cast<Watcher*>(self);
      if (++watcher->inside > 1) ++watcher->overlaps;
      std::this_thread::yield();
      --watcher->inside;
      ++watcher->calls;
      return 0;
    }
  } watcher;
  tarn_config_active_timeout(0xFFFFFFFF);
  Endpoint a;
  a.send("x");
  tarn_set_output_callback(a.handle(), Watcher::on_data, &watcher);
  std::atomic<bool> done{false};
  std::thread updater([&] {
    while (!done) tarn_update();
  });

  for (int i = 0; i < 300; ++i) advance(120);

  done = true;
  updater.join();
  EXPECT_GE(watcher.calls, 299);
  EXPECT_EQ(watcher.overlaps, 0);
  a.destroy();
}

namespace {

// Three sessions that re-send at the same times, and leave updates from inside their callbacks, as
// often as they are told to.
class LeftUpdate : public SessionFixture {
 protected:
  struct Session {
    LeftUpdate* test = nullptr;
    std::atomic<int> emissions{0};
    Endpoint endpoint;
  };

  LeftUpdate() {
    tarn_config_active_timeout(0xFFFFFFFF);
    for (Session& each : sessions_) {
      each.test = this;
      tarn_set_output_callback(each.endpoint.handle(), on_data, &each);
      each.endpoint.send("x");
    }
    settle();
  }
  ~LeftUpdate() override {
    for (Session& each : sessions_) each.endpoint.destroy();
  }

  // Moves the clock on by re-send after re-send, each with an update of which the worker does not
  // get in front, until updates have been left `count` times.
  void leave(int count, const std::function<void()>& update) {
    const int wanted = left_ + count;
    for (int i = 0; i < 10000 && left_ < wanted; ++i) {
      clock_.advance_ms(120);
      ++resends_;
      update();
      settle();
    }
    ASSERT_EQ(left_, wanted) << "the worker was always quicker";
  }

  // Each has been re-sent each time, and once.
  void expect_resends() {
    for (const Session& each : sessions_) EXPECT_EQ(each.emissions, 1 + resends_);
  }

  std::atomic<pthread_t> leaver_{};  // the thread that does not come back
  std::function<void()> way_out_;
  int resends_ = 0;
  std::atomic<int> left_{0};
  Session sessions_[3];

 private:
  static int on_data(char*, int, void* self) {
    Session& session = *static_cast<Session*>(self);
    ++session.emissions;
    if (session.test->leaver_ == pthread_self()) {
      ++session.test->left_;
      session.test->way_out_();
    }
    return 0;
  }
};

struct Left {};

}  // namespace

TEST_F(LeftUpdate, ByAnExceptionGoesThroughToTheCaller) {
  way_out_ = [] { throw Left(); };
  leaver_ = pthread_self();
  int caught = 0;

  leave(20, [&] {
    try {
      tarn_update();
    } catch (const Left&) {
      ++caught;
    }
  });

  EXPECT_EQ(caught, left_);
  expect_resends();
}

TEST_F(LeftUpdate, ByACancelledThreadEndsThatThreadOnly) {
  way_out_ = [] {
    pthread_cancel(pthread_self());
    pthread_testcancel();  // TSan loses track of a thread that leaves a system call in this way
  };

  leave(20, [this] {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void* leaver) -> void* {
          *static_cast<std::atomic<pthread_t>*>(leaver) = pthread_self();
          tarn_update();
          return nullptr;
        },
        &leaver_);
    pthread_join(thread, nullptr);
    leaver_ = pthread_t{};
  });

  expect_resends();
}

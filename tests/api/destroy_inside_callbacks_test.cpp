// A session destroyed inside its own callbacks, on every thread on which they run.
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

// Destroys a session the first time that it is called, and goes on using the handle.
struct Destroyer {
  explicit Destroyer(void* which) : session(which) {}

  void* session;
  std::atomic<int> calls{0};
  int result = 1;
  // What the handle was good for right after the destruction, inside the callback.
  unsigned conv_afterwards = 0;

  void act() {
    if (++calls != 1) return;
    char bytes[] = {'$', 0, 0x07, 0x00, 0x01, 'x'};
    result = tarn_destroy(session);
    conv_afterwards = tarn_get_conv(session);
    tarn_send_reliable(session, bytes, 3);
    tarn_send_unreliable(session, bytes, 3);
    tarn_input(session, bytes, sizeof bytes);
    tarn_set_output_callback(session, nullptr, nullptr);
    tarn_destroy(session);
  }
  static int on_data(char* data, int len, void* self) {
    static_cast<Destroyer*>(self)->act();
    // The bytes stay the callback's until it returns.
    for (int i = 0; i < len; ++i) data[i] = 0;
    return 0;
  }
  static int on_error(TarnError, void* self) {
    static_cast<Destroyer*>(self)->act();
    return 0;
  }
};

class DestroyInside : public SessionFixture {
 protected:
  DestroyInside() : session_(tarn_create()), destroyer_(session_) {
    tarn_set_conv(session_, 9);
    tarn_set_output_callback(session_, DatagramRecorder::on_data, &sent_);
  }
  ~DestroyInside() override {
    EXPECT_EQ(destroyer_.calls, 1);
    EXPECT_EQ(destroyer_.result, 0);
    EXPECT_TRUE(wait_until([this] { return tarn_get_conv(session_) == 0; }));
    settle();
    advance(500);
    // Nothing of the session runs any more.
    EXPECT_EQ(destroyer_.calls, 1);
  }

  void send(const Bytes& message) {
    Bytes copy = message;
    tarn_send_reliable(session_, reinterpret_cast<char*>(copy.data()),
                       static_cast<int>(copy.size()));
  }
  void on_output() { tarn_set_output_callback(session_, Destroyer::on_data, &destroyer_); }
  void on_error() { tarn_set_error_callback(session_, Destroyer::on_error, &destroyer_); }

  void* session_;
  Destroyer destroyer_;
  DatagramRecorder sent_;
};

}  // namespace

TEST_F(DestroyInside, OutputOfAReliableMessage) {
  on_output();
  send({1});
}

TEST_F(DestroyInside, OutputOfTheFirstPieceOfAMessage) {
  on_output();
  send(pattern(10000));
}

TEST_F(DestroyInside, OutputOfAnUnreliableMessage) {
  on_output();
  char message[] = "x";
  tarn_send_unreliable(session_, message, 1);
}

TEST_F(DestroyInside, OutputOfACopyFreeMessage) {
  on_output();
  char buffer[32] = {};
  tarn_send_unreliable_nocp(session_, buffer, 20);
}

TEST_F(DestroyInside, OutputOfAReSendOnTheWorker) {
  for (int i = 0; i < 10; ++i) send({1});
  on_output();
  advance(60);
  // On the worker the deletion runs inline.
  EXPECT_EQ(destroyer_.conv_afterwards, 0u);
}

TEST_F(DestroyInside, OutputOfFeedbackOnTheWorker) {
  on_output();
  feed(session_, datagram({reliable(0, {1})}));
  advance(50);
  EXPECT_EQ(destroyer_.conv_afterwards, 0u);
}

TEST_F(DestroyInside, OutputOfAReSendDuringAnUpdate) {
  send({1});
  on_output();
  settle();
  EXPECT_TRUE(wait_until([this] {
    clock_.advance_ms(120);
    tarn_update();
    return destroyer_.calls > 0;
  }));
}

TEST_F(DestroyInside, ReliableCallback) {
  tarn_set_recv_reliable_callback(session_, Destroyer::on_data, &destroyer_);
  feed(session_, datagram({reliable(0, {1}), reliable(1, {1}), unreliable({1}), una(0), bye()}));
}

TEST_F(DestroyInside, ReliableCallbackInTheMiddleOfARelease) {
  tarn_set_recv_reliable_callback(session_, Destroyer::on_data, &destroyer_);
  for (uint16_t n = 1; n < 20; ++n) feed(session_, datagram({reliable(n, {1})}));
  feed(session_, datagram({reliable(0, {1})}));
}

TEST_F(DestroyInside, UnreliableCallback) {
  tarn_set_recv_unreliable_callback(session_, Destroyer::on_data, &destroyer_);
  feed(session_, datagram({unreliable({1}), reliable(0, {1}), unreliable({1}), una(0), bye()}));
}

TEST_F(DestroyInside, ErrorCallbackOfAFullWindow) {
  tarn_config_send_window_size(0);
  on_error();
  send({1});
}

TEST_F(DestroyInside, ErrorCallbackOfAFullWindowInTheMiddleOfAMessage) {
  tarn_config_send_window_size(1);
  on_error();
  send(pattern(10000));
}

TEST_F(DestroyInside, ErrorCallbackOfARejectedSegment) {
  tarn_config_recv_window_size(0);
  on_error();
  feed(session_, datagram({reliable(5, {1}), reliable(6, {1})}));
}

TEST_F(DestroyInside, ErrorCallbackOfBye) {
  on_error();
  feed(session_, datagram({bye(), bye(), unreliable({1})}));
}

TEST_F(DestroyInside, ErrorCallbackOfSilenceOnTheWorker) {
  on_error();
  advance(5100);
  EXPECT_EQ(destroyer_.conv_afterwards, 0u);
}

namespace {

// Hands what it is given to another session.
struct Wire {
  void* to;
  static int on_data(char* data, int len, void* self) {
    tarn_input(static_cast<Wire*>(self)->to, data, len);
    return 0;
  }
};

}  // namespace

TEST_F(DestroyInside, ReceiveCallbackOnTheWorkerWhileItReSends) {
  Endpoint sender;
  for (int i = 0; i < 5; ++i) sender.send("x");
  Wire wire{session_};
  tarn_set_output_callback(sender.handle(), Wire::on_data, &wire);
  tarn_set_recv_reliable_callback(session_, Destroyer::on_data, &destroyer_);

  advance(60);

  EXPECT_EQ(destroyer_.conv_afterwards, 0u);
  sender.destroy();
}

TEST_F(DestroyInside, TheSenderFromTheReceiversCallback) {
  // The session that is destroyed is the one whose re-send is under way.
  Endpoint receiver;
  Wire wire{receiver.handle()};
  for (int i = 0; i < 5; ++i) send({1});
  tarn_set_output_callback(session_, Wire::on_data, &wire);
  tarn_set_recv_reliable_callback(receiver.handle(), Destroyer::on_data, &destroyer_);

  advance(60);

  EXPECT_EQ(destroyer_.conv_afterwards, 0u);
  receiver.destroy();
}

TEST_F(DestroyInside, AnotherSessionOfTheSamePass) {
  // Both are due in the same pass; the first destroys the second.
  Endpoint first;
  first.send("x");
  send({1});
  struct Other {
    void* session;
    Destroyer* destroyer;
    static int on_data(char* data, int len, void* self) {
      return Destroyer::on_data(data, len, static_cast<Other*>(self)->destroyer);
    }
  } other{session_, &destroyer_};
  tarn_set_output_callback(first.handle(), Other::on_data, &other);
  const size_t before = sent_.count();

  advance(60);

  // Made before the other one, this session is served first or last, but never after its end.
  EXPECT_LE(sent_.count(), before + 1);
  first.destroy();
}

TEST_F(DestroyInside, WithAWaitOnTheWorker) {
  struct Waiter {
    VirtualClock* clock;
    Destroyer* destroyer;
    static int on_data(char*, int, void* self) {
      auto* waiter = static_cast<Waiter*>(self);
      if (++waiter->destroyer->calls != 1) return 0;
      // The time that the wait is told is over when it begins.
      waiter->destroyer->result = tarn_wait_destroy(waiter->destroyer->session, 0);
      return 0;
    }
  } waiter{&clock_, &destroyer_};
  send({1});
  tarn_set_output_callback(session_, Waiter::on_data, &waiter);

  advance(60);
}

namespace {

std::atomic<Destroyer*> log_destroyer{nullptr};
std::atomic<const char*> log_trigger{nullptr};

void destroy_on_line(const char* line) {
  Destroyer* const destroyer = log_destroyer;
  const char* const trigger = log_trigger;
  if (destroyer == nullptr || std::string(line).find(trigger) == std::string::npos) return;
  log_destroyer = nullptr;
  destroyer->act();
}

}  // namespace

TEST_F(DestroyInside, LogCallback) {
  const char* const triggers[] = {" input len ",          " recv packet type: 0",
                                  " got reliable seq 0",  "recv window output seq 1",
                                  " recv reliable len 1", " send reliable len ",
                                  " output size ",        " send reliable seq "};
  for (const char* const trigger : triggers) {
    void* const session = tarn_create();
    tarn_set_conv(session, 9);
    tarn_set_output_callback(session, DatagramRecorder::on_data, &sent_);
    DatagramRecorder received;
    tarn_set_recv_reliable_callback(session, DatagramRecorder::on_data, &received);
    Destroyer destroyer(session);
    log_trigger = trigger;
    log_destroyer = &destroyer;
    tarn_set_log_callback(5, destroy_on_line);

    char message[] = "x";
    feed(session, datagram({reliable(1, {1}), reliable(0, {1}), unreliable({1})}));
    tarn_send_reliable(session, message, 1);

    EXPECT_EQ(destroyer.calls, 1) << trigger;
    tarn_set_log_callback(0, nullptr);
    EXPECT_TRUE(wait_until([session] { return tarn_get_conv(session) == 0; })) << trigger;
    settle();
  }
  destroyer_.act();
}

TEST_F(DestroyInside, LogCallbackBetweenGatheringAndSending) {
  feed(session_, datagram({reliable(0, {1})}));
  log_trigger = " feedback una ";
  log_destroyer = &destroyer_;
  tarn_set_log_callback(4, destroy_on_line);

  send({1});

  tarn_set_log_callback(0, nullptr);
  EXPECT_EQ(sent_.count(), 0u);
}

namespace {

// A session that is used by whoever sees it in the log, before tarn_create() has returned.
struct Early {
  VirtualClock* clock = nullptr;
  std::atomic<void*> handle{nullptr};
  std::atomic<int> emissions{0};
  std::atomic<bool> created{false};
  std::atomic<bool> destroyed{false};
  std::atomic<bool> gone{false};            // its destructor has run
  std::atomic<bool> gone_too_early{false};  // inside the re-send pass

  static int on_output(char*, int, void* self) {
    auto* const early = static_cast<Early*>(self);
    if (++early->emissions != 2) return 0;
    // The re-send pass, on the worker.
    wait_until([early] { return early->created.load(); });
    tarn_destroy(early->handle);
    early->gone_too_early = early->gone.load();
    early->destroyed = true;
    return 0;
  }

  void use() {
    char message[] = "x";
    tarn_set_output_callback(handle, &Early::on_output, this);
    tarn_send_reliable(handle, message, 1);
    // Until a re-send pass is under way.
    wait_until([this] {
      clock->advance_ms(30);
      return emissions >= 2;
    });
  }
};

Early* early = nullptr;

void use_early(const char* line) {
  void* seen = nullptr;
  if (early->handle == nullptr && sscanf(line, "tarn session start %p", &seen) == 1) {
    early->handle = seen;
    early->use();
  } else if (strstr(line, " destroyed") != nullptr && early->handle != nullptr &&
             strstr(line, text("tarn %p ", early->handle.load()).c_str()) != nullptr) {
    early->gone = true;
  }
}

using EarlyUse = SessionFixture;

}  // namespace

TEST_F(EarlyUse, ReSendPassThatBeganBeforeTheCreationEndedHoldsTheSession) {
  Early used;
  used.clock = &clock_;
  early = &used;
  tarn_set_log_callback(4, use_early);
  EXPECT_NE(tarn_create(), nullptr);
  used.created = true;
  EXPECT_TRUE(wait_until([&used] { return used.destroyed.load(); }));
  EXPECT_TRUE(wait_until([&used] { return used.gone.load(); }));
  EXPECT_FALSE(used.gone_too_early);
  tarn_set_log_callback(0, nullptr);
  settle();
}

namespace {

// Destroys another session when its own one hears of silence.
struct Rival {
  void* other = nullptr;
  std::atomic<int> calls{0};

  static int on_error(TarnError code, void* self) {
    auto* const rival = static_cast<Rival*>(self);
    EXPECT_EQ(code, TARN_ERROR_INACTIVE);
    ++rival->calls;
    EXPECT_EQ(tarn_destroy(rival->other), 0);
    return 0;
  }
};

using OneShotCycles = SessionFixture;

}  // namespace

// With an rtx timeout of 0 a cycle runs once; two that are due in the same turn have both been
// taken from the queue when the first one's callback frees the other session.
TEST_F(OneShotCycles, DueTogetherLeaveTheSessionAloneThatTheFirstDestroys) {
  tarn_config_rtx_timeout(0);
  tarn_config_active_timeout(100);
  void* const sessions[] = {tarn_create(), tarn_create()};
  Rival rivals[2];
  for (int i = 0; i < 2; ++i) {
    rivals[i].other = sessions[1 - i];
    tarn_set_error_callback(sessions[i], &Rival::on_error, &rivals[i]);
  }
  settle();
  advance(200);

  EXPECT_EQ(rivals[0].calls + rivals[1].calls, 1);
  const int survivor = rivals[0].calls == 1 ? 0 : 1;
  EXPECT_TRUE(wait_until_gone(sessions[1 - survivor]));
  EXPECT_EQ(tarn_destroy(sessions[survivor]), 0);
  EXPECT_TRUE(wait_until_gone(sessions[survivor]));
}

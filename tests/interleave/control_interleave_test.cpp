// Sessions under control: in every order of a few calls on them nobody who was refused is
// forgotten, nothing is lost and nothing comes twice. Steps are the library's locks and what
// callbacks do.
#include <errno.h>

#include <string>
#include <vector>

#include "tarn/control.h"
#include "tests/fuzz/support/stepped_worker.h"
#include "tests/interleave/explorer.h"
#include "tests/interleave/scenarios.h"

using namespace tarn_test;

namespace {

std::string una(char seq) { return std::string("$\0\x0f\0\x02\0", 6) + seq; }

std::string reliable(char seq, char byte) { return std::string("$\0\x03\0\x03\0", 6) + seq + byte; }

// A session whose worker stands still, and what comes out of it.
struct SessionScenario : Scenario {
  SessionScenario() : session(tarn_create()) {
    tarn_set_output_callback(session, on_output, this);
    tarn_set_recv_reliable_callback(session, on_reliable, this);
    tarn_set_error_callback(session, on_error, this);
  }
  ~SessionScenario() override { tarn_destroy(session); }

  void set(TarnOption option, long long value) {
    expect(tarn_set_option(session, option, value) == 0, "an option can be set");
  }
  void input(std::string datagram) {
    tarn_input(session, datagram.data(), static_cast<int>(datagram.size()));
  }
  // Whether it was taken.
  bool try_send() {
    const int result = tarn_try_send_reliable(session, "x", 1);
    expect(result == 0 || result == -EAGAIN, "it is taken or refused");
    if (result == -EAGAIN) ++refused;
    return result == 0;
  }
  TarnStats stats() {
    TarnStats stats;
    expect(tarn_get_stats(session, &stats, sizeof stats) == 0, "there are statistics");
    return stats;
  }

  static int on_output(char* data, int len, void* self) {
    let_others_move_if_running();
    const std::string datagram(data, static_cast<size_t>(len));
    if (datagram.size() > 7 && datagram[2] >> 2 == 0) {
      static_cast<SessionScenario*>(self)->sent.push_back(datagram[6]);
    }
    return 0;
  }
  static int on_reliable(char* data, int len, void* self) {
    static_cast<SessionScenario*>(self)->delivered.append(data, static_cast<size_t>(len));
    let_others_move_if_running();
    return 0;
  }
  static int on_error(TarnError, void* self) {
    ++static_cast<SessionScenario*>(self)->errors;
    return 0;
  }
  static void let_others_move_if_running() {
    if (Explorer::running() != nullptr) let_others_move();
  }

  tarn_fuzz::SteppedWorker worker;
  void* const session;
  std::vector<char> sent;  // numbers of reliable segments
  std::string delivered;
  int refused = 0;
  int told = 0;
  int errors = 0;
};

// A window of one segment, which is out.
struct FullWindow : SessionScenario {
  FullWindow() {
    set(TARN_OPTION_SEND_WINDOW, 1);
    expect(try_send(), "an empty window has room");
  }
  void listen() {
    expect(tarn_set_writable_callback(session, on_writable, this) == 0, "a callback can be set");
  }
  static void on_writable(void*, void* self) {
    auto& scenario = *static_cast<FullWindow*>(self);
    ++scenario.told;
    expect(!scenario.is_telling, "one at a time");
    scenario.is_telling = true;
    let_others_move_if_running();
    scenario.is_telling = false;
  }
  bool is_telling = false;
};

// Thread 1 acknowledges while the others try.
struct RefusedBesideAcknowledgement : FullWindow {
  RefusedBesideAcknowledgement() { listen(); }
  void run(size_t number) override {
    if (number == 1) {
      input(una(0));
    } else if (try_send()) {
      ++taken;
    }
  }
  void finish() override {
    // Whoever has taken the room is acknowledged, too.
    if (taken > 0) input(una(1));
    expect(told <= refused, "nobody is told who was not refused");
    expect(refused == 0 || told > 0, "who was refused is told");
    expect(taken <= 1, "the window has room for one");
    expect(stats().outstanding_segments == 0, "all is acknowledged");
  }
  int taken = 0;
};

TEST(ControlInterleaving, ARefusedSendBesideAnAcknowledgementIsToldOfTheRoom) {
  expect_holds<RefusedBesideAcknowledgement>(2, 100, 20);
}

TEST(ControlInterleaving, TwoRefusedSendsBesideAnAcknowledgementAreToldOfTheRoom) {
  expect_holds<RefusedBesideAcknowledgement>(3, 100, 200);
}

// Who is refused goes on in the callback alone.
struct GoesOnInTheCallback : FullWindow {
  GoesOnInTheCallback() {
    tarn_set_writable_callback(
        session,
        [](void*, void* self) {
          auto& scenario = *static_cast<GoesOnInTheCallback*>(self);
          ++scenario.told;
          scenario.left -= scenario.try_send() ? 1 : 0;
        },
        this);
  }
  void run(size_t number) override {
    if (number == 1) {
      input(una(0));
    } else if (try_send()) {
      --left;
    }
  }
  void finish() override {
    for (char seq = 1; seq < 4; ++seq) input(una(seq));
    expect(left <= 0, "who goes on in the callback alone gets to the end");
    expect(told <= refused, "nobody is told who was not refused");
  }
  int left = 1;
};

TEST(ControlInterleaving, ASenderThatGoesOnInTheCallbackGetsToTheEnd) {
  expect_holds<GoesOnInTheCallback>(2, 100, 20);
}

struct ListensBesideAcknowledgement : FullWindow {
  ListensBesideAcknowledgement() { expect(!try_send(), "a full window has no room"); }
  void run(size_t number) override {
    if (number == 0) {
      listen();
    } else {
      input(una(0));
    }
  }
  void finish() override { expect(told == 1, "who listens while somebody waits is told, once"); }
};

TEST(ControlInterleaving, ACallbackThatIsSetBesideAnAcknowledgementIsCalled) {
  expect_holds<ListensBesideAcknowledgement>(2, 100, 20);
}

// What waits leaves in order, whoever sends and acknowledges meanwhile.
struct QueueBesideAcknowledgement : FullWindow {
  QueueBesideAcknowledgement() { set(TARN_OPTION_SEND_QUEUE, 100); }
  void run(size_t number) override {
    if (number == 0) {
      expect(try_send() && try_send(), "a queue has room");
    } else {
      input(una(0));
    }
  }
  void finish() override {
    for (char seq = 1; seq < 3; ++seq) input(una(seq));
    expect(sent == std::vector<char>({0, 1, 2}), "each leaves once and in order");
    const TarnStats now = stats();
    expect(now.queued_messages == 0 && now.outstanding_segments == 0, "all is acknowledged");
    expect(now.messages_sent == 3 && now.segments_sent == 3, "all is counted");
  }
};

TEST(ControlInterleaving, WhatWaitsBesideAnAcknowledgementLeavesInOrder) {
  expect_holds<QueueBesideAcknowledgement>(2, 100, 50);
}

// Thread 0 pauses and resumes, thread 1 receives.
struct PausesBesideInput : SessionScenario {
  PausesBesideInput() { set(TARN_OPTION_RECV_WINDOW, 2); }
  void run(size_t number) override {
    if (number == 0) {
      pause_and_resume();
      return;
    }
    input(reliable(0, 'a'));
    input(reliable(2, 'c'));
    input(reliable(1, 'b'));
  }
  void pause_and_resume() {
    expect(tarn_pause_receive(session, 1) == 0, "it can be paused");
    const size_t before = delivered.size();
    let_others_move();
    expect(delivered.size() <= before + 1,
           "no more than what is on its way comes while it is paused");
    expect(tarn_pause_receive(session, 0) == 0, "it can be resumed");
  }
  void finish() override {
    // What was refused comes again.
    input(reliable(0, 'a'));
    input(reliable(1, 'b'));
    input(reliable(2, 'c'));
    expect(delivered == "abc", "all comes once and in order");
    const TarnStats now = stats();
    expect(now.messages_delivered == 3 && now.buffered_segments == 0, "nothing is left behind");
    expect(now.segments_received == now.segments_repeated + now.segments_rejected + 3,
           "each segment is new, repeated or refused");
  }
};

TEST(ControlInterleaving, WhatComesBesideAPauseIsDeliveredOnceAndInOrder) {
  expect_holds<PausesBesideInput>(2, 4, 1000);
}

// Two threads resume while a third one receives.
struct ResumesBesideInput : SessionScenario {
  ResumesBesideInput() {
    tarn_pause_receive(session, 1);
    input(reliable(0, 'a'));
  }
  void run(size_t number) override {
    if (number == 0) {
      input(reliable(1, 'b'));
    } else {
      tarn_pause_receive(session, 0);
    }
  }
  void finish() override { expect(delivered == "ab", "all comes once and in order"); }
};

TEST(ControlInterleaving, TwoThatResumeBesideInputDeliverOnceAndInOrder) {
  expect_holds<ResumesBesideInput>(3, 3, 1000);
}

// What comes again while it is being delivered.
struct ResumesBesideRepetition : SessionScenario {
  ResumesBesideRepetition() {
    tarn_pause_receive(session, 1);
    input(reliable(0, 'a'));
    input(reliable(1, 'b'));
  }
  void run(size_t number) override {
    if (number == 0) {
      input(reliable(1, 'b'));
    } else {
      tarn_pause_receive(session, 0);
    }
  }
  void finish() override {
    expect(delivered == "ab", "all comes once and in order");
    const TarnStats now = stats();
    expect(now.buffered_segments == 0, "nothing is left behind");
  }
};

TEST(ControlInterleaving, WhatComesAgainBesideAResumeIsNotKept) {
  expect_holds<ResumesBesideRepetition>(2, 4, 50);
}

// The first call of all on a session beside one that knows nothing of control.
struct FirstCallBesidePlainSend : SessionScenario {
  void run(size_t number) override {
    if (number == 0) {
      tarn_send_reliable(session, text, 1);
    } else {
      expect(try_send(), "there is room");
    }
  }
  void finish() override {
    expect(errors == 0, "there is room for both");
    expect(sent.size() == 2 && sent[0] + sent[1] == 1, "each has a number of its own");
    input(una(1));
    expect(stats().outstanding_segments == 0, "all is acknowledged");
  }
  char text[1] = {'p'};
};

TEST(ControlInterleaving, TheFirstCallBesideAPlainSendTakesItsOwnNumber) {
  expect_holds<FirstCallBesidePlainSend>(2, 100, 20);
}

}  // namespace

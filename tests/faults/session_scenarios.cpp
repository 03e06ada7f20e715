// Scenarios without a socket.
#include <errno.h>

#include <thread>

#include "tarn/control.h"
#include "tests/faults/play.h"
#include "tests/faults/waiting.h"
#include "tests/support/kept.h"
#include "tests/support/lossy_link.h"
#include "tests/support/session_fixture.h"

namespace tarn_test {
namespace {

void init_create_destroy(const Play&) {
  tarn_init();
  void* const first = tarn_create();
  void* const second = tarn_create();
  tarn_set_conv(first, 7);
  EXPECT_EQ(tarn_get_conv(first), 7u);
  EXPECT_EQ(tarn_destroy(first), 0);
  EXPECT_EQ(tarn_wait_destroy(second, 20), 0);
  tarn_fini();
}

// Never freed: the worker may be inside a callback still when the scenario is over.
Endpoint& endpoint() { return kept<Endpoint>(); }

void wired_pair(const Play& play) {
  tarn_init();
  Endpoint& a = endpoint();
  Endpoint& b = endpoint();
  // Some datagrams are lost, so that the worker has to send again.
  auto& link = kept<LossyLink>(3, LinkFaults{0.3, 0.1, 0.1});
  link.connect(a.handle(), b.handle());
  const Bytes fragmented = pattern(4000, 1);
  const Bytes small = pattern(10, 2);

  a.send(fragmented);
  a.send_unreliable(small);
  b.send(small);

  play.reach("messages both ways", [&] {
    link.pump();
    tarn_update();
    return b.reliable_received.count() == 1 && a.reliable_received.count() == 1;
  });
  for (const Bytes& each : b.reliable_received.all()) EXPECT_EQ(each, fragmented);
  for (const Bytes& each : a.reliable_received.all()) EXPECT_EQ(each, small);
  tarn_wait_destroy(a.handle(), 30);
  tarn_destroy(b.handle());
  link.disconnect();
}

void go_on(void* session, void* left) {
  auto& count = *static_cast<int*>(left);
  const Bytes message = pattern(500, 7);
  while (count > 0 && tarn_try_send_reliable(session, message.data(), message.size()) == 0) --count;
}

// A sender that is refused and goes on when it is told to, to a reader that pauses, both with the
// timers that control asks for.
void controlled_pair(const Play& play) {
  constexpr int kMessages = 15;
  tarn_init();
  Endpoint& a = endpoint();
  Endpoint& b = endpoint();
  auto& link = kept<LossyLink>(5, LinkFaults{0.2, 0.1, 0.1});
  link.connect(a.handle(), b.handle());
  int& left = kept<int>(kMessages);
  tarn_set_option(a.handle(), TARN_OPTION_SEND_QUEUE, 3000);
  tarn_set_option(a.handle(), TARN_OPTION_SEND_WINDOW, 8);
  tarn_set_option(a.handle(), TARN_OPTION_KEEP_ALIVE_MS, 10);
  tarn_set_option(b.handle(), TARN_OPTION_PEER_TIMEOUT_MS, 20);
  tarn_set_writable_callback(a.handle(), go_on, &left);
  tarn_pause_receive(b.handle(), 1);

  go_on(a.handle(), &left);

  EXPECT_LT(left, kMessages);
  tarn_pause_receive(b.handle(), 0);
  play.reach("all messages", [&] {
    link.pump();
    tarn_update();
    return b.reliable_received.count() == kMessages;
  });
  TarnStats stats;
  EXPECT_EQ(tarn_get_stats(b.handle(), &stats, sizeof stats), 0);
  EXPECT_EQ(stats.messages_delivered, b.reliable_received.count());
  tarn_destroy(a.handle());
  tarn_destroy(b.handle());
  link.disconnect();
}

int destroy_own(char*, int, void* session) {
  tarn_destroy(session);
  return 0;
}

int destroy_on_error(TarnError, void* session) {
  tarn_destroy(session);
  return 0;
}

void destroy_inside_callbacks(const Play& play) {
  tarn_init();
  tarn_config_active_timeout(0xFFFFFFFF);
  char message[20] = {};
  char datagram[] = {'$', 0, 0x03, 0, 5, 0, 0, 'a', 'b', 'c'};

  void* const in_output = tarn_create();
  tarn_set_output_callback(in_output, destroy_own, in_output);
  tarn_send_reliable(in_output, message, sizeof message);

  void* const in_receive = tarn_create();
  tarn_set_recv_reliable_callback(in_receive, destroy_own, in_receive);
  tarn_input(in_receive, datagram, sizeof datagram);

  tarn_config_send_window_size(0);
  void* const in_error = tarn_create();
  tarn_set_output_callback(
      in_error, [](char*, int, void*) { return 0; }, nullptr);
  tarn_set_error_callback(in_error, destroy_on_error, in_error);
  tarn_send_reliable(in_error, message, sizeof message);
  restore_default_settings();

  for (void* const each : {in_output, in_receive, in_error}) {
    // The worker is the one that deletes: where it could not be started, nothing goes.
    tarn_init();
    const auto is_gone = [each] { return tarn_destroy(each) == -1; };
    EXPECT_TRUE(play.lasts() || wait_for_condition(is_gone, 15000));
  }
}

// The worker re-sends and the application waits in tarn_wait_destroy meanwhile; updates compete for
// the worker's turn.
void drain_beside_updates(const Play& play) {
  tarn_init();
  Endpoint& a = endpoint();
  a.send("never acknowledged");
  std::thread updates([] {
    for (int i = 0; i < 200; ++i) tarn_update();
  });
  play.reach("a second sending", [&a] { return a.sent.count() >= 2; });
  EXPECT_EQ(tarn_wait_destroy(a.handle(), 120), 0);
  updates.join();
}

}  // namespace

const std::vector<Scenario>& session_scenarios() {
  static const std::vector<Scenario> all{{"InitCreateDestroy", init_create_destroy},
                                         {"WiredPair", wired_pair},
                                         {"ControlledPair", controlled_pair},
                                         {"DestroyInsideCallbacks", destroy_inside_callbacks},
                                         {"DrainBesideUpdates", drain_beside_updates}};
  return all;
}

}  // namespace tarn_test

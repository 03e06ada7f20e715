// Callbacks that throw: the call that caused them ends by the exception, and the library goes on.
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

const std::thread::id main_thread = std::this_thread::get_id();

// Throws at the call whose turn it is, and writes the others down. On the test's own thread only:
// on the worker an exception ends the process.
struct Thrower {
  int throws_at = 1;
  int calls = 0;
  DatagramRecorder others;

  void act() {
    if (std::this_thread::get_id() == main_thread && ++calls == throws_at) {
      throw std::runtime_error("of the application's");
    }
  }
  static int on_data(char* data, int len, void* self) {
    auto* const thrower = static_cast<Thrower*>(self);
    thrower->act();
    return DatagramRecorder::on_data(data, len, &thrower->others);
  }
  static int on_error(TarnError, void* self) {
    static_cast<Thrower*>(self)->act();
    return 0;
  }
};

// Throws at the lines that contain this text, once each time that it is set.
const char* log_trigger = nullptr;
void throw_at_line(const char* line) {
  if (std::this_thread::get_id() != main_thread || log_trigger == nullptr) return;
  if (strstr(line, log_trigger) == nullptr) return;
  log_trigger = nullptr;
  throw std::runtime_error("of the log's");
}

class Exceptions : public SessionFixture {
 protected:
  ~Exceptions() override { tarn_set_log_callback(0, nullptr); }

  static void throw_at(const char* trigger) {
    log_trigger = trigger;
    tarn_set_log_callback(5, throw_at_line);
  }
  // Numbers and places of the reliable segments that the re-sends bring.
  std::vector<std::pair<int, int>> resent(Endpoint& end) {
    end.clear();
    advance_by_steps(120);
    std::vector<std::pair<int, int>> found;
    for (const WireSegment& each : segments_of_type(end.sent.all(), kReliable)) {
      found.emplace_back(each.seq(), each.flag);
    }
    return found;
  }
};

using Sent = std::vector<std::pair<int, int>>;

TEST_F(Exceptions, OutputLeavesTheSegmentToTheReSends) {
  Endpoint end;
  Thrower thrower;
  tarn_set_output_callback(end.handle(), Thrower::on_data, &thrower);
  EXPECT_THROW(end.send("x"), std::runtime_error);
  tarn_set_output_callback(end.handle(), DatagramRecorder::on_data, &end.sent);
  EXPECT_EQ(resent(end), (Sent{{0, kWhole}}));
  end.clear();
  end.send("y");
  EXPECT_EQ(end.sent_numbers(), std::vector<int>{1});
}

TEST_F(Exceptions, OutputInTheMiddleOfAMessageLeavesAllOfItToTheReSends) {
  for (const int at : {1, 2, 3}) {
    Endpoint end;
    Thrower thrower;
    thrower.throws_at = at;
    tarn_set_output_callback(end.handle(), Thrower::on_data, &thrower);
    EXPECT_THROW(end.send(pattern(3000)), std::runtime_error);
    EXPECT_EQ(thrower.others.count(), static_cast<size_t>(at - 1));
    tarn_set_output_callback(end.handle(), DatagramRecorder::on_data, &end.sent);
    EXPECT_EQ(resent(end), (Sent{{0, kFirst}, {1, kMiddle}, {2, kLast}})) << at;
    Bytes whole;
    for (const WireSegment& each : segments_of_type(end.sent.all(), kReliable)) {
      const Bytes payload = each.payload();
      whole.insert(whole.end(), payload.begin(), payload.end());
    }
    EXPECT_EQ(whole, pattern(3000)) << at;
    end.clear();
    end.send("y");
    EXPECT_EQ(end.sent_numbers(), std::vector<int>{3});
  }
}

TEST_F(Exceptions, LogCallbackWhileSendingLeavesTheSegmentToTheReSends) {
  for (const char* const line : {" output size ", " send reliable seq "}) {
    Endpoint end;
    throw_at(line);
    EXPECT_THROW(end.send("x"), std::runtime_error) << line;
    tarn_set_log_callback(0, nullptr);
    EXPECT_EQ(resent(end), (Sent{{0, kWhole}})) << line;
  }
}

TEST_F(Exceptions, ErrorCallbackOfAFullWindowKeepsWhatTheWindowTakes) {
  tarn_config_send_window_size(1);
  Endpoint end;
  Thrower thrower;
  tarn_set_error_callback(end.handle(), Thrower::on_error, &thrower);
  end.send("x");
  EXPECT_THROW(end.send("y"), std::runtime_error);
  EXPECT_EQ(resent(end), (Sent{{0, kWhole}}));
  end.input(datagram({una(0)}));
  end.send("z");
  EXPECT_EQ(resent(end), (Sent{{2, kWhole}}));
}

namespace {

std::atomic<bool> is_waiting{false};

int wait_to_be_cancelled(char*, int, void*) {
  is_waiting = true;
  for (;;) pause();
}

void* send_three(void* end) {
  static_cast<Endpoint*>(end)->send(pattern(3000));
  return nullptr;
}

}  // namespace

TEST_F(Exceptions, ThreadCancelledInOutputLeavesAllOfTheMessageToTheReSends) {
  Endpoint end;
  is_waiting = false;
  tarn_set_output_callback(end.handle(), wait_to_be_cancelled, nullptr);
  pthread_t sender;
  ASSERT_EQ(pthread_create(&sender, nullptr, send_three, &end), 0);
  ASSERT_TRUE(wait_until([] { return is_waiting.load(); }));
  tarn_set_output_callback(end.handle(), DatagramRecorder::on_data, &end.sent);
  ASSERT_EQ(pthread_cancel(sender), 0);
  ASSERT_EQ(pthread_join(sender, nullptr), 0);
  EXPECT_EQ(resent(end), (Sent{{0, kFirst}, {1, kMiddle}, {2, kLast}}));
}

TEST_F(Exceptions, ReliableCallbackHoldsUpNothingForGood) {
  const Bytes later[] = {datagram({reliable(4, {4})}), datagram({reliable(1, {1})}),
                         datagram({una(0)})};
  for (const Bytes& next : later) {
    Endpoint end;
    Thrower thrower;
    thrower.throws_at = 2;
    tarn_set_recv_reliable_callback(end.handle(), Thrower::on_data, &thrower);
    for (const uint16_t seq : {0, 2, 3}) end.input(datagram({reliable(seq, {1})}));
    EXPECT_THROW(end.input(datagram({reliable(1, {1})})), std::runtime_error);
    EXPECT_EQ(thrower.calls, 2);
    end.input(next);
    EXPECT_EQ(thrower.calls, next == later[0] ? 5 : 4);
  }
}

TEST_F(Exceptions, ReliableCallbackInTheMiddleOfARelease) {
  Endpoint end;
  Thrower thrower;
  thrower.throws_at = 3;
  tarn_set_recv_reliable_callback(end.handle(), Thrower::on_data, &thrower);
  for (const uint16_t seq : {0, 2, 3}) end.input(datagram({reliable(seq, {1})}));
  EXPECT_THROW(end.input(datagram({reliable(1, {1})})), std::runtime_error);
  EXPECT_EQ(thrower.calls, 3);
  end.input(datagram({una(0)}));
  EXPECT_EQ(thrower.calls, 4);
  end.clear();
  advance(50);
  const auto unas = segments_of_type(end.sent.all(), kUna);
  ASSERT_EQ(unas.size(), 1u);
  EXPECT_EQ(unas[0].seq(), 3);
}

TEST_F(Exceptions, LogCallbackWhileReceivingLosesNoMessage) {
  const char* const lines[] = {" got reliable seq 1", " input seq 1", "recv window output seq 1",
                               "recv window output seq 2", "recv window output seq 3"};
  for (const char* const line : lines) {
    Endpoint end;
    for (const uint16_t seq : {0, 2, 3}) end.input(datagram({reliable(seq, {uint8_t(seq)})}));
    throw_at(line);
    EXPECT_THROW(end.input(datagram({reliable(1, {1})})), std::runtime_error) << line;
    tarn_set_log_callback(0, nullptr);
    end.input(datagram({reliable(1, {1})}));
    EXPECT_EQ(end.reliable_received.all(), (std::vector<Bytes>{{0}, {1}, {2}, {3}})) << line;
  }
}

TEST_F(Exceptions, OtherCallbacksPassThroughToo) {
  Endpoint end;
  Thrower unreliable_thrower;
  tarn_set_recv_unreliable_callback(end.handle(), Thrower::on_data, &unreliable_thrower);
  EXPECT_THROW(end.input(datagram({unreliable({1})})), std::runtime_error);
  end.input(datagram({unreliable({2})}));
  EXPECT_EQ(unreliable_thrower.others.all(), (std::vector<Bytes>{{2}}));
  Thrower error_thrower;
  tarn_set_error_callback(end.handle(), Thrower::on_error, &error_thrower);
  EXPECT_THROW(end.input(datagram({bye()})), std::runtime_error);
  end.input(datagram({bye()}));
  EXPECT_EQ(error_thrower.calls, 2);
}

TEST_F(Exceptions, LogCallbackDuringCreationLeavesNoSessionBehind) {
  for (const char* const line :
       {" func: ", "tarn session created ", " created", "tarn session start "}) {
    throw_at(line);
    EXPECT_THROW(tarn_create(), std::runtime_error) << line;
    tarn_set_log_callback(0, nullptr);
    settle();
    advance(120);
  }
  Endpoint end;
  end.send("x");
  EXPECT_EQ(end.sent_numbers(), std::vector<int>{0});
}

TEST_F(Exceptions, LogCallbackDuringDestructionLetsItBeTriedAgain) {
  void* const session = tarn_create();
  throw_at(" stop with delay ");
  EXPECT_THROW(tarn_destroy(session), std::runtime_error);
  tarn_set_log_callback(0, nullptr);
  EXPECT_EQ(tarn_destroy(session), 0);
  EXPECT_TRUE(wait_until_gone(session));
}

}  // namespace

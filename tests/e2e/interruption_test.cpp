// What one end says when the other one stops, and with which exit status.
#include <signal.h>

#include <chrono>
#include <thread>

#include "tests/e2e/tool_fixture.h"
#include "tools/exit_status.h"

using namespace tarn_test;
using namespace tarn_tool;

namespace {

class Interruption : public ToolFixture {
 protected:
  // A receiver and a sender in the middle of a transfer that waits for more input.
  void begin() {
    receiver_ = start_receiver({"--once", "--timeout", "1000"});
    sender_ = start({"send", "--timeout", "1000", address_of(*receiver_), "-"});
    sender_->write("begun");
    ASSERT_TRUE(wait_for_content("received/stdin", "begun")) << receiver_->errors();
  }
  static bool says(const ChildProcess& process, const std::string& text) {
    return process.errors().find(text) != std::string::npos;
  }

  std::unique_ptr<ChildProcess> receiver_;
  std::unique_ptr<ChildProcess> sender_;
};

}  // namespace

TEST_F(Interruption, OfTheSenderIsToldToTheReceiver) {
  begin();

  sender_->signal(SIGINT);

  EXPECT_EQ(sender_->wait(), kInterrupted + SIGINT) << sender_->errors();
  EXPECT_EQ(receiver_->wait(), kPeerEnded);
  EXPECT_TRUE(says(*receiver_, "gave up: interrupted")) << receiver_->errors();
}

TEST_F(Interruption, OfTheReceiverIsToldToTheSender) {
  begin();

  receiver_->signal(SIGTERM);

  EXPECT_EQ(receiver_->wait(), kInterrupted + SIGTERM) << receiver_->errors();
  EXPECT_EQ(sender_->wait(), kPeerEnded);
  EXPECT_TRUE(says(*sender_, "gave up: interrupted")) << sender_->errors();
}

TEST_F(Interruption, ADeadSenderIsMissed) {
  begin();

  sender_->signal(SIGKILL);

  EXPECT_EQ(receiver_->wait(), kPeerSilent);
  EXPECT_TRUE(says(*receiver_, "nothing heard from 127.0.0.1:")) << receiver_->errors();
}

TEST_F(Interruption, ADeadReceiverIsMissed) {
  begin();

  receiver_->signal(SIGKILL);

  EXPECT_EQ(sender_->wait(), kPeerSilent);
  EXPECT_TRUE(says(*sender_, "nothing heard from 127.0.0.1:")) << sender_->errors();
}

TEST_F(Interruption, ADeadReceiverIsMissedByASenderThatKeepsSending) {
  begin();

  receiver_->signal(SIGKILL);
  while (sender_->running()) {
    sender_->write("more");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  EXPECT_EQ(sender_->wait(), kPeerSilent) << sender_->errors();
}

TEST_F(Interruption, LeavesNoUnfinishedFileBehind) {
  begin();
  ASSERT_TRUE(exists("received/stdin"));

  sender_->signal(SIGINT);
  receiver_->wait();

  EXPECT_FALSE(exists("received/stdin"));
}

TEST_F(Interruption, ASenderWithoutReceiverGivesUp) {
  std::string target;
  {
    const auto receiver = start_receiver({});
    target = address_of(*receiver);
  }

  const auto sent = run({"send", "--timeout", "500", target, make_file("f", "x")});

  EXPECT_EQ(sent.status, kPeerSilent);
  EXPECT_NE(sent.errors.find("nothing heard from"), std::string::npos) << sent.errors;
}

TEST_F(Interruption, ALongPauseOfTheInputIsNone) {
  begin();

  // Longer than the timeout, by the clock that the receiver's progress keeps.
  EXPECT_FALSE(receiver_->wait(std::chrono::milliseconds(2000)) >= 0) << receiver_->errors();
  sender_->close_input();

  EXPECT_EQ(sender_->wait(), kSuccess) << sender_->errors();
  EXPECT_EQ(receiver_->wait(), kSuccess) << receiver_->errors();
}

TEST_F(Interruption, AStuckOutputIsNone) {
  const auto receiver = start_receiver({"-o", "-", "--timeout", "1000"}, "", true);
  const std::string bytes = noise(10000000);
  const auto sender =
      start({"send", "--timeout", "1000", address_of(*receiver), make_file("f", bytes)});

  EXPECT_EQ(sender->wait(std::chrono::milliseconds(2000)), -1) << sender->errors();
  EXPECT_NE(sender->errors().find("%"), std::string::npos);
  EXPECT_EQ(sender->errors().find("100%"), std::string::npos) << sender->errors();
  const std::string received = receiver->drain();

  EXPECT_EQ(sender->wait(), kSuccess) << sender->errors();
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(received == bytes);
}

// Far more than fits anywhere on the way, so that the sender is held up several times.
TEST_F(Interruption, ASlowOutputLosesNothing) {
  const auto receiver = start_receiver({"-o", "-", "--timeout", "1000"}, "", true);
  const std::string bytes = noise(8000000);
  const auto sender =
      start({"send", "--timeout", "1000", address_of(*receiver), make_file("f", bytes)});

  const std::string received = receiver->drain(std::chrono::milliseconds(1));

  EXPECT_EQ(sender->wait(), kSuccess) << sender->errors();
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(received == bytes);
}

TEST_F(Interruption, OfAnIdleReceiverIsItsRegularEnd) {
  const auto receiver = start_receiver({});
  EXPECT_EQ(run({"send", address_of(*receiver), make_file("f", "x")}).status, kSuccess);

  receiver->signal(SIGINT);

  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
}

TEST_F(Interruption, AnIdleReceiverRemembersAFailure) {
  const auto receiver = start_receiver({"--timeout", "500"});
  const auto sender = start({"send", address_of(*receiver), "-"});
  sender->write("x");
  ASSERT_TRUE(wait_for_content("received/stdin", "x"));
  sender->signal(SIGKILL);
  ASSERT_TRUE(receiver->wait_for_error_text("nothing heard"));
  EXPECT_EQ(run({"send", address_of(*receiver), make_file("f", "x")}).status, kSuccess);

  receiver->signal(SIGINT);

  EXPECT_EQ(receiver->wait(), kPeerSilent) << receiver->errors();
}

TEST_F(Interruption, AnOutputThatFailsIsToldToTheSender) {
  const auto receiver = start_receiver({"-o", "/dev/full"});

  const auto sent = run({"send", address_of(*receiver), make_file("f", "x")});

  EXPECT_EQ(sent.status, kPeerEnded);
  EXPECT_NE(sent.errors.find("cannot write /dev/full"), std::string::npos) << sent.errors;
  EXPECT_EQ(receiver->wait(), kFailure);
}

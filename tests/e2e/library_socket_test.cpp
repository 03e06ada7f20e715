// Files over the library's sockets: attached sessions, and TCP connections.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <string>

#include "tests/e2e/tool_fixture.h"
#include "tools/exit_status.h"

using namespace tarn_test;
using namespace tarn_tool;

namespace {

// Every test runs with "--attach" and with "--tcp".
class LibrarySocket : public ToolFixture, public ::testing::WithParamInterface<const char*> {
 protected:
  std::unique_ptr<ChildProcess> receive(Arguments options, bool piped_output = false) {
    options.insert(options.begin(), {"recv", GetParam(), "0"});
    auto process = start(options, "received", piped_output);
    EXPECT_TRUE(process->wait_for_error_text("listening on port ")) << process->errors();
    return process;
  }
  Arguments send_to(ChildProcess& receiver, const Arguments& files) {
    Arguments arguments{"send", GetParam(), "--timeout", "3000", address_of(receiver)};
    arguments.insert(arguments.end(), files.begin(), files.end());
    return arguments;
  }
  bool is_tcp() const { return GetParam() == std::string("--tcp"); }
};

std::string test_name(const ::testing::TestParamInfo<const char*>& info) { return info.param + 2; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(Transport, LibrarySocket, ::testing::Values("--attach", "--tcp"),
                         test_name);

TEST_P(LibrarySocket, AFileArrivesAndBothEndsAgree) {
  const auto receiver = receive({"--once"});

  const auto sent = run(send_to(*receiver, {make_file("f", noise(1000000))}));

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(read("received/f") == noise(1000000));
  const std::string received = receiver->output();
  const auto claim = [](const std::string& line) { return line.substr(line.find(" f: "), 90); };
  EXPECT_EQ(claim(sent.output), claim(received));
}

TEST_P(LibrarySocket, SeveralFilesArriveOneAfterAnother) {
  const auto receiver = receive({"--once"});

  const auto sent = run(send_to(*receiver, {make_file("a", noise(70000, 1)), make_file("b", ""),
                                            make_file("c", noise(1, 3))}));

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(read("received/a") == noise(70000, 1));
  EXPECT_EQ(read("received/b"), "");
  EXPECT_TRUE(read("received/c") == noise(1, 3));
}

TEST_P(LibrarySocket, OneReceiverServesSeveralSenders) {
  const auto receiver = receive({});
  const auto first = start(send_to(*receiver, {"-"}));
  first->write("begun ");
  ASSERT_TRUE(wait_for_content("received/stdin", "begun ")) << first->errors();

  const auto second = run(send_to(*receiver, {make_file("b", noise(100000))}));
  first->write("and ended");
  first->close_input();

  EXPECT_EQ(second.status, kSuccess) << second.errors;
  EXPECT_EQ(first->wait(), kSuccess) << first->errors();
  EXPECT_EQ(read("received/stdin"), "begun and ended");
  EXPECT_TRUE(read("received/b") == noise(100000));
}

TEST_P(LibrarySocket, AStuckOutputHoldsUpTheSender) {
  const auto receiver = receive({"-o", "-", "--timeout", "1000"}, true);
  const std::string bytes = noise(10000000);
  const auto sender = start(send_to(*receiver, {make_file("f", bytes)}));

  EXPECT_EQ(sender->wait(std::chrono::milliseconds(2000)), -1) << sender->errors();
  EXPECT_NE(sender->errors().find("%"), std::string::npos);
  EXPECT_EQ(sender->errors().find("100%"), std::string::npos) << sender->errors();
  const std::string received = receiver->drain();

  EXPECT_EQ(sender->wait(), kSuccess) << sender->errors();
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(received == bytes);
}

// Until somebody reads, the main loop waits for the pipe to open; what comes waits meanwhile.
TEST_P(LibrarySocket, AReceiverThatIsBlockedHoldsUpTheSender) {
  make_file("received/keep", "");
  ASSERT_EQ(mkfifo(path("received/pipe").c_str(), 0600), 0);
  const auto receiver = receive({"-o", "pipe"});
  const std::string bytes = noise(10000000);
  const auto sender = start(send_to(*receiver, {make_file("f", bytes)}));

  EXPECT_EQ(sender->wait(std::chrono::milliseconds(2000)), -1) << sender->errors();
  EXPECT_NE(sender->errors().find("%"), std::string::npos);
  EXPECT_EQ(sender->errors().find("100%"), std::string::npos) << sender->errors();

  EXPECT_TRUE(read("received/pipe") == bytes);
  EXPECT_EQ(sender->wait(), kSuccess) << sender->errors();
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
}

TEST_P(LibrarySocket, OnceTurnsASecondSenderAway) {
  const auto receiver = receive({"--once"});
  const auto first = start(send_to(*receiver, {"-"}));
  first->write("x");
  ASSERT_TRUE(wait_for_content("received/stdin", "x")) << first->errors();

  const auto second = run(send_to(*receiver, {make_file("b", "y")}));
  first->close_input();

  EXPECT_EQ(second.status, kPeerEnded);
  EXPECT_NE(second.errors.find("serving another sender"), std::string::npos) << second.errors;
  EXPECT_EQ(first->wait(), kSuccess) << first->errors();
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
}

TEST_P(LibrarySocket, AnInterruptionIsToldToTheReceiver) {
  const auto receiver = receive({"--once"});
  const auto sender = start(send_to(*receiver, {"-"}));
  sender->write("begun");
  ASSERT_TRUE(wait_for_content("received/stdin", "begun")) << sender->errors();

  sender->signal(SIGINT);

  EXPECT_EQ(sender->wait(), kInterrupted + SIGINT) << sender->errors();
  EXPECT_EQ(receiver->wait(), kPeerEnded);
  EXPECT_NE(receiver->errors().find("gave up: interrupted"), std::string::npos)
      << receiver->errors();
}

TEST_P(LibrarySocket, ADeadReceiverIsMissed) {
  const auto receiver = receive({});
  const auto sender = start(send_to(*receiver, {"-"}));
  sender->write("begun");
  ASSERT_TRUE(wait_for_content("received/stdin", "begun")) << sender->errors();

  receiver->signal(SIGKILL);

  EXPECT_EQ(sender->wait(), is_tcp() ? kPeerEnded : kPeerSilent) << sender->errors();
}

TEST_P(LibrarySocket, ASenderWithoutReceiverGivesUp) {
  const auto sent =
      run({"send", GetParam(), "--timeout", "500", "127.0.0.1:9", make_file("f", "x")});

  EXPECT_EQ(sent.status, kPeerSilent) << sent.errors;
}

TEST_P(LibrarySocket, APortInUseIsRefused) {
  const auto receiver = receive({});
  const std::string address = address_of(*receiver);

  const auto second = run({"recv", GetParam(), address.substr(address.find(':') + 1)});

  EXPECT_EQ(second.status, kFailure);
  EXPECT_NE(second.errors.find("Address already in use"), std::string::npos) << second.errors;
}

TEST_P(LibrarySocket, OneInterfaceCannotBeChosen) {
  const auto result = run({"recv", GetParam(), "127.0.0.1:0"});

  EXPECT_EQ(result.status, kFailure);
  EXPECT_NE(result.errors.find("give the port alone"), std::string::npos) << result.errors;
}

class AttachedSocket : public LibrarySocket {};
INSTANTIATE_TEST_SUITE_P(Transport, AttachedSocket, ::testing::Values("--attach"), test_name);

TEST_P(AttachedSocket, SurvivesABadLink) {
  const auto receiver = receive({"--once"});
  const auto relay = start_relay(address_of(*receiver), {"--loss", "20%", "--duplicate", "10%",
                                                         "--reorder", "20%", "--seed", "3"});

  const auto sent = run(send_to(*relay, {make_file("f", noise(200000))}));

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(read("received/f") == noise(200000));
}

TEST_P(AttachedSocket, TalksToAnEndWithItsOwnSocket) {
  const auto receiver = start_receiver({"--once"});

  const auto sent = run(send_to(*receiver, {make_file("f", noise(200000))}));

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_TRUE(read("received/f") == noise(200000));
}

TEST_P(AttachedSocket, MessagesThatWouldBeCutAreRefused) {
  const auto receiver = receive({"--once"});

  const auto sent = run({"send", "--mtu", "1487", address_of(*receiver), make_file("f", "x")});

  EXPECT_EQ(sent.status, kPeerEnded);
  EXPECT_NE(sent.errors.find("1486 is the most"), std::string::npos) << sent.errors;
}

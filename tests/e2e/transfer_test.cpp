// Files from one process to another.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tests/e2e/tool_fixture.h"
#include "tools/digest.h"
#include "tools/exit_status.h"

using namespace tarn_test;
using namespace tarn_tool;

namespace {

bool has_ipv6_loopback() {
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  const bool found =
      fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return found;
}

std::string digest_of(const std::string& bytes) {
  Digest digest;
  digest.update(bytes);
  return to_hex(digest.finish());
}

}  // namespace

using Transfer = ToolFixture;

TEST_F(Transfer, AFileArrivesUnderItsName) {
  const std::string bytes = noise(300000);
  const auto receiver = start_receiver({"--once"});

  const auto sent = run({"send", address_of(*receiver), make_file("some file.bin", bytes)});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(read("received/some file.bin") == bytes);
}

TEST_F(Transfer, BothEndsPrintSizeAndDigest) {
  const std::string bytes = noise(5000);
  const auto receiver = start_receiver({"--once"});

  const auto sent = run({"send", address_of(*receiver), make_file("f", bytes)});
  receiver->wait();

  const std::string claim = "f: 5000 bytes, sha256 " + digest_of(bytes);
  EXPECT_NE(sent.output.find("sent " + claim), std::string::npos) << sent.output;
  EXPECT_NE(receiver->output().find("received " + claim), std::string::npos) << receiver->output();
}

TEST_F(Transfer, AnEmptyFileArrives) {
  const auto receiver = start_receiver({"--once"});

  const auto sent = run({"send", address_of(*receiver), make_file("empty", "")});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess);
  EXPECT_EQ(read("received/empty"), "");
}

TEST_F(Transfer, StandardInputBecomesStandardOutput) {
  const std::string bytes = noise(20000);
  const auto receiver = start_receiver({"-o", "-"});

  const auto sent = run({"send", address_of(*receiver), "-"}, bytes);

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess);
  EXPECT_TRUE(receiver->output() == bytes);
  EXPECT_NE(receiver->errors().find(digest_of(bytes)), std::string::npos);
}

TEST_F(Transfer, SeveralFilesArriveOneAfterAnother) {
  const auto receiver = start_receiver({"--once"});

  const auto sent = run({"send", address_of(*receiver), make_file("a", noise(70000, 1)),
                         make_file("b", ""), make_file("c", noise(1, 3))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess);
  EXPECT_TRUE(read("received/a") == noise(70000, 1));
  EXPECT_EQ(read("received/b"), "");
  EXPECT_TRUE(read("received/c") == noise(1, 3));
}

TEST_F(Transfer, AnOutputFileJoinsAllFiles) {
  const auto receiver = start_receiver({"-o", "joined"});

  const auto sent =
      run({"send", address_of(*receiver), make_file("a", "one "), make_file("b", "two")});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess);
  EXPECT_EQ(read("received/joined"), "one two");
}

TEST_F(Transfer, AnExistingFileIsNotReplaced) {
  make_file("received/f", "old");
  const auto receiver = start_receiver({"--once"});

  run({"send", address_of(*receiver), make_file("f", "new")});

  EXPECT_EQ(receiver->wait(), kSuccess);
  EXPECT_EQ(read("received/f"), "old");
  EXPECT_EQ(read("received/f.1"), "new");
}

TEST_F(Transfer, TwoSendersAtOnceAreServed) {
  const auto receiver = start_receiver({});
  const std::string target = address_of(*receiver);
  const auto first = start({"send", target, "-"});
  first->write("begun ");
  ASSERT_TRUE(wait_for_content("received/stdin", "begun ")) << first->errors();

  const auto second = run({"send", target, make_file("b", noise(400000))});
  first->write("and ended");
  first->close_input();

  EXPECT_EQ(second.status, kSuccess) << second.errors;
  EXPECT_EQ(first->wait(), kSuccess) << first->errors();
  EXPECT_EQ(read("received/stdin"), "begun and ended");
  EXPECT_TRUE(read("received/b") == noise(400000));
}

TEST_F(Transfer, SmallWindowsAndMessagesAreEnough) {
  const auto receiver = start_receiver({"--once", "--window", "16", "--mtu", "256"});

  const auto sent = run({"send", "--window", "16", "--mtu", "256", address_of(*receiver),
                         make_file("f", noise(40000))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_TRUE(read("received/f") == noise(40000));
}

TEST_F(Transfer, WindowsOfBothEndsMayDiffer) {
  const auto receiver = start_receiver({"--once", "--window", "16"});

  const auto sent =
      run({"send", "--window", "2000", address_of(*receiver), make_file("f", noise(500000))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_TRUE(read("received/f") == noise(500000));
}

TEST_F(Transfer, LargeMessagesWork) {
  const auto receiver = start_receiver({"--once", "--mtu", "65000"});

  const auto sent =
      run({"send", "--mtu", "65000", address_of(*receiver), make_file("f", noise(3000000))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_TRUE(read("received/f") == noise(3000000));
}

TEST_F(Transfer, SurvivesABadLink) {
  const auto receiver = start_receiver({"--once"});
  const auto relay =
      start_relay(address_of(*receiver), {"--loss", "20%", "--duplicate", "10%", "--reorder", "20%",
                                          "--delay", "5ms", "--jitter", "5ms", "--seed", "3"});

  const auto sent = run(
      {"send", address_of(*relay), make_file("f", noise(600000)), make_file("g", noise(10, 2))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(receiver->wait(), kSuccess) << receiver->errors();
  EXPECT_TRUE(read("received/f") == noise(600000));
  EXPECT_TRUE(read("received/g") == noise(10, 2));
}

TEST_F(Transfer, NeitherSendWindowOverflowsOnABadLink) {
  const auto receiver = start_receiver({"--once", "--window", "32", "--log", "1"});
  const auto relay = start_relay(address_of(*receiver), {"--loss", "30%", "--seed", "5"});

  const auto sent = run(
      {"send", "--window", "32", "--log", "1", address_of(*relay), make_file("f", noise(150000))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_EQ(sent.errors.find("overflow"), std::string::npos);
  EXPECT_EQ(receiver->errors().find("overflow"), std::string::npos);
}

TEST_F(Transfer, WorksOverIpv6) {
  if (!has_ipv6_loopback()) GTEST_SKIP() << "this host has no ::1";
  const auto receiver = start({"recv", "[::1]:0", "-o", "f"}, "received");
  const std::string address = address_of(*receiver);

  const auto sent =
      run({"send", "[::1]" + address.substr(address.find(':')), make_file("f", noise(5000))});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_TRUE(read("received/f") == noise(5000));
}

TEST_F(Transfer, APortAloneListensForBothFamilies) {
  const auto receiver = start({"recv", "0"}, "received");
  const std::string address = address_of(*receiver);

  const auto sent = run({"send", address, make_file("f", "x")});

  EXPECT_EQ(sent.status, kSuccess) << sent.errors;
  EXPECT_NE(receiver->output().find("received f: 1 bytes"), std::string::npos);
}

TEST_F(Transfer, OnceTurnsASecondSenderAway) {
  const auto receiver = start_receiver({"--once"});
  const std::string target = address_of(*receiver);
  const auto first = start({"send", target, "-"});
  first->write("x");
  ASSERT_TRUE(wait_for_content("received/stdin", "x")) << first->errors();

  const auto second = run({"send", target, make_file("b", "y")});
  first->close_input();

  EXPECT_EQ(second.status, kPeerEnded);
  EXPECT_NE(second.errors.find("serving another sender"), std::string::npos) << second.errors;
  EXPECT_EQ(first->wait(), kSuccess);
  EXPECT_EQ(receiver->wait(), kSuccess);
}

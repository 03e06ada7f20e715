// A receiver and datagrams that no sender of ours would send.
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>

#include "tests/e2e/tool_fixture.h"
#include "tools/datagram.h"
#include "tools/digest.h"
#include "tools/exit_status.h"
#include "tools/transfer_message.h"
#include "tools/udp_socket.h"

using namespace tarn_test;
using namespace tarn_tool;

namespace {

std::string number(std::size_t value, std::size_t width) {
  std::string bytes;
  for (std::size_t i = width; i-- > 0;) bytes += static_cast<char>(value >> (8 * i) & 0xff);
  return bytes;
}

// Header, conversation 77, and `message` whole as reliable number `seq`.
std::string datagram(std::size_t seq, const std::string& message) {
  return std::string("$\0\x1b\0\x04", 5) + number(77, 4) + std::string("\x03", 1) +
         number(message.size() + 2, 2) + number(seq, 2) + message;
}

class Stranger : public ToolFixture {
 protected:
  Stranger() : receiver_(start_receiver({"--timeout", "500"})) {
    std::string error;
    socket_ = UdpSocket::connect(*PeerAddress::resolve(address_of(*receiver_), error), error);
  }

  // A receiver that has got through it all still serves a real sender.
  void expect_alive() {
    const auto sent = run({"send", address_of(*receiver_), make_file("f", noise(5000))});
    EXPECT_EQ(sent.status, kSuccess) << sent.errors;
    EXPECT_TRUE(read("received/f") == noise(5000));
  }

  // Greets, and waits for the answer.
  void greet() {
    socket_->send(datagram(0, encode(Hello{1400})));
    EXPECT_TRUE(hears(encode(Welcome{512})));
  }

  // Greets, sends `message` next, and expects to be told off with a reason that holds `reason`.
  void expect_refusal(const std::string& message, const std::string& reason) {
    socket_->send(datagram(0, encode(Hello{1400})));
    socket_->send(datagram(1, message));
    EXPECT_TRUE(receiver_->wait_for_error_text(reason)) << receiver_->errors();
    EXPECT_TRUE(hears(reason));
    expect_alive();
  }

  // Whether a datagram with `text` in it comes back.
  bool hears(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd entry = {socket_->fd(), POLLIN, 0};
      poll(&entry, 1, 100);
      char buffer[2048];
      PeerAddress from;
      const auto size = socket_->receive(buffer, sizeof(buffer), from);
      if (size && std::string(buffer, *size).find(text) != std::string::npos) return true;
    }
    return false;
  }

  // Reads what comes within `span`. The highest number below 32768 that it acknowledges, or -1.
  int hear_acknowledged(std::chrono::milliseconds span) {
    const auto deadline = std::chrono::steady_clock::now() + span;
    int highest = -1;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd entry = {socket_->fd(), POLLIN, 0};
      poll(&entry, 1, 1);
      char buffer[2048];
      PeerAddress from;
      const auto size = socket_->receive(buffer, sizeof(buffer), from);
      if (!size) continue;
      DatagramReader reader({buffer, *size});
      Segment segment;
      while (reader.next(segment)) {
        if (segment.type != kAckList && segment.type != kUna) continue;
        for (std::size_t at = 0; at + 2 <= segment.body.size(); at += 2) {
          const int seq = read_u16(segment.body.substr(at));
          if (seq < 32768) highest = std::max(highest, seq);
        }
      }
    }
    return highest;
  }

  std::unique_ptr<ChildProcess> receiver_;
  std::shared_ptr<UdpSocket> socket_;
};

}  // namespace

TEST_F(Stranger, NoiseIsIgnored) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    std::string bytes = noise(random() % 60, static_cast<unsigned>(i));
    if (i % 2 == 0 && bytes.size() > 2) bytes.replace(0, 2, std::string("$\0", 2));
    socket_->send(bytes);
  }

  expect_alive();
}

TEST_F(Stranger, NoiseInsideAConversationEndsIt) {
  socket_->send(datagram(0, encode(Hello{1400})));
  for (unsigned i = 1; i < 300; ++i) socket_->send(datagram(i, noise(1 + i % 50, i)));

  EXPECT_TRUE(receiver_->wait_for_error_text("sent a")) << receiver_->errors();
  expect_alive();
}

TEST_F(Stranger, MessagesWithoutGreetingStartNothing) {
  socket_->send(datagram(0, encode(Offer{5, "evil"})));
  socket_->send(datagram(1, encode(Data{"12345"})));

  expect_alive();
  EXPECT_FALSE(exists("received/evil"));
}

TEST_F(Stranger, DataWithoutAFileIsRefused) {
  expect_refusal(encode(Data{"x"}), "data without a file");
}

TEST_F(Stranger, ASecondGreetingIsRefused) {
  expect_refusal(encode(Hello{1400}), "a second greeting");
}

TEST_F(Stranger, AReceiversMessageIsRefused) {
  expect_refusal(encode(Welcome{1}), "a receiver's message");
}

TEST_F(Stranger, AnUnknownMessageIsRefused) { expect_refusal("\x7f", "a malformed message"); }

TEST_F(Stranger, AMessageLargerThanAnnouncedIsRefused) {
  expect_refusal(encode(Data{std::string(1400, 'x')}), "a malformed message");
}

TEST_F(Stranger, AMessageWithoutAnEndIsRefused) {
  greet();
  // First, middle, middle ... of one message.
  for (unsigned i = 1; i < 60; ++i) {
    std::string piece = datagram(i, std::string(1300, 'x'));
    piece[9] = static_cast<char>(i == 1 ? kFirst : kMiddle);
    socket_->send(piece);
  }

  EXPECT_TRUE(receiver_->wait_for_error_text("sent too much")) << receiver_->errors();
  expect_alive();
}

// The output takes nothing, and the sender does not care. A pipe and a mebibyte are 56 messages,
// the window keeps 16 more.
TEST_F(Stranger, WhatAStuckOutputHasNoRoomForIsNotTaken) {
  const auto stuck = start_receiver({"-o", "-", "--window", "16"}, "", true);
  std::string error;
  socket_ = UdpSocket::connect(*PeerAddress::resolve(address_of(*stuck), error), error);
  socket_->send(datagram(0, encode(Hello{60000})));
  ASSERT_TRUE(hears(encode(Welcome{16})));
  const std::string message = encode(Data{std::string(20000, 'x')});

  socket_->send(datagram(1, encode(Offer{std::nullopt, "big"})));
  int acknowledged = -1;
  for (int round = 0; round < 10; ++round) {
    for (unsigned i = 2; i < 200; ++i) socket_->send(datagram(i, message));
    acknowledged = std::max(acknowledged, hear_acknowledged(std::chrono::milliseconds(30)));
  }

  EXPECT_GE(acknowledged, 60);
  EXPECT_LE(acknowledged, 80);
  EXPECT_TRUE(stuck->running()) << stuck->errors();
}

TEST_F(Stranger, ANameCannotLeaveTheFolder) {
  greet();
  socket_->send(datagram(1, encode(Offer{1, "../../escaped"})));
  socket_->send(datagram(2, encode(Data{"x"})));

  EXPECT_TRUE(wait_for_content("received/escaped", "x")) << receiver_->errors();
  EXPECT_FALSE(exists("../escaped"));
  EXPECT_FALSE(exists("escaped"));
}

TEST_F(Stranger, AWrongDigestIsReportedAndTheFileRemoved) {
  greet();
  socket_->send(datagram(1, encode(Offer{1, "g"})));
  socket_->send(datagram(2, encode(Data{"x"})));
  socket_->send(datagram(3, encode(End{1, Sha256{}})));
  Digest digest;
  digest.update("x");
  EXPECT_TRUE(hears(encode(tarn_tool::Result{false, 1, digest.finish()})));
  socket_->send(datagram(4, encode(Done{})));

  expect_alive();
  EXPECT_FALSE(exists("received/g"));
  receiver_->signal(SIGTERM);
  EXPECT_EQ(receiver_->wait(), kMismatch) << receiver_->output();
  EXPECT_NE(receiver_->output().find("had announced 1 bytes, sha256 0000"), std::string::npos);
}

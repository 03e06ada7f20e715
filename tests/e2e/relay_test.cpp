// The bad link between real sockets.
#include <poll.h>
#include <signal.h>

#include <chrono>
#include <vector>

#include "tests/e2e/tool_fixture.h"
#include "tools/exit_status.h"
#include "tools/udp_socket.h"

using namespace tarn_test;
using namespace tarn_tool;

namespace {

class RelayProcess : public ToolFixture {
 protected:
  RelayProcess() {
    std::string error;
    server_ = UdpSocket::bind(*PeerAddress::resolve_listener("127.0.0.1:0", error), error);
  }

  std::shared_ptr<UdpSocket> client_of(ChildProcess& relay) {
    std::string error;
    return UdpSocket::connect(*PeerAddress::resolve(address_of(relay), error), error);
  }

  // The next datagram, or "" when none comes within `patience`.
  static std::string receive(UdpSocket& socket, PeerAddress& from,
                             std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    pollfd entry = {socket.fd(), POLLIN, 0};
    poll(&entry, 1, static_cast<int>(patience.count()));
    char buffer[2048];
    const auto size = socket.receive(buffer, sizeof(buffer), from);
    return size ? std::string(buffer, *size) : "";
  }

  // Sends 200 numbered datagrams through a relay with `options` and waits for its end. What came
  // through, in order.
  std::vector<std::string> cross(Arguments options) {
    options.insert(options.end(), {"--idle", "200ms"});
    const auto relay = start_relay(server_->local_address().text(), options);
    const auto client = client_of(*relay);
    for (int i = 0; i < 200; ++i) client->send(std::to_string(i));
    EXPECT_EQ(relay->wait(), kSuccess);
    report_ = relay->output();
    std::vector<std::string> arrived;
    PeerAddress from;
    while (true) {
      std::string datagram = receive(*server_, from, std::chrono::milliseconds(0));
      if (datagram.empty()) return arrived;
      arrived.push_back(std::move(datagram));
    }
  }

  std::shared_ptr<UdpSocket> server_;
  std::string report_;
};

}  // namespace

TEST_F(RelayProcess, PassesEverythingWhenTheLinkIsGood) {
  const auto arrived = cross({});

  ASSERT_EQ(arrived.size(), 200u);
  EXPECT_EQ(arrived.front(), "0");
  EXPECT_EQ(arrived.back(), "199");
  EXPECT_NE(report_.find("to the server: received 200, lost 0, dropped by the queue 0, "
                         "duplicated 0, reordered 0, forwarded 200 (490 bytes)"),
            std::string::npos)
      << report_;
}

TEST_F(RelayProcess, DoesTheSameAgainWithTheSameSeed) {
  const Arguments bad{"--loss", "30%", "--duplicate", "10%", "--seed", "42"};

  const auto once = cross(bad);
  const auto again = cross(bad);

  EXPECT_LT(once.size(), 200u);
  EXPECT_EQ(once, again);
}

TEST_F(RelayProcess, DoesSomethingElseWithAnotherSeed) {
  EXPECT_NE(cross({"--loss", "30%", "--seed", "1"}), cross({"--loss", "30%", "--seed", "2"}));
}

TEST_F(RelayProcess, CountsWhatItDid) {
  const auto arrived = cross({"--loss", "30%", "--duplicate", "10%", "--seed", "42"});

  EXPECT_NE(report_.find("forwarded " + std::to_string(arrived.size()) + " "), std::string::npos)
      << report_;
}

TEST_F(RelayProcess, DropsWhatTheQueueCannotHold) {
  const auto arrived = cross({"--rate", "8kbit", "--queue", "100"});

  EXPECT_LT(arrived.size(), 100u);
  EXPECT_EQ(report_.find("dropped by the queue 0, duplicated 0, reordered 0, forwarded 1"),
            std::string::npos)
      << report_;
}

TEST_F(RelayProcess, KeepsClientsApart) {
  const auto relay = start_relay(server_->local_address().text(), {});
  const auto first = client_of(*relay);
  const auto second = client_of(*relay);
  PeerAddress first_seen;
  PeerAddress second_seen;

  first->send("from first");
  EXPECT_EQ(receive(*server_, first_seen), "from first");
  second->send("from second");
  EXPECT_EQ(receive(*server_, second_seen), "from second");
  server_->send_to("to second", second_seen);
  server_->send_to("to first", first_seen);

  PeerAddress from;
  EXPECT_EQ(receive(*second, from), "to second");
  EXPECT_EQ(receive(*first, from), "to first");
  relay->signal(SIGTERM);
  EXPECT_EQ(relay->wait(), kSuccess);
  EXPECT_NE(relay->output().find("relayed 2 clients"), std::string::npos) << relay->output();
}

TEST_F(RelayProcess, DelaysBothWays) {
  const auto relay = start_relay(server_->local_address().text(), {"--delay", "60ms"});
  const auto client = client_of(*relay);
  PeerAddress from;
  const auto start = std::chrono::steady_clock::now();

  client->send("ping");
  EXPECT_EQ(receive(*server_, from), "ping");
  server_->send_to("pong", from);
  EXPECT_EQ(receive(*client, from), "pong");

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
}

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/datagram_entrance.h"
#include "tools/listener_entrance.h"
#include "tools/receive_server.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

std::unique_ptr<Entrance> open_entrance(const PeerAddress& address, const SessionSettings& settings,
                                        std::string& error) {
  if (settings.transport != Transport::kDatagrams) {
    return ListenerEntrance::open(address, settings, error);
  }
  auto socket = UdpSocket::bind(address, error);
  if (!socket) return nullptr;
  return std::make_unique<DatagramEntrance>(std::move(socket), settings);
}

}  // namespace

int run_receive(const ReceiveOptions& options) {
  std::string error;
  const auto address = PeerAddress::resolve_listener(options.listener, error);
  if (address) start_library(options.settings);
  auto entrance = address ? open_entrance(*address, options.settings, error) : nullptr;
  if (!entrance) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  say(stderr, fmt::format("listening on port {}", entrance->port()));
  // One output holds one conversation: a second sender would write over the first one's bytes.
  const bool once = options.once || options.output.has_value();
  return ReceiveServer(std::move(entrance), {options.output, once, options.settings}).run();
}

}  // namespace tarn_tool

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/receive_server.h"
#include "tools/terminal.h"

namespace tarn_tool {

int run_receive(const ReceiveOptions& options) {
  std::string error;
  const auto listener = PeerAddress::resolve_listener(options.listener, error);
  const auto socket = listener ? UdpSocket::bind(*listener, error) : nullptr;
  if (!socket) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  start_library(options.settings);
  say(stderr, fmt::format("listening on port {}", socket->local_address().port()));
  // One output holds one conversation: a second sender would write over the first one's bytes.
  const bool once = options.once || options.output.has_value();
  return ReceiveServer(socket, {options.output, once, options.settings}).run();
}

}  // namespace tarn_tool

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/exit_status.h"
#include "tools/interrupt.h"
#include "tools/relay.h"
#include "tools/terminal.h"

namespace tarn_tool {
namespace {

constexpr Microseconds kPatience{100000};

// Ends a relay that nobody uses any more. Before the first datagram it waits for ever.
class IdleWatch {
 public:
  explicit IdleWatch(std::optional<Microseconds> limit) : limit_(limit) {}

  void look(bool busy) {
    const TimePoint now = Clock::now();
    if (busy) {
      started_ = true;
      last_busy_ = now;
    }
    over_ = limit_ && started_ && now - last_busy_ > *limit_;
  }
  bool over() const { return over_; }

 private:
  const std::optional<Microseconds> limit_;
  bool started_ = false;
  TimePoint last_busy_;
  bool over_ = false;
};

}  // namespace

int run_relay(const RelayOptions& options) {
  std::string error;
  const auto target = PeerAddress::resolve(options.target, error);
  const auto listener =
      target ? PeerAddress::resolve_listener(options.listener, error) : std::nullopt;
  const auto socket = listener ? UdpSocket::bind(*listener, error) : nullptr;
  if (!socket) {
    say(stderr, fmt::format("tarn: {}", error));
    return kFailure;
  }
  say(stderr,
      fmt::format("relaying port {} to {}", socket->local_address().port(), target->text()));
  Relay relay(socket, *target, options.link, options.seed);
  IdleWatch idle(options.idle);
  while (interrupted_by() == 0 && !idle.over()) {
    const bool arrived = relay.turn(kPatience);
    idle.look(arrived || relay.held() > 0);
  }
  say(stdout, relay.report());
  return kSuccess;
}

}  // namespace tarn_tool

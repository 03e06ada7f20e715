#include "tools/conversation.h"

#include <fmt/format.h>

namespace tarn_tool {
namespace {

// Ten farewells in 200 ms: with one datagram in ten lost, all of them get lost once in 10^10 times.
constexpr int kFarewells = 10;
constexpr std::chrono::milliseconds kFarewellSpan{20};

// A sender repeats its last message until it is acknowledged; silence for a few of those rounds
// says that it was.
constexpr std::chrono::milliseconds kLinger{600};

}  // namespace

void Conversation::tick(TimePoint now) {
  if (now < next_sign_) return;
  if (farewell_.empty()) {
    send_sign();
    next_sign_ = now + kSignSpan;
  } else if (farewells_left_ > 0) {
    send_farewell(farewell_);
    --farewells_left_;
    next_sign_ = now + kFarewellSpan;
  }
}

void Conversation::part(const std::string& reason, TimePoint now) {
  farewell_ = encode(Abort{reason});
  farewells_left_ = kFarewells;
  next_sign_ = now;
}

bool Conversation::may_close() const { return silence() > kLinger; }

std::optional<Outcome> Conversation::trouble() const {
  const auto known = problem();
  if (known || silence() <= settings_.timeout) return known;
  const std::string error = last_error();
  return Outcome{kPeerSilent,
                 fmt::format("nothing heard from {} for {} ms{}", peer_, settings_.timeout.count(),
                             error.empty() ? "" : " (" + error + ")"),
                 true};
}

}  // namespace tarn_tool

#include "tests/sim/control_watch.h"

#include <errno.h>
#include <fmt/format.h>

#include <algorithm>

#include "tests/sim/failure.h"

namespace tarn_sim {
namespace {

struct Counter {
  const char* name;
  uint64_t TarnStats::*value;
  bool needs_trust;  // depends on what a damaged datagram is taken for
};

constexpr Counter kCounters[] = {
    {"messages_sent", &TarnStats::messages_sent, false},
    {"message_bytes_sent", &TarnStats::message_bytes_sent, false},
    {"messages_delivered", &TarnStats::messages_delivered, false},
    {"message_bytes_delivered", &TarnStats::message_bytes_delivered, false},
    {"messages_refused", &TarnStats::messages_refused, false},
    {"unreliable_sent", &TarnStats::unreliable_sent, false},
    {"unreliable_delivered", &TarnStats::unreliable_delivered, false},
    {"segments_sent", &TarnStats::segments_sent, false},
    {"segments_resent", &TarnStats::segments_resent, false},
    {"segments_carried", &TarnStats::segments_carried, false},
    {"segments_received", &TarnStats::segments_received, false},
    {"segments_repeated", &TarnStats::segments_repeated, true},
    {"segments_rejected", &TarnStats::segments_rejected, true},
    {"datagrams_sent", &TarnStats::datagrams_sent, false},
    {"datagram_bytes_sent", &TarnStats::datagram_bytes_sent, false},
    {"datagrams_received", &TarnStats::datagrams_received, false},
    {"datagram_bytes_received", &TarnStats::datagram_bytes_received, false},
};

}  // namespace

ControlWatch::Attempt ControlWatch::begin(size_t size) {
  ++attempts_;
  return {size, world_.scheduler().points(), ++calls_, feeds_};
}

void ControlWatch::end_send(const Attempt& attempt, bool taken) {
  check_room(attempt, taken);
  if (taken) {
    ++seen_.messages_sent;
    seen_.message_bytes_sent += attempt.size;
  } else {
    ++seen_.messages_refused;
  }
}

void ControlWatch::end_try(const Attempt& attempt, int result) {
  --tries_;
  switch (result) {
    case 0:
      end_send(attempt, true);
      break;
    case -EAGAIN:
      end_send(attempt, false);
      ++refusals_;
      refused_at_ = std::max(refused_at_, attempt.begun);
      break;
    case -EMSGSIZE:
      if (attempt.size <= limits_.longest_message()) {
        fail("{}: a message of {} bytes is too long, but {} are not", name_, attempt.size,
             limits_.longest_message());
      }
      break;
    case -ESHUTDOWN:
    case -EBADF:
      break;
    default:
      fail("{}: tarn_try_send_reliable returns {}", name_, result);
  }
}

// If nobody else has sent meanwhile there has been no less room, and no more either if nothing has
// come.
void ControlWatch::check_room(const Attempt& attempt, bool taken) const {
  if (!attempt.room || attempt.calls != calls_) return;
  if (!taken && attempt.size <= *attempt.room) {
    fail("{}: a message of {} bytes is refused, but there was room for {}", name_, attempt.size,
         *attempt.room);
  }
  if (taken && attempt.size > *attempt.room && attempt.feeds == feeds_) {
    fail("{}: a message of {} bytes is taken, but there was room for {}", name_, attempt.size,
         *attempt.room);
  }
}

// It may run before the refused call has returned.
void ControlWatch::begin_telling() {
  if (is_telling_) fail("{}: two writable callbacks at a time", name_);
  is_telling_ = true;
  if (++tellings_ > refusals_ + tries_) {
    fail("{}: writable callback number {} after {} refusals", name_, tellings_, refusals_);
  }
  told_at_ = world_.scheduler().points();
}

ControlWatch::Pause ControlWatch::begin_pause(bool on) {
  if (!on) {
    ++resumes_;
    is_paused_ = false;
  }
  return {on, resumes_};
}

void ControlWatch::end_pause(const Pause& pause, bool others) {
  if (!pause.on || pause.resumes != resumes_) return;
  is_paused_ = true;
  one_may_come_ = others;
}

void ControlWatch::on_delivery(size_t size) {
  ++seen_.messages_delivered;
  seen_.message_bytes_delivered += size;
  if (size > limits_.longest_message_received) {
    fail("{}: a message of {} bytes is delivered, allowed {}", name_, size,
         limits_.longest_message_received);
  }
  if (!is_paused_) return;
  if (!one_may_come_) fail("{}: a message is delivered while the session is paused", name_);
  one_may_come_ = false;
}

void ControlWatch::on_too_large() {
  if (limits_.longest_message_received == UINT64_MAX) {
    fail("{}: a message is too large for a session without a limit", name_);
  }
  if (is_too_large_) fail("{}: a message is too large for the second time", name_);
  is_too_large_ = true;
}

std::string ControlWatch::find_difference(const TarnStats& stats, bool is_trusted) const {
  for (const Counter& each : kCounters) {
    if (each.needs_trust && !is_trusted) continue;
    if (stats.*each.value != seen_.*each.value) {
      return fmt::format("{} is {}, seen were {}", each.name, stats.*each.value, seen_.*each.value);
    }
  }
  return {};
}

}  // namespace tarn_sim

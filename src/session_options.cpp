#include "src/session_options.h"

#include <limits.h>
#include <stdint.h>

#include "src/wire_format.h"

namespace {

constexpr long long kMostSegments = 4096;
constexpr long long kMostBytes = 1LL << 40;

struct Range {
  long long least;
  long long most;
  long long unset;  // what an option reads as that was never set
};

// By option. The first four read as the process's settings while they are not set.
constexpr Range kRanges[] = {
    {0, -1, 0},  // there is no option 0
    {1, wire::kMaxReliablePayload, 0},
    {0, UINT32_MAX, 0},
    {1, kMostSegments, 0},
    {1, kMostSegments, 0},
    {0, kMostBytes, 0},      // SEND_QUEUE
    {-1, kMostSegments, 0},  // PEER_WINDOW
    {0, kMostBytes, 0},      // MAX_MESSAGE
    {0, INT_MAX, 0},         // KEEP_ALIVE_MS
    {0, INT_MAX, 0},         // PEER_TIMEOUT_MS
    {0, 1, 0},               // STRICT_CONV
    {-1, -1, -1},            // ACK_DELAY_MS
    {0, 0, 0},               // ACK_EVERY
    {TARN_RESEND_ROTATION, TARN_RESEND_ROTATION, TARN_RESEND_ROTATION},
    {0, 0, 0},  // CARRY
    {TARN_PACING_NONE, TARN_PACING_NONE, TARN_PACING_NONE},
    {0, 0, 0},  // COALESCE_MS
};

}  // namespace

SessionOptions::SessionOptions() { clear(); }

bool SessionOptions::exists(TarnOption option) { return option > 0 && option < kCount; }

bool SessionOptions::accepts(TarnOption option, long long value) {
  static_assert(sizeof kRanges / sizeof kRanges[0] == kCount);
  if (!exists(option)) return false;
  const Range& range = kRanges[option];
  return value >= range.least && value <= range.most;
}

void SessionOptions::set(TarnOption option, long long value) {
  const auto limit = static_cast<unsigned int>(value);
  if (option == TARN_OPTION_ACTIVE_TIMEOUT_MS) active_timeout_ = limit;
  if (option == TARN_OPTION_SEND_WINDOW) send_window_ = limit;
  if (option == TARN_OPTION_RECV_WINDOW) recv_window_ = limit;
  values_[option] = value;
  is_set_[option] = true;
  any_ = true;
}

long long SessionOptions::get(TarnOption option) const {
  if (is_set_[option]) return values_[option];
  const TarnConfig& process = *TarnConfig::instance();
  switch (option) {
    case TARN_OPTION_MTU:
      return process.mtu;
    case TARN_OPTION_ACTIVE_TIMEOUT_MS:
      return process.active_timeout;
    case TARN_OPTION_SEND_WINDOW:
      return process.send_window_size;
    case TARN_OPTION_RECV_WINDOW:
      return process.recv_window_size;
    default:
      return kRanges[option].unset;
  }
}

void SessionOptions::clear() {
  any_ = false;
  for (int i = 0; i < kCount; ++i) {
    is_set_[i] = false;
    values_[i] = kRanges[i].unset;
  }
}

const SessionOptions::Limit* SessionOptions::active_timeout() const {
  return is_set_[TARN_OPTION_ACTIVE_TIMEOUT_MS] ? &active_timeout_
                                                : &TarnConfig::instance()->active_timeout;
}

const SessionOptions::Limit* SessionOptions::send_window() const {
  return is_set_[TARN_OPTION_SEND_WINDOW] ? &send_window_
                                          : &TarnConfig::instance()->send_window_size;
}

const SessionOptions::Limit* SessionOptions::recv_window() const {
  return is_set_[TARN_OPTION_RECV_WINDOW] ? &recv_window_
                                          : &TarnConfig::instance()->recv_window_size;
}

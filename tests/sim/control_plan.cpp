#include "tests/sim/control_plan.h"

#include <algorithm>
#include <utility>

namespace tarn_sim {
namespace {

constexpr uint64_t kUnlimitedAhead = 16383;
constexpr long long kMebibyte = 1024 * 1024;

std::vector<OptionSetting> settings_of(TarnProfile profile, const Settings& settings) {
  if (profile == TARN_PROFILE_PLAIN) return {};
  const bool bulk = profile == TARN_PROFILE_BULK;
  const long long window = bulk ? 1024 : 256;
  return {{TARN_OPTION_SEND_QUEUE, bulk ? 8 * kMebibyte : kMebibyte},
          {TARN_OPTION_SEND_WINDOW, window},
          {TARN_OPTION_RECV_WINDOW, window},
          {TARN_OPTION_PEER_WINDOW, -1},
          {TARN_OPTION_MAX_MESSAGE, 64 * kMebibyte},
          {TARN_OPTION_PEER_TIMEOUT_MS, settings.active_timeout}};
}

bool is_set(const std::vector<OptionSetting>& in, TarnOption option) {
  return std::any_of(in.begin(), in.end(),
                     [option](const OptionSetting& each) { return each.option == option; });
}

}  // namespace

ControlLimits::ControlLimits(const Settings& settings, const ControlPlan& plan)
    : mtu(settings.mtu),
      most_sent(settings.send_window),
      least_sent(settings.send_window),
      most_early(settings.recv_window),
      least_early(settings.recv_window),
      active_timeout(settings.active_timeout) {
  std::vector<OptionSetting> all = settings_of(plan.profile, settings);
  all.insert(all.end(), plan.options.begin(), plan.options.end());
  has_options = !all.empty() || !plan.changes.empty();
  // From the first call on what is set replaces what the process has.
  const bool replaces = plan.on && !plan.late;
  begins_with_options = replaces && !all.empty();
  if (replaces && is_set(all, TARN_OPTION_SEND_WINDOW)) {
    most_sent = 0;
    least_sent = UINT32_MAX;
  }
  if (replaces && is_set(all, TARN_OPTION_RECV_WINDOW)) {
    most_early = 0;
    least_early = UINT32_MAX;
  }
  if (!replaces || !is_set(all, TARN_OPTION_SEND_QUEUE)) least_queued = 0;
  if (!replaces || !is_set(all, TARN_OPTION_PEER_WINDOW)) most_ahead = kUnlimitedAhead;
  all.insert(all.end(), plan.changes.begin(), plan.changes.end());
  for (const OptionSetting& each : all) allow(each);
}

void ControlLimits::allow(const OptionSetting& setting) {
  const auto value = static_cast<uint64_t>(setting.value);
  const auto count = static_cast<unsigned int>(setting.value);
  switch (setting.option) {
    case TARN_OPTION_MTU:
      mtu = count;
      break;
    case TARN_OPTION_ACTIVE_TIMEOUT_MS:
      active_timeout = std::min(active_timeout, count);
      break;
    case TARN_OPTION_SEND_WINDOW:
      most_sent = std::max(most_sent, count);
      least_sent = std::min(least_sent, count);
      break;
    case TARN_OPTION_RECV_WINDOW:
      most_early = std::max(most_early, count);
      least_early = std::min(least_early, count);
      break;
    case TARN_OPTION_SEND_QUEUE:
      most_queued = std::max(most_queued, value);
      least_queued = std::min(least_queued, value);
      break;
    case TARN_OPTION_PEER_WINDOW:
      most_ahead = std::max(most_ahead, setting.value > 0 ? value : kUnlimitedAhead);
      break;
    case TARN_OPTION_MAX_MESSAGE:
      if (value > 0) longest_message_received = std::min(longest_message_received, value);
      break;
    case TARN_OPTION_KEEP_ALIVE_MS:
      keeps_alive = keeps_alive || value > 0;
      break;
    case TARN_OPTION_PEER_TIMEOUT_MS:
      if (value > 0) peer_timeout = peer_timeout == 0 ? count : std::min(peer_timeout, count);
      break;
    case TARN_OPTION_STRICT_CONV:
      is_strict = is_strict || value != 0;
      break;
    default:
      break;
  }
}

size_t ControlLimits::longest_message() const {
  return static_cast<size_t>(uint64_t{least_sent} * mtu + least_queued);
}

}  // namespace tarn_sim

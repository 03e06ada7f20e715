#include "tests/support/lossy_link.h"

#include <algorithm>

#include "tarn/tarn.h"
#include "tests/support/scripted_peer.h"

namespace tarn_test {

LossyLink::LossyLink(uint64_t seed, LinkFaults faults) : random_(seed), faults_(faults) {}

void LossyLink::connect(void* a, void* b) {
  a_ = a;
  b_ = b;
  towards_a_.to = a;
  towards_b_.to = b;
  tarn_set_output_callback(a, on_output, &towards_b_);
  tarn_set_output_callback(b, on_output, &towards_a_);
}

void LossyLink::disconnect() {
  tarn_set_output_callback(a_, nullptr, nullptr);
  tarn_set_output_callback(b_, nullptr, nullptr);
}

int LossyLink::on_output(char* data, int len, void* path) {
  auto* self = static_cast<Path*>(path);
  const std::lock_guard<std::mutex> lock(self->guard);
  self->entering.emplace_back(data, data + len);
  return 0;
}

void LossyLink::pump() {
  admit(towards_a_);
  admit(towards_b_);
  deliver(towards_a_);
  deliver(towards_b_);
}

void LossyLink::admit(Path& path) {
  std::vector<Bytes> entering;
  {
    const std::lock_guard<std::mutex> lock(path.guard);
    entering.swap(path.entering);
  }
  for (Bytes& one : entering) {
    if (chance(faults_.loss)) {
      ++lost_;
      continue;
    }
    const auto delay = [this] {
      return chance(faults_.reordering) ? static_cast<int>(1 + random_() % 5) : 0;
    };
    if (chance(faults_.duplication)) path.under_way.push_back({one, delay()});
    path.under_way.push_back({std::move(one), delay()});
  }
}

void LossyLink::deliver(Path& path) {
  std::vector<Bytes> due;
  for (UnderWay& each : path.under_way) {
    if (each.rounds-- == 0) due.push_back(std::move(each.bytes));
  }
  path.under_way.erase(std::remove_if(path.under_way.begin(), path.under_way.end(),
                                      [](const UnderWay& each) { return each.rounds < 0; }),
                       path.under_way.end());
  if (chance(faults_.reordering)) std::shuffle(due.begin(), due.end(), random_);
  for (const Bytes& one : due) {
    note_una(path, one);
    feed(path.to, one);
  }
}

void LossyLink::note_una(Path& path, const Bytes& bytes) {
  for (const WireSegment& each : segments_of(bytes)) {
    if (each.type != kUna) continue;
    // How many numbers it is ahead of the last one known; a repeat or an older one is far ahead.
    const auto ahead = static_cast<uint16_t>(each.seq() + 1 - path.acknowledged);
    if (ahead < 32768) path.acknowledged += ahead;
  }
}

bool LossyLink::chance(double share) {
  return share > 0 && std::uniform_real_distribution<double>(0, 1)(random_) < share;
}

}  // namespace tarn_test

#include "tarn_io/poll_pace.h"

#include <algorithm>

namespace {

constexpr size_t kManyDescriptors = 32;
constexpr size_t kFewDescriptors = 16;
constexpr unsigned int kBusyPasses = 64;
// From one look to the next: the more descriptors, the more passes, since each of them is looked
// at.
constexpr size_t kPassesPerDescriptor = 32;
constexpr size_t kMostPasses = 1024;
constexpr int kLookPeriod = 1000;   // ms
constexpr int kLongestOfFew = 100;  // ms

}  // namespace

bool PollPace::is_few(size_t watched) { return watched < kFewDescriptors; }

int PollPace::longest_wait(size_t watched) { return is_few(watched) ? kLongestOfFew : kLookPeriod; }

bool PollPace::wants_set(size_t watched) const {
  return watched >= kManyDescriptors || busy_passes_ >= kBusyPasses;
}

bool PollPace::is_look_due(int64_t now) const {
  return passes_to_look_ == 0 || now - looked_at_ >= kLookPeriod;
}

void PollPace::note_look(size_t watched, int64_t now) {
  passes_to_look_ = std::min(kPassesPerDescriptor * watched, kMostPasses);
  looked_at_ = now;
}

void PollPace::note_pass(bool found_something) {
  if (!found_something) {
    calm_down();
    return;
  }
  if (passes_to_look_ != 0) --passes_to_look_;
  if (busy_passes_ < kBusyPasses) ++busy_passes_;
}

void PollPace::calm_down() {
  busy_passes_ = 0;
  passes_to_look_ = 0;
}

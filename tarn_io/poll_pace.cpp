#include "tarn_io/poll_pace.h"

#include <algorithm>

namespace {

constexpr size_t kMany = 32;
constexpr size_t kFew = 16;
constexpr unsigned int kBusy = 64;
// From one look to the next: the more descriptors, the more passes, since each of them is looked
// at.
constexpr size_t kPassesPerDescriptor = 32;
constexpr size_t kMostPasses = 1024;
constexpr int kLongest = 1000;  // ms
// ms; the same with few descriptors, and how long they have a set that has nothing to tell
constexpr int kQuiet = 100;

}  // namespace

bool PollPace::is_few(size_t watched) { return watched < kFew; }

int PollPace::longest_wait(size_t watched) { return is_few(watched) ? kQuiet : kLongest; }

bool PollPace::wants_set(size_t watched) const { return watched >= kMany || busy_passes_ >= kBusy; }

bool PollPace::is_look_due(int64_t now) const {
  return passes_to_look_ == 0 || now - looked_at_ >= kLongest;
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
  if (busy_passes_ < kBusy) ++busy_passes_;
}

void PollPace::calm_down() {
  busy_passes_ = 0;
  passes_to_look_ = 0;
}

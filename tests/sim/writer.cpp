#include "tests/sim/writer.h"

#include <errno.h>

namespace tarn_sim {

void Writer::write(size_t size) {
  waiting_.push_back(size);
  if (!is_refused_) pump();
}

void Writer::go_on() {
  is_refused_ = false;
  is_told_ = true;
  pump();
}

// A task that comes by meanwhile leaves its work to the one that is at it.
void Writer::pump() {
  if (is_pumping_) return;
  is_pumping_ = true;
  while (!waiting_.empty()) {
    is_told_ = false;
    const int result = send_(waiting_.front());
    if (result == -EAGAIN) {
      // The callback may have run before the refused call returned.
      if (is_told_) continue;
      is_refused_ = true;
      break;
    }
    if (result == 0) {
      waiting_.pop_front();
    } else {
      waiting_.clear();
    }
  }
  is_pumping_ = false;
}

}  // namespace tarn_sim

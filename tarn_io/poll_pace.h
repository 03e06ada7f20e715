// PollPace: which of its two waits the poller takes.
#ifndef TARN_TARN_IO_POLL_PACE_H_
#define TARN_TARN_IO_POLL_PACE_H_

#include <stddef.h>
#include <stdint.h>

// A wait by poll() looks at each descriptor; one on a set that the kernel keeps costs what is
// ready. So there is a set with many descriptors, and with fewer while the poller is busy: while
// pass after pass finds something. But the set does not tell of a descriptor that was closed or
// replaced while it was watched, and poll() does. So after so many passes or a second, and after
// one that found nothing, a pass goes by poll() all the same, which is called a look; and a wait
// on the set that lasts goes on as one.
//
// Owned by TarnPoller, whose polling thread alone calls.
class PollPace {
 public:
  // With few descriptors the set goes when a wait finds nothing, or something changes: then it is
  // not in the way of whoever counts descriptors.
  static bool is_few(size_t watched);
  // ms; for how long a wait goes on in the same way while there is a set.
  static int longest_wait(size_t watched);

  bool wants_set(size_t watched) const;
  // No pass has found anything since the last one that did not.
  bool is_calm() const { return busy_passes_ == 0; }

  // `now` is in milliseconds, of any clock that does not jump.
  bool is_look_due(int64_t now) const;
  // This pass is a look at so many descriptors.
  void note_look(size_t watched, int64_t now);
  // A pass is over.
  void note_pass(bool found_something);
  // Not busy any more.
  void calm_down();

 private:
  unsigned int busy_passes_ = 0;  // in a row
  size_t passes_to_look_ = 0;
  int64_t looked_at_ = 0;
};

#endif  // TARN_TARN_IO_POLL_PACE_H_

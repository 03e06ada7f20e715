// PollPace: which of its two waits the poller takes.
#ifndef TARN_TARN_IO_POLL_PACE_H_
#define TARN_TARN_IO_POLL_PACE_H_

#include <stddef.h>
#include <stdint.h>

// poll() looks at every descriptor; a wait on a set that the kernel keeps costs only what is ready.
// There is a set with many descriptors, and with fewer while every pass finds something. But a set
// does not tell of a descriptor that was closed or replaced while it was watched; poll() does. So
// now and then a pass goes by poll() although there is a set: this is called a look. One is due
// after a number of passes, after a second, and after a pass that found nothing. A wait on the set
// that has lasted for longest_wait() goes on as one.
//
// Owned by TarnPoller, whose polling thread alone calls.
class PollPace {
 public:
  // With few descriptors the set is closed as soon as a wait finds nothing or something changes, so
  // that a process at rest has no descriptor for it.
  static bool is_few(size_t watched);
  // Milliseconds for which a wait goes on in the same way while there is a set.
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

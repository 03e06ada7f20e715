// TarnPoller: turns readiness of descriptors into calls.
#ifndef TARN_TARN_IO_TARN_POLLER_H_
#define TARN_TARN_IO_TARN_POLLER_H_

#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/select.h>

#include <atomic>
#include <map>
#include <set>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/singleton.h"
#include "tarn_io/epoll_set.h"

// One per process. The I/O thread polls and runs the callbacks, one at a time; any thread may watch
// and unwatch, which takes effect in the wait that is under way. lock_ guards the map and is never
// held while a callback runs. The process's instance lives for ever.
//
// A pass waits on a set that the kernel keeps. Such a set does not tell of a descriptor that was
// closed or replaced while it was watched; poll() does. So a pass goes by poll() once a second, and
// as soon as a wait on the set has found nothing: this is called a look. While no set can be had,
// every pass goes by poll().
class TarnPoller : public oxutils::singleton<TarnPoller> {
 public:
  static constexpr bool kLivesForEver = true;

  // Up to three functions for a descriptor; a slot without one is not live.
  struct EventHandler {
    oxutils::Function read_func;
    oxutils::Function write_func;
    oxutils::Function error_func;
    // Another one whenever the first slot comes to life: descriptor numbers are used again.
    uint32_t generation = 0;
    short armed = 0;         // what the kernel's set watches for
    int64_t rest_until = 0;  // monotonic milliseconds; until then it is not polled
  };

  // Store a function in the slot, in place of an earlier one.
  void watch_read(int fd, oxutils::Function f) OX_EXCLUDES(lock_);
  void watch_write(int fd, oxutils::Function f) OX_EXCLUDES(lock_);
  void watch_error(int fd, oxutils::Function f) OX_EXCLUDES(lock_);
  // Empty the slot. A descriptor without live slots leaves the map in the next poll.
  void unwatch_read(int fd) OX_EXCLUDES(lock_);
  void unwatch_write(int fd) OX_EXCLUDES(lock_);
  void unwatch_error(int fd) OX_EXCLUDES(lock_);
  // Does not poll the descriptor for `ms` milliseconds, unless everything is unwatched before.
  void pause(int fd, int ms) OX_EXCLUDES(lock_);
  // Ends a pause, or the rest that a descriptor takes after an error (10 ms) or a hang-up (100 ms).
  void resume(int fd) OX_EXCLUDES(lock_);

  // What to poll for: POLLIN, POLLOUT and POLLERR for the live slots.
  short get_events_flag(EventHandler& handler);

  // I/O thread only: waits for at most `timeout` milliseconds, then runs what is ready, in
  // ascending order of descriptors. False at once when nothing is watched.
  bool poll(unsigned int timeout) OX_EXCLUDES(lock_);
  // The same by select(2); false also when that fails. Not used by the I/O thread.
  bool select(unsigned int timeout) OX_EXCLUDES(lock_);

  // Run the slots for one descriptor's events, or for all descriptors in the sets.
  void handle_event(int fd, short revents) OX_EXCLUDES(lock_);
  void handle_event(fd_set* read, fd_set* write, fd_set* error) OX_EXCLUDES(lock_);

  // `f` interrupts the wait of the polling thread; it is called, with no lock held, after a change
  // on any other thread. The first one stays until it is reset.
  void set_waker(const oxutils::Function& f) OX_EXCLUDES(lock_);
  void reset_waker(const oxutils::Function& f) OX_EXCLUDES(lock_);

 private:
  static constexpr uint32_t kAny = 0;  // generation
  static constexpr int kNone = -1;     // descriptor

  using Slot = oxutils::Function EventHandler::*;
  // What poll() looks at.
  struct Listed {
    std::vector<pollfd> fds;
    std::vector<uint32_t> generations;  // of each of them
  };

  void store(int fd, Slot slot, oxutils::Function f) OX_EXCLUDES(lock_);
  // The entry, if there is one of that generation.
  EventHandler* find(int fd, uint32_t generation) OX_REQUIRES(lock_);
  void wake() OX_EXCLUDES(lock_);

  // Runs what the events are for, with the rest that they may begin.
  void tell(const ReadyDescriptor& ready) OX_EXCLUDES(lock_);
  void dispatch(int fd, short revents, uint32_t generation) OX_EXCLUDES(lock_);
  // Run a slot of the entry, which must still be of the generation unless that is kAny. False when
  // there is nothing to run.
  bool run(int fd, Slot slot, uint32_t generation) OX_EXCLUDES(lock_);
  void run_write(int fd, uint32_t generation) OX_EXCLUDES(lock_);
  // Swaps the two, but what was held stays until let_go() if it may be running.
  void replace(oxutils::Function& held, oxutils::Function& f) OX_REQUIRES(lock_);
  void let_go() OX_EXCLUDES(lock_);
  // Begins the rest after an error or a hang-up, which come again at once whatever is polled for.
  void rest(const ReadyDescriptor& ready) OX_EXCLUDES(lock_);
  void rest_for(int fd, EventHandler& handler, int ms) OX_REQUIRES(lock_);

  // Does what there is to do before a wait on the kernel's set. What it returns is that, or kNone
  // if it does not know all that is watched. The timeout becomes less if a rest ends before.
  int settle(int& timeout) OX_EXCLUDES(lock_);
  // A pass by poll(). False at once when nothing is watched.
  bool look(int timeout) OX_EXCLUDES(lock_);
  // As settle(). False when nothing is watched.
  bool list_all(Listed& listed, int& timeout) OX_EXCLUDES(lock_);
  // Runs what is ready. False when nothing has happened.
  bool poll_listed(Listed& listed, int timeout) OX_EXCLUDES(lock_);
  // Drops entries without live slots and ends rests. The timeout becomes that of the next of them.
  void review(int& timeout) OX_REQUIRES(lock_);
  // Opens the set if there is none or it has failed.
  void renew_set() OX_REQUIRES(lock_);
  // What the entry is to be polled for now.
  short wanted(EventHandler& handler);
  // Tells the set.
  void arm(int fd, EventHandler& handler) OX_REQUIRES(lock_);
  void note_failure() OX_REQUIRES(lock_);
  // The next pass is to look at the entry before it waits.
  void note_review(int fd) OX_REQUIRES(lock_);

  bool fill_sets(fd_set* read, fd_set* write, fd_set* error, int& highest) OX_EXCLUDES(lock_);
  std::vector<int> watched() OX_EXCLUDES(lock_);

  oxutils::mutex lock_;
  uint32_t last_generation_ OX_GUARDED_BY(lock_) = kAny;
  std::map<int, EventHandler> handlers_ OX_GUARDED_BY(lock_);
  std::set<int> to_review_ OX_GUARDED_BY(lock_);  // what rests, or has no live slots
  EpollSet set_ OX_GUARDED_BY(lock_);             // opened and closed by the polling thread
  bool has_failed_ OX_GUARDED_BY(lock_) = false;  // the set lacks something
  oxutils::relaxed<int> settled_set_{kNone};      // set_ while a pass has nothing to do but to wait
  // Functions that were replaced while one ran, and may be that one.
  std::vector<oxutils::Function> retired_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<bool> has_retired_{false};
  std::atomic<int> running_{0};  // functions, one inside another
  oxutils::Function waker_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<pthread_t> polling_thread_{pthread_t{}};

  // I/O thread only.
  Listed spare_;         // memory for the next look
  int64_t look_at_ = 0;  // monotonic milliseconds
};

#endif  // TARN_TARN_IO_TARN_POLLER_H_

// TarnPoller: turns readiness of descriptors into calls.
#ifndef TARN_TARN_IO_TARN_POLLER_H_
#define TARN_TARN_IO_TARN_POLLER_H_

#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/select.h>

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/singleton.h"
#include "tarn_io/epoll_set.h"
#include "tarn_io/poll_list.h"
#include "tarn_io/poll_pace.h"
#include "tarn_io/ready_descriptor.h"

// One per process. The I/O thread polls and runs the callbacks, one at a time; any thread may watch
// and unwatch, which takes effect in the wait that is under way. lock_ guards the map and is never
// held while a callback runs. The process's instance lives for ever.
//
// A pass waits by poll() on a list of what is watched, or on a set that the kernel keeps (PollPace
// says when), and runs what the list holds as long as nothing has changed since it was made.
class TarnPoller : public oxutils::singleton<TarnPoller> {
 public:
  static constexpr bool kLivesForEver = true;

  // Up to three functions for a descriptor; a slot without one is not live.
  struct EventHandler {
    oxutils::Function read_func;
    oxutils::Function write_func;
    oxutils::Function error_func;
    // Monotonic milliseconds; until then the descriptor is left out of the poll.
    int64_t paused_until = 0;
    // Another one whenever the first slot comes to life: descriptor numbers are used again.
    uint32_t generation = 0;
  };

  TarnPoller();
  ~TarnPoller() override;

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
  using Slot = oxutils::Function EventHandler::*;

  // What one pass waits on, the set if there is one and else the list, and what comes of it.
  struct Pass {
    int set = -1;
    std::shared_ptr<const PollList> list;  // beside a set only if there is a list anyway
    int longest = INT_MAX;                 // ms, after which it goes on by the list as it is then
    std::vector<pollfd> memory;
    std::vector<ReadyDescriptor> ready;

    // Whether the next pass waits on the same set, and runs the same.
    bool is_lasting() const { return set >= 0 && list && !list->is_outdated(); }
    void clear();
  };

  void store(int fd, Slot slot, oxutils::Function f) OX_EXCLUDES(lock_);
  // Run a slot of the entry, which must still be of the generation unless that is kAny. False when
  // there is nothing to run.
  bool run(int fd, Slot slot, uint32_t generation) OX_EXCLUDES(lock_);
  void run_write(int fd, uint32_t generation) OX_EXCLUDES(lock_);
  void dispatch(const Pass& pass, const ReadyDescriptor& ready) OX_EXCLUDES(lock_);
  void dispatch(int fd, short revents, uint32_t generation) OX_EXCLUDES(lock_);
  // Begins the rest after an error or a hang-up, which come again at once whatever is polled for.
  void rest(const ReadyDescriptor& ready) OX_EXCLUDES(lock_);
  // The entry, if there is one of that generation.
  EventHandler* find(int fd, uint32_t generation) OX_REQUIRES(lock_);
  uint32_t next_generation() OX_REQUIRES(lock_);
  bool is_polling_thread() const;
  void wake() OX_EXCLUDES(lock_);

  // False when nothing is watched. `timeout` becomes less for the sake of pauses.
  bool begin(Pass& pass, int& timeout) OX_EXCLUDES(lock_);
  // False when there is no set, or it does not know all that is watched.
  bool take_set(Pass& pass, int& timeout) OX_REQUIRES(lock_);
  // Goes on by the list when the set has nothing to tell, or fails.
  void wait(Pass& pass, int timeout) OX_EXCLUDES(lock_);
  // One wait on what the pass holds.
  static WaitOutcome wait_on(Pass& pass, int timeout);
  // The set has failed in a wait: the next pass closes it.
  void give_up_set() OX_EXCLUDES(lock_);
  // Spends what is left of the pass on the list as it is now.
  void go_on_by_list(Pass& pass, int timeout) OX_EXCLUDES(lock_);
  // Opens or closes the set, as the coming pass wants it.
  void choose_set(bool is_look) OX_REQUIRES(lock_);
  // With few descriptors: closes the set, and counts busy passes anew.
  void drop_small_set() OX_REQUIRES(lock_);
  void open_set() OX_REQUIRES(lock_);
  void close_set() OX_REQUIRES(lock_);
  // What the entry is to be polled for has changed, or what is to be run then.
  void note_change(int fd, EventHandler& handler) OX_REQUIRES(lock_);
  // Whatever pass uses the list looks under the lock from now on.
  void outdate_list() OX_REQUIRES(lock_);
  // Tells the set what the entry is to be polled for now. Requires: the set is open.
  void arm(int fd, EventHandler& handler) OX_REQUIRES(lock_);
  // The list as it is now. Drops descriptors without live slots.
  std::shared_ptr<const PollList> current_list(int& timeout) OX_REQUIRES(lock_);
  std::shared_ptr<PollList> make_list(int& timeout) OX_REQUIRES(lock_);
  // The same for the set, which knows all but what has been emptied or paused since.
  void review(int& timeout) OX_REQUIRES(lock_);
  // Whether the pause goes on; the wait then ends with it.
  bool is_paused(EventHandler& handler, int& timeout) OX_REQUIRES(lock_);

  bool fill_sets(fd_set* read, fd_set* write, fd_set* error, int& highest) OX_EXCLUDES(lock_);
  std::vector<int> watched() OX_EXCLUDES(lock_);

  static constexpr uint32_t kAny = 0;

  oxutils::mutex lock_;
  uint32_t last_generation_ OX_GUARDED_BY(lock_) = kAny;
  std::map<int, EventHandler> handlers_ OX_GUARDED_BY(lock_);
  oxutils::Function waker_ OX_GUARDED_BY(lock_);
  std::shared_ptr<PollList> list_ OX_GUARDED_BY(lock_);  // dropped when a function changes
  EpollSet set_ OX_GUARDED_BY(lock_);
  std::set<int> to_review_ OX_GUARDED_BY(lock_);
  oxutils::relaxed<pthread_t> polling_thread_{pthread_t{}};

  // I/O thread only.
  std::unique_ptr<Pass> spare_pass_;
  PollPace pace_;
};

#endif  // TARN_TARN_IO_TARN_POLLER_H_

#include "src/tarn_timer.h"

#include <sys/time.h>

#include <algorithm>
#include <utility>

#include "src/tarn_log.h"

namespace {

constexpr int kMaxTimeout = 10000;  // ms; what a lost wake-up or a step of the clock costs at most
constexpr unsigned int kTickRoundingUs = 200;  // x.8 ms and later count as the next millisecond

// Log lines show the low 32 bits of a thread id.
unsigned int tid_number(pthread_t tid) { return static_cast<unsigned int>(tid); }

// Signed, so that it survives the wrap of the tick.
int ticks_until(unsigned int expiration, unsigned int now) {
  return static_cast<int>(expiration - now);
}

// How many timers ahead of the front one they, their callbacks and the objects that these are bound
// to are loaded into the cache.
constexpr size_t kTimersAhead = 12;
constexpr size_t kCallbacksAhead = 8;
constexpr size_t kObjectsAhead = 4;
// Bytes: a callback without arguments, and the locks and flags at the beginning of an object.
constexpr size_t kLoadedOfCallback = 48;
constexpr size_t kLoadedOfObject = 128;

// Begins to load `size` bytes to be written, and waits for nothing. Nothing of null. The memory
// belongs to an object, or lies close to one.
void load(const void* memory, size_t size) {
  if (memory == nullptr) return;
  constexpr size_t kCacheLine = 64;
  const char* const bytes = static_cast<const char*>(memory);
  for (size_t at = 0; at < size; at += kCacheLine) __builtin_prefetch(bytes + at, 1);
  __builtin_prefetch(bytes + size - 1, 1);  // they may begin in the middle of a line
  // An effect that the compiler has to respect: it would take a function that does nothing but this
  // for one without effect, and drop the calls.
  __asm__ volatile("");
}

// Before the front timer runs. With thousands of idle sessions a pass would wait for memory most of
// the time: a timer leads to its callback, and that to its object, so each is begun to be loaded
// while the one before it arrives.
void look_ahead(const oxutils::ring<oxutils::shared_ptr<TarnTimer>>& timers) {
  if (timers.size() <= kTimersAhead) return;  // few timers stay in the cache by themselves
  load(timers[kTimersAhead].get(), sizeof(TarnTimer));
  load(timers[kCallbacksAhead]->callback(), kLoadedOfCallback);
  const oxutils::CallbackBase* const callback = timers[kObjectsAhead]->callback();
  if (callback != nullptr) load(callback->object(), kLoadedOfObject);
}

}  // namespace

TarnTimerQueue::TarnTimerQueue(TarnThreadBase* owner)
    : owner_(owner),
      one_shot_timeout_(kMaxTimeout),
      last_tick_(cur_tick()),
      periodic_timeout_(kMaxTimeout) {}

unsigned int TarnTimerQueue::cur_tick() {
  timeval now;
  gettimeofday(&now, nullptr);
  const auto us = static_cast<uint64_t>(now.tv_usec) + kTickRoundingUs;
  return static_cast<unsigned int>(static_cast<uint64_t>(now.tv_sec) * 1000 + us / 1000);
}

bool TarnTimerQueue::on_owner_thread() { return owner_->get_tid() == pthread_self(); }

int TarnTimerQueue::add_timer(oxutils::Function func, int delay, int interval) {
  const int d = std::max(delay, 1);
  const unsigned int expiration = cur_tick() + static_cast<unsigned int>(d);
  TimerPtr timer = TarnTimer::create_timer(std::move(func), static_cast<int>(expiration), interval);
  const int id = timer->id();
  if (!on_owner_thread()) {
    TARN_LOG_WARN("add_timer id: %d, delay: %d, interval: %d, current tid %u, thread_id %u", id, d,
                  interval, tid_number(pthread_self()), tid_number(owner_->get_tid()));
  }
  {
    const oxutils::scoped_lock hold(unfiled_lock_);
    unfiled_[id] = timer;
  }
  try {
    owner_->run(oxutils::Function(this, &TarnTimerQueue::addTimerInLoop, std::move(timer), d));
  } catch (...) {  // out of memory, and never on its way
    take_unfiled(id);
    throw;
  }
  return id;
}

TarnTimerQueue::TimerPtr TarnTimerQueue::take_unfiled(int id) {
  const oxutils::scoped_lock hold(unfiled_lock_);
  const auto found = unfiled_.find(id);
  if (found == unfiled_.end()) return TimerPtr();
  TimerPtr timer = std::move(found->second);
  unfiled_.erase(found);
  return timer;
}

void TarnTimerQueue::addTimerInLoop(oxutils::shared_ptr<TarnTimer> timer, int delay) {
  TARN_LOG_DEBUG("add_timer id: %d, delay: %d, current tid %u", timer->id(), delay,
                 tid_number(pthread_self()));
  take_unfiled(timer->id());
  if (timer->is_removed()) return;  // cancelled on its way here
  if (timer->repeat()) {
    periodic_[timer->interval()].push_back(timer);
    periodic_index_[timer->id()] = std::move(timer);
    return;
  }
  const unsigned int expiration = timer->expiration();
  one_shots_.emplace(expiration, std::move(timer));
  // last_tick_ stays: the queue is then examined somewhat earlier than needed, once.
  if (one_shot_timeout_ > delay) one_shot_timeout_ = delay;
}

void TarnTimerQueue::cancel_timer(int id) {
  if (!on_owner_thread()) {
    TARN_LOG_WARN("cancel_timer id: %d, current tid %u, thread_id %u", id,
                  tid_number(pthread_self()), tid_number(owner_->get_tid()));
  }
  owner_->run(oxutils::Function(this, &TarnTimerQueue::cancelInLoop, id));
}

void TarnTimerQueue::cancelInLoop(int id) {
  TARN_LOG_DEBUG("cancel_timer id: %d, current tid %u", id, tid_number(pthread_self()));
  const auto one_shot = std::find_if(one_shots_.begin(), one_shots_.end(),
                                     [id](const OneShot& each) { return each.second->id() == id; });
  if (one_shot != one_shots_.end()) one_shots_.erase(one_shot);

  const TimerPtr unfiled = take_unfiled(id);
  if (unfiled) unfiled->remove_in_loop();

  // The timer stays in its queue until process_fifo meets it at the front.
  const auto periodic = periodic_index_.find(id);
  if (periodic == periodic_index_.end()) return;
  periodic->second->remove_in_loop();
  periodic_index_.erase(periodic);
}

int TarnTimerQueue::get_timeout() const {
  return std::max(0, std::min<int>(periodic_timeout_, one_shot_timeout_));
}

void TarnTimerQueue::process_timers() {
  const unsigned int now = cur_tick();
  process_timers_level_0(now);
  int timeout = kMaxTimeout;
  for (auto& fifo : periodic_) timeout = std::min(timeout, process_fifo(fifo.second, now));
  periodic_timeout_ = timeout;
}

int TarnTimerQueue::process_fifo(Fifo& fifo, unsigned int now) {
  while (!fifo.empty()) {
    TarnTimer& front = *fifo.front();
    const int due_in = ticks_until(front.expiration(), now);
    if (due_in > 0) return due_in;
    if (front.is_removed()) {
      fifo.pop_front();
      continue;
    }
    look_ahead(fifo);
    // Restarted first: the function sees its next expiration.
    front.restart();
    try {
      front.run();
    } catch (...) {
      fifo.rotate();
      periodic_timeout_ = 0;
      throw;
    }
    fifo.rotate();
  }
  return kMaxTimeout;
}

void TarnTimerQueue::process_timers_level_0(unsigned int now) {
  const auto elapsed = static_cast<int>(now - last_tick_);
  last_tick_ = now;
  const int left = static_cast<int>(static_cast<unsigned int>(one_shot_timeout_.load()) -
                                    static_cast<unsigned int>(elapsed));
  if (left > 0) {
    one_shot_timeout_ = left;
    return;
  }
  run_due(now);
  one_shot_timeout_ = one_shots_due_in(now);
}

TarnTimerQueue::OneShots TarnTimerQueue::take_due(unsigned int now) {
  // Strictly less: a timer due exactly now waits for the next pass. Unsigned: no regard to the
  // wrap.
  OneShots due;
  while (!one_shots_.empty() && one_shots_.begin()->first < now) {
    due.insert(due.end(), one_shots_.extract(one_shots_.begin()));
  }
  return due;
}

// All due timers have left the set before any runs, so they may add and cancel freely.
void TarnTimerQueue::run_due(unsigned int now) {
  OneShots due = take_due(now);
  try {
    while (!due.empty()) due.extract(due.begin()).value().second->run();
  } catch (...) {
    one_shots_.merge(due);
    one_shot_timeout_ = 0;
    throw;
  }
}

// After a pass that began at `now`, by the signed difference. What is overdue then, but not by the
// unsigned order, has been passed by the wrap of the tick: nothing can be done before the tick
// wraps again. What is before `now` by that order as well was added during the pass.
int TarnTimerQueue::one_shots_due_in(unsigned int now) const {
  if (one_shots_.empty()) return kMaxTimeout;
  const unsigned int first = one_shots_.begin()->first;
  const int due_in = ticks_until(first, now);
  return due_in < 0 && first >= now ? kMaxTimeout : std::min(due_in, kMaxTimeout);
}

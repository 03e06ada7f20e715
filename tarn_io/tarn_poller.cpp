#include "tarn_io/tarn_poller.h"

#include <algorithm>
#include <utility>

#include "tarn_io/poll_clock.h"

namespace {

// ms after which an event that comes whatever is polled for is looked at again: a hang-up is there
// to stay, while a pending error goes with the next send or receive on any thread.
constexpr int kHangUpRest = 100;
constexpr int kErrorRest = 10;

}  // namespace

void TarnPoller::watch_read(int fd, oxutils::Function f) {
  store(fd, &EventHandler::read_func, std::move(f));
}

void TarnPoller::watch_write(int fd, oxutils::Function f) {
  store(fd, &EventHandler::write_func, std::move(f));
}

void TarnPoller::watch_error(int fd, oxutils::Function f) {
  store(fd, &EventHandler::error_func, std::move(f));
}

void TarnPoller::unwatch_read(int fd) { store(fd, &EventHandler::read_func, {}); }
void TarnPoller::unwatch_write(int fd) { store(fd, &EventHandler::write_func, {}); }
void TarnPoller::unwatch_error(int fd) { store(fd, &EventHandler::error_func, {}); }

void TarnPoller::store(int fd, Slot slot, oxutils::Function f) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler& handler = handlers_[fd];
    if (get_events_flag(handler) == 0) {
      if (++last_generation_ == kAny) ++last_generation_;
      handler.generation = last_generation_;
      handler.rest_until = 0;
    }
    replace(handler.*slot, f);
    // Also for what the set watches already: another file with the number is noticed by that.
    arm(fd, handler);
    if (get_events_flag(handler) == 0) note_review(fd);
  }
  wake();  // the replaced function goes with no lock held
}

void TarnPoller::pause(int fd, int ms) {
  {
    const oxutils::scoped_lock hold(lock_);
    if (EventHandler* const handler = find(fd, kAny)) rest_for(fd, *handler, ms);
  }
  wake();  // a wait that is under way has to end with the pause
}

void TarnPoller::resume(int fd) {
  {
    const oxutils::scoped_lock hold(lock_);
    if (EventHandler* const handler = find(fd, kAny)) handler->rest_until = 0;
  }
  wake();
}

// The next pass tells the set: a rest that is over by then costs nothing.
void TarnPoller::rest_for(int fd, EventHandler& handler, int ms) {
  handler.rest_until = PollClock::now() + ms;
  note_review(fd);
}

TarnPoller::EventHandler* TarnPoller::find(int fd, uint32_t generation) {
  const auto found = handlers_.find(fd);
  if (found == handlers_.end()) return nullptr;
  return generation == kAny || found->second.generation == generation ? &found->second : nullptr;
}

void TarnPoller::set_waker(const oxutils::Function& f) {
  const oxutils::scoped_lock hold(lock_);
  if (!waker_) waker_ = f;
}

void TarnPoller::reset_waker(const oxutils::Function& f) {
  const oxutils::scoped_lock hold(lock_);
  if (waker_.get() == f.get()) waker_ = oxutils::Function();
}

void TarnPoller::wake() {
  if (polling_thread_ == pthread_self()) return;
  oxutils::Function waker;
  {
    const oxutils::scoped_lock hold(lock_);
    waker = waker_;
  }
  if (waker) waker();
}

short TarnPoller::get_events_flag(EventHandler& handler) {
  int events = 0;
  if (handler.read_func) events |= POLLIN;
  if (handler.write_func) events |= POLLOUT;
  if (handler.error_func) events |= POLLERR;
  return static_cast<short>(events);
}

void TarnPoller::tell(const ReadyDescriptor& ready) {
  if (ready.revents == POLLIN) {  // nearly always
    run(ready.fd, &EventHandler::read_func, ready.generation);
    return;
  }
  if ((ready.revents & (POLLHUP | POLLNVAL | POLLERR)) != 0) rest(ready);
  dispatch(ready.fd, ready.revents, ready.generation);
}

// Without a copy, which would cost four more locks and unlocks: whoever replaces a function while
// one runs does not let go of it.
bool TarnPoller::run(int fd, Slot slot, uint32_t generation) {
  oxutils::CallbackBase* callback = nullptr;
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, generation);
    if (handler == nullptr || !(handler->*slot)) return false;
    callback = (handler->*slot).get();
    ++running_;
  }
  callback->run();
  if (--running_ == 0 && has_retired_) let_go();
  return true;
}

void TarnPoller::let_go() {
  std::vector<oxutils::Function> retired;
  const oxutils::scoped_lock hold(lock_);
  retired.swap(retired_);
  has_retired_ = false;
}

void TarnPoller::replace(oxutils::Function& held, oxutils::Function& f) {
  if (held && running_ != 0) {
    retired_.push_back(std::move(held));
    has_retired_ = true;
  }
  std::swap(held, f);
}

// Write readiness is told once per watch. Emptied after the call: a watch made inside it is undone,
// but not if nothing at all was watched before it; that may be another socket's of the same number.
void TarnPoller::run_write(int fd, uint32_t generation) {
  if (!run(fd, &EventHandler::write_func, generation)) return;
  oxutils::Function old;
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler == nullptr) return;
  replace(handler->write_func, old);
  arm(fd, *handler);
  note_review(fd);
}

// Before the functions run, so that one of them can end it. Not while there is something to read
// for somebody who does: that comes to its end.
void TarnPoller::rest(const ReadyDescriptor& ready) {
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(ready.fd, ready.generation);
  if (handler == nullptr) return;
  if ((ready.revents & POLLIN) != 0 && handler->read_func) return;
  const bool has_hung_up = (ready.revents & (POLLHUP | POLLNVAL)) != 0;
  rest_for(ready.fd, *handler, has_hung_up ? kHangUpRest : kErrorRest);
}

void TarnPoller::handle_event(int fd, short revents) { dispatch(fd, revents, kAny); }

void TarnPoller::dispatch(int fd, short revents, uint32_t generation) {
  if ((revents & POLLHUP) != 0 && (revents & POLLIN) == 0) {
    run(fd, &EventHandler::error_func, generation);
  }
  if ((revents & (POLLERR | POLLNVAL)) != 0) run(fd, &EventHandler::error_func, generation);
  if ((revents & (POLLIN | POLLPRI)) != 0) run(fd, &EventHandler::read_func, generation);
  if ((revents & POLLOUT) != 0) run_write(fd, generation);
}

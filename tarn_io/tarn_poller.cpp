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

TarnPoller::TarnPoller() = default;

TarnPoller::~TarnPoller() = default;

void TarnPoller::watch_read(int fd, oxutils::Function f) {
  store(fd, &EventHandler::read_func, std::move(f));
}

void TarnPoller::watch_write(int fd, oxutils::Function f) {
  store(fd, &EventHandler::write_func, std::move(f));
}

void TarnPoller::watch_error(int fd, oxutils::Function f) {
  store(fd, &EventHandler::error_func, std::move(f));
}

void TarnPoller::unwatch_read(int fd) { store(fd, &EventHandler::read_func, oxutils::Function()); }

void TarnPoller::unwatch_write(int fd) {
  store(fd, &EventHandler::write_func, oxutils::Function());
}

void TarnPoller::unwatch_error(int fd) {
  store(fd, &EventHandler::error_func, oxutils::Function());
}

void TarnPoller::store(int fd, Slot slot, oxutils::Function f) {
  std::shared_ptr<PollList> outdated;  // may have the last reference to a function
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler& handler = handlers_[fd];
    if (get_events_flag(handler) == 0) {
      handler.generation = next_generation();
      handler.paused_until = 0;
    }
    std::swap(handler.*slot, f);
    note_change(fd, handler);
    outdated.swap(list_);
  }
  // What was kept for the next pass may hold the replaced function. Another thread's change is seen
  // by that pass.
  if (is_polling_thread() && spare_pass_) spare_pass_->clear();
  wake();  // the replaced function goes with no lock held
}

void TarnPoller::pause(int fd, int ms) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, kAny);
    if (handler != nullptr) {
      handler->paused_until = PollClock::now() + ms;
      note_change(fd, *handler);
    }
  }
  wake();  // a wait that is under way has to end with the pause
}

void TarnPoller::resume(int fd) {
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, kAny);
    if (handler != nullptr) {
      handler->paused_until = 0;
      note_change(fd, *handler);
    }
  }
  wake();
}

uint32_t TarnPoller::next_generation() {
  if (++last_generation_ == kAny) ++last_generation_;
  return last_generation_;
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

bool TarnPoller::is_polling_thread() const {
  return pthread_equal(polling_thread_, pthread_self()) != 0;
}

void TarnPoller::wake() {
  if (is_polling_thread()) return;
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

bool TarnPoller::poll(unsigned int timeout) {
  // Its memory serves the next pass; a callback that polls from within finds none.
  std::unique_ptr<Pass> pass = std::move(spare_pass_);
  if (!pass) pass = std::make_unique<Pass>();
  int ms = static_cast<int>(std::min<unsigned int>(timeout, INT_MAX));
  if (!begin(*pass, ms)) return false;
  wait(*pass, ms);
  pace_.note_pass(!pass->ready.empty());
  for (const ReadyDescriptor& each : pass->ready) {
    if ((each.revents & (POLLHUP | POLLNVAL | POLLERR)) != 0) rest(each);
    dispatch(*pass, each);
  }
  pass->ready.clear();
  if (!pass->is_lasting()) pass->clear();
  spare_pass_ = std::move(pass);
  return true;
}

// Runs a copy of the function: it may unwatch or replace its own slot meanwhile.
bool TarnPoller::run(int fd, Slot slot, uint32_t generation) {
  oxutils::Function f;
  {
    const oxutils::scoped_lock hold(lock_);
    EventHandler* const handler = find(fd, generation);
    if (handler != nullptr) f = handler->*slot;
  }
  if (!f) return false;
  f();
  return true;
}

// Write readiness is told once per watch. Emptied after the call: a watch made inside it is undone,
// but not if nothing at all was watched before it; that may be another socket's of the same number.
void TarnPoller::run_write(int fd, uint32_t generation) {
  if (!run(fd, &EventHandler::write_func, generation)) return;
  oxutils::Function old;
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(fd, generation);
  if (handler == nullptr) return;
  std::swap(handler->write_func, old);
  note_change(fd, *handler);
}

// Before the functions run, so that one of them can end it. Not while there is something to read
// for somebody who does: that comes to its end.
void TarnPoller::rest(const ReadyDescriptor& ready) {
  const oxutils::scoped_lock hold(lock_);
  EventHandler* const handler = find(ready.fd, ready.generation);
  if (handler == nullptr) return;
  if ((ready.revents & POLLIN) != 0 && handler->read_func) return;
  const bool has_hung_up = (ready.revents & (POLLHUP | POLLNVAL)) != 0;
  handler->paused_until = PollClock::now() + (has_hung_up ? kHangUpRest : kErrorRest);
  note_change(ready.fd, *handler);
}

// Nearly always there is something to read and nothing has changed since the list was made: what it
// holds is what the slot holds, and stays alive as long as the pass.
void TarnPoller::dispatch(const Pass& pass, const ReadyDescriptor& ready) {
  if (ready.revents == POLLIN && pass.list && !pass.list->is_outdated()) {
    const oxutils::Function* const f = pass.list->read_func(ready);
    if (f != nullptr) {
      (*f)();
      return;
    }
  }
  dispatch(ready.fd, ready.revents, ready.generation);
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

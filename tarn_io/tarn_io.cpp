#include "tarn_io/tarn_io.h"

#include <errno.h>
#include <poll.h>

#include <atomic>
#include <utility>

#include "src/tarn_log.h"
#include "src/tarn_registry.h"
#include "tarn/tarn.h"
#include "tarn_io/tarn_io_registry.h"
#include "tarn_io/tarn_io_thread.h"
#include "tarn_io/tarn_poller.h"

namespace {

void* next_number() {
  static std::atomic<uintptr_t> last{0};
  return reinterpret_cast<void*>(++last);
}

}  // namespace

TarnIo::TarnIo(TarnSocket s)
    : number_(next_number()), sock_(std::move(s)), is_stream_(sock_.protocol() == TarnSocket::TCP) {
  sock_.async();
}

void TarnIo::set_readable_callback(Callback callback, void* arg) {
  bool pending = false;
  {
    const oxutils::scoped_lock hold(lock_);
    readable_cb_.set(callback, arg);
    if (callback != nullptr) pending = std::exchange(readable_pending_, false);
    if (pending && at_end_) told_of_end_ = true;
  }
  if (pending) callback(arg);
}

void TarnIo::set_writeable_callback(Callback callback, void* arg) {
  bool pending = false;
  {
    const oxutils::scoped_lock hold(lock_);
    writeable_cb_ = {callback, arg};
    if (callback != nullptr) pending = std::exchange(writeable_pending_, false);
  }
  if (pending) callback(arg);
}

void TarnIo::set_error_callback(ErrorCallback callback, void* arg) {
  int pending = 0;
  {
    const oxutils::scoped_lock hold(lock_);
    error_cb_ = {callback, arg};
    if (callback != nullptr) pending = std::exchange(error_pending_, 0);
  }
  if (pending != 0) callback(pending, arg);
}

int TarnIo::fd() const {
  const oxutils::scoped_lock hold(socket_lock_);
  return sock_.fd();
}

// A watch that was handed over before the handle was destroyed, and comes after, finds no socket.
// -1 once the handle is on its way out: a watch that another thread has asked for just before would
// otherwise follow the last unwatch, and outlive the socket.
int TarnIo::watchable_fd() const {
  {
    const oxutils::scoped_lock hold(lock_);
    if (destroyed_) return -1;
  }
  return fd();
}

void TarnIo::watch_read() {
  const int watched = watchable_fd();
  if (watched < 0) return;
  TarnPoller::instance()->watch_read(watched, oxutils::Function(this, &TarnIo::trigger_read));
  watches_read_ = true;
  choose_error_watch();
}

void TarnIo::watch_write() {
  const int watched = watchable_fd();
  if (watched < 0) return;
  TarnPoller::instance()->watch_write(watched, oxutils::Function(this, &TarnIo::trigger_write));
}

void TarnIo::watch_error() {
  if (watchable_fd() < 0) return;
  watches_error_ = true;
  choose_error_watch();
}

void TarnIo::unwatch_read() {
  TarnPoller::instance()->unwatch_read(fd());
  watches_read_ = false;
  choose_error_watch();
}

void TarnIo::unwatch_write() { TarnPoller::instance()->unwatch_write(fd()); }

void TarnIo::unwatch_error() {
  watches_error_ = false;
  choose_error_watch();
}

void TarnIo::choose_error_watch() {
  TarnPoller* const poller = TarnPoller::instance();
  if (watches_error_) {
    poller->watch_error(fd(), oxutils::Function(this, &TarnIo::trigger_error));
  } else if (watches_read_ && !is_stream_) {
    poller->watch_error(fd(), oxutils::Function(this, &TarnIo::keep_pending_error));
  } else {
    poller->unwatch_error(fd());
  }
}

// Then the descriptor need not rest. Not of an error that stays.
void TarnIo::keep_pending_error() {
  int fd = -1;
  {
    const oxutils::scoped_lock hold(socket_lock_);
    if (sock_.keep_error()) fd = sock_.fd();
  }
  if (fd >= 0) TarnPoller::instance()->resume(fd);
}

bool TarnIo::has_error() const {
  const oxutils::scoped_lock hold(socket_lock_);
  return (sock_.condition() & (POLLERR | POLLNVAL)) != 0;
}

// In all of them the callback comes last: it may destroy the handle and go on running for longer
// than that is kept.
void TarnIo::trigger_read() {
  if (is_stream_) {
    trigger_stream();
    return;
  }
  auto callback = readable_cb_.get();
  if (callback.function == nullptr) callback = remember_readable();
  if (callback.function != nullptr) {
    callback.function(callback.user);
  } else {
    unwatch_read();  // it would stay readable; setting the callback watches again
  }
}

void TarnIo::trigger_stream() {
  const bool at_end = !read_stream();
  auto callback = readable_cb_.get();
  if (callback.function == nullptr) callback = remember_readable();
  if (at_end) unwatch_read();  // as above
  if (at_end && callback.function != nullptr) told_of_end_ = true;
  if (callback.function != nullptr) callback.function(callback.user);
}

// Unless the callback has been set by now.
TarnIo::ReadableCallback::Pair TarnIo::remember_readable() {
  const oxutils::scoped_lock hold(lock_);
  const auto callback = readable_cb_.get();
  readable_pending_ = callback.function == nullptr;
  return callback;
}

bool TarnIo::read_stream() {
  const oxutils::scoped_lock hold(socket_lock_);
  const int count = sock_.read_all();
  const int error = TarnSocket::last_error();
  if (count > 0 || (count < 0 && (error == EAGAIN || error == EINTR))) return true;
  at_end_ = true;
  return false;
}

void TarnIo::trigger_write() {
  WriteableCallbackPair callback = {};
  {
    const oxutils::scoped_lock hold(lock_);
    callback = writeable_cb_;
    writeable_pending_ = callback.function == nullptr;
  }
  if (callback.function != nullptr) callback.function(callback.user);
}

void TarnIo::trigger_error() {
  const int error = TarnSocket::last_error();
  if (!is_stream_) keep_pending_error();
  if (told_of_end_ && !has_error()) return;
  ErrorCallbackPair callback = {};
  int pending = 0;
  {
    const oxutils::scoped_lock hold(lock_);
    callback = error_cb_;
    if (callback.function == nullptr) error_pending_ = error;
    pending = error_pending_;
  }
  if (callback.function != nullptr) {
    callback.function(pending, callback.user);  // the code remembered, not the present one
  } else {
    unwatch_error();  // it would come again at once; setting the callback watches again
  }
}

bool TarnIo::attach(void* session) {
  const oxutils::shared_ptr<TarnSession> attached = tarn_get_instance(session);
  if (!attached) return false;
  const oxutils::shared_ptr<TarnIo> registered = weak_this_.lock();
  if (registered) {
    attached->set_output_callback(&TarnIo::output_numbered, number_);
  } else {
    attached->set_output_callback(&TarnIo::tarn_output, this);
  }
  // A remembered datagram goes to the session that was attached before.
  set_readable_callback(&TarnIo::on_tarn_input, this);
  {
    const oxutils::scoped_lock hold(socket_lock_);
    attached_ = Attached{session, attached->number()};
  }
  run_on_io_thread(&TarnIo::watch_read);
  return true;
}

void TarnIo::run_on_io_thread(void (TarnIo::*method)()) {
  const oxutils::shared_ptr<TarnIo> registered = weak_this_.lock();
  TarnIoThread::instance()->run(registered ? oxutils::Function(&TarnIo::call, registered, method)
                                           : oxutils::Function(this, method));
}

void TarnIo::call(oxutils::shared_ptr<TarnIo> io, void (TarnIo::*method)()) {
  (io.get()->*method)();
}

bool TarnIo::begin_destroy() {
  const oxutils::scoped_lock hold(lock_);
  return !std::exchange(destroyed_, true);
}

void TarnIo::close() {
  TarnIoThread* const thread = TarnIoThread::instance();
  thread->wait(oxutils::Function(this, &TarnIo::unwatch_read));
  thread->wait(oxutils::Function(this, &TarnIo::unwatch_write));
  thread->wait(oxutils::Function(this, &TarnIo::unwatch_error));
  release_socket().close();
}

// From now on the object has no descriptor.
TarnSocket TarnIo::release_socket() {
  const oxutils::scoped_lock hold(socket_lock_);
  return sock_.release();
}

int TarnIo::tarn_output(char* data, int len, void* user) {
  static_cast<TarnIo*>(user)->write(data, len);
  return 0;
}

int TarnIo::output_numbered(char* data, int len, void* number) {
  const auto io = tarn_hold_numbered_io(number);
  return io ? tarn_output(data, len, io.pointer().get()) : 0;
}

void TarnIo::on_tarn_input(void* io) {
  auto* const self = static_cast<TarnIo*>(io);
  char datagram[TarnSocket::kMaxDatagram];
  int len = 0;
  Attached attached;
  {
    const oxutils::scoped_lock hold(self->socket_lock_);
    attached = self->attached_;
    len = self->sock_.read(datagram, TarnSocket::kMaxDatagram);
    if (len < 0) len = self->sock_.read_on(datagram, TarnSocket::kMaxDatagram);
  }
  if (len >= 1) feed(attached, datagram, len);
}

void TarnIo::feed(const Attached& attached, char* datagram, int len) {
  // Held until the end, so that it is still the same one that takes the datagram.
  const auto session = tarn_sessions().hold(attached.session);
  if (session && session->number() == attached.number) {
    tarn_input_held(*session.pointer(), datagram, len);
  } else {
    TARN_LOG_WARN("tarn_input fail,bad tarn %p", attached.session);
  }
}

int TarnIo::read(char* buf, int len) {
  const oxutils::scoped_lock hold(socket_lock_);
  const int result = sock_.read(buf, len);
  return result >= 0 ? result : fail_to_read(buf, len);
}

// Errors that come faster than the application reads must not keep the datagrams from it: every
// other one waits for what is there.
int TarnIo::fail_to_read(char* buf, int len) {
  if (!TarnSocket::was_pending(errno)) return -1;
  datagram_first_ = !datagram_first_;
  if (datagram_first_) return -1;
  const int result = sock_.read_on(buf, len);
  return result >= 0 ? result : sock_.read(buf, len);
}

int TarnIo::write(const char* data, int len) {
  int result = 0;
  int fd = 0;
  int error = 0;
  {
    // Against close(): another socket may have the number right after.
    const oxutils::scoped_lock hold(socket_lock_);
    fd = sock_.fd();
    result = sock_.try_send(data, static_cast<size_t>(len));
    if (result < 0) error = TarnSocket::last_error();
  }
  if (result < 0) {
    TarnSocket::log_send_failure(fd, error);
    errno = error;  // the caller's to see: a log callback may have changed it
  }
  return result;
}

int TarnIo::peek_size() {
  const oxutils::scoped_lock hold(socket_lock_);
  return sock_.readable_len();
}

char* TarnIo::peek_data() {
  const oxutils::scoped_lock hold(socket_lock_);
  return sock_.peek();
}

void TarnIo::consume(int len) {
  const oxutils::scoped_lock hold(socket_lock_);
  sock_.consume(len);
}

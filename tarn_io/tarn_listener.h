// TarnListener: a bound socket that turns each new peer into an I/O handle.
#ifndef TARN_TARN_IO_TARN_LISTENER_H_
#define TARN_TARN_IO_TARN_LISTENER_H_

#include "oxutils/callback.h"
#include "oxutils/mutex.h"
#include "oxutils/relaxed.h"
#include "oxutils/smart_ptr/enable_shared_from_this.h"
#include "tarn_io/tarn_socket.h"

// Base of the UDP and the TCP listener, which watch the socket from their construction on. Owned by
// the registry of listeners until it is stopped, and by on_read while that runs. Started on any
// thread, read on the I/O thread.
class TarnListener : public oxutils::enable_shared_from_this<TarnListener> {
 public:
  using NewConnCallback = void (*)(void* io, void* arg);

  explicit TarnListener(const TarnSocket& s) : sock_(s) {}
  // Derived classes stop() in theirs, while on_read still has an object.
  virtual ~TarnListener() = default;
  TarnListener(const TarnListener&) = delete;
  TarnListener& operator=(const TarnListener&) = delete;

  void set_new_conn_callback(NewConnCallback callback, void* arg) OX_EXCLUDES(lock_);
  // Binds the port and, for TCP, listens. False, and logged, when that fails.
  bool listen(unsigned short port);
  // Stops watching, lets the I/O thread finish with this listener, and closes the socket. Again:
  // nothing.
  void stop();

 protected:
  // Watches the socket, if there is one. Called by the derived class's constructor.
  void watch(oxutils::Function on_read);
  // Hands a new peer's socket to the application; closes it if there is nobody to take it.
  void hand_over(const TarnSocket& peer);

  bool is_stopped() const { return sock_.fd() < 0; }
  // Whether listen() has been called. Until then a wake-up means nothing, and the object that owns
  // this one may still be in the making.
  bool has_begun() const OX_EXCLUDES(lock_);

  TarnSocket sock_;
  oxutils::relaxed<unsigned short> port_{0};  // 0 until it is bound

 private:
  mutable oxutils::mutex lock_;
  bool begun_ OX_GUARDED_BY(lock_) = false;
  NewConnCallback new_conn_cb_ OX_GUARDED_BY(lock_) = nullptr;
  void* new_conn_arg_ OX_GUARDED_BY(lock_) = nullptr;
};

#endif  // TARN_TARN_IO_TARN_LISTENER_H_

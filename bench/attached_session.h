// AttachedSession: a session with a socket of the library.
#ifndef TARN_BENCH_ATTACHED_SESSION_H_
#define TARN_BENCH_ATTACHED_SESSION_H_

#include "bench/arrivals.h"
#include "bench/udp_socket.h"
#include "tarn/io.h"
#include "tarn/tarn.h"

namespace bench {

// What it receives is added to `arrivals`, which has to outlive the worker's next turn.
class AttachedSession {
 public:
  // Takes the socket over.
  AttachedSession(UdpSocket& socket, Arrivals& arrivals)
      : io_(tarn_create_io_from_fd(socket.release())), session_(tarn_create()) {
    tarn_set_conv(session_, 1);
    tarn_set_recv_unreliable_callback(session_, Arrivals::add_message, &arrivals);
    tarn_attach_io(session_, io_);
  }
  ~AttachedSession() {
    tarn_destroy_io(io_);
    tarn_destroy(session_);
  }
  AttachedSession(const AttachedSession&) = delete;
  AttachedSession& operator=(const AttachedSession&) = delete;

  void* handle() const { return session_; }

 private:
  void* const io_;
  void* const session_;
};

}  // namespace bench

#endif  // TARN_BENCH_ATTACHED_SESSION_H_

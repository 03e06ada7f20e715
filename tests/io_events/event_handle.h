// A handle to which something happens, with callbacks that count.
#ifndef TARN_TESTS_IO_EVENTS_EVENT_HANDLE_H_
#define TARN_TESTS_IO_EVENTS_EVENT_HANDLE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tarn_io/tarn_io.h"
#include "tests/support/net_sockets.h"

namespace tarn_test {

enum class Event {
  kFin,             // the peer has closed
  kHalfClose,       // the peer sends no more, and listens
  kBothClosed,      // both ends send no more
  kReset,           // by the peer
  kRefused,         // a connect
  kFinThenWrite,    // one that the peer's host answers with a reset
  kFinThenWrites,   // another one has failed with that
  kNeverConnected,  // a stream
  kUdpRefused,      // a datagram
  kClosed,          // the descriptor, behind the library's back
};

// How a callback is set: '-' not at all, '0' as null, 'r', 'w' or 'e' as one that counts, 'a' as
// that of an attached session.
struct Callbacks {
  char readable;
  char writeable;
  char error;
};

// Everything runs on the calling thread.
class EventHandle {
 public:
  explicit EventHandle(Event event);
  ~EventHandle();
  EventHandle(const EventHandle&) = delete;
  EventHandle& operator=(const EventHandle&) = delete;

  static bool is_datagram(Event event);
  void watch(const Callbacks& callbacks);
  // Brings the event about, unless it was there from the beginning.
  void happen();
  TarnIo& io() { return *io_; }
  uint16_t peer_port() const { return port_of(ends_.far.get()); }

  int readable = 0;
  int writeable = 0;
  int errors = 0;

 private:
  void connect();
  static void on_readable(void* self) { ++static_cast<EventHandle*>(self)->readable; }
  static void on_writeable(void* self) { ++static_cast<EventHandle*>(self)->writeable; }
  static void on_error(int, void* self) { ++static_cast<EventHandle*>(self)->errors; }

  const Event event_;
  Ends ends_;
  std::unique_ptr<TarnIo> io_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_IO_EVENTS_EVENT_HANDLE_H_

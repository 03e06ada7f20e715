#include "tests/io_events/event_handle.h"

#include <sys/socket.h>

#include "tests/io_events/virtual_second.h"

namespace tarn_test {
namespace {

// Nobody listens or is bound there.
uint16_t refusing_port() { return port_of(udp_on_loopback().get()); }

}  // namespace

EventHandle::EventHandle(Event event) : event_(event) {
  const bool is_stream = !is_datagram(event);
  if (event == Event::kRefused || event == Event::kNeverConnected) {
    ends_.near = OwnedFd(socket(AF_INET, SOCK_STREAM, 0));
  } else {
    ends_ = is_stream ? tcp_ends() : udp_ends();
  }
  io_ = std::make_unique<TarnIo>(
      TarnSocket(ends_.near.get(), is_stream ? TarnSocket::TCP : TarnSocket::UDP));
  if (event == Event::kRefused) connect();
}

EventHandle::~EventHandle() {
  io_->unwatch_read();
  io_->unwatch_write();
  io_->unwatch_error();
  poll_once();
}

bool EventHandle::is_datagram(Event event) { return event == Event::kUdpRefused; }

void EventHandle::watch(const Callbacks& callbacks) {
  if (callbacks.readable == 'a') io_->set_readable_callback(&TarnIo::on_tarn_input, io_.get());
  if (callbacks.readable == 'r') io_->set_readable_callback(on_readable, this);
  if (callbacks.readable != '-') io_->watch_read();
  if (callbacks.writeable == 'w') io_->set_writeable_callback(on_writeable, this);
  if (callbacks.writeable != '-') io_->watch_write();
  if (callbacks.error == 'e') io_->set_error_callback(on_error, this);
  if (callbacks.error != '-') io_->watch_error();
}

void EventHandle::connect() {
  io_->get_sock().connect("127.0.0.1", static_cast<short>(refusing_port()));
}

void EventHandle::happen() {
  switch (event_) {
    case Event::kFin:
      ends_.far.reset();
      break;
    case Event::kHalfClose:
      shutdown(ends_.far.get(), SHUT_WR);
      break;
    case Event::kBothClosed:
      shutdown(ends_.far.get(), SHUT_WR);
      shutdown(ends_.near.get(), SHUT_WR);
      break;
    case Event::kReset:
      reset_connection(ends_.far);
      break;
    case Event::kFinThenWrites:
    case Event::kFinThenWrite:
      ends_.far.reset();
      poll_once();
      io_->write("x", 1);
      if (event_ == Event::kFinThenWrites) io_->write("x", 1);
      break;
    case Event::kRefused:
    case Event::kNeverConnected:
      break;
    case Event::kUdpRefused:
      ends_.far.reset();
      io_->write("x", 1);
      break;
    case Event::kClosed:
      ends_.near.reset();
      break;
  }
}

}  // namespace tarn_test

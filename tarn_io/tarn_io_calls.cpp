// The exported calls on I/O handles: look the handle up, log and return if it is bad, call one
// method.
#include "src/borrowed_bytes.h"
#include "src/tarn_log.h"
#include "src/tarn_thread.h"
#include "tarn/io.h"
#include "tarn_io/tarn_io.h"
#include "tarn_io/tarn_io_registry.h"

namespace {

constexpr int kReleaseDelayMs = 500;
constexpr int kFailed = -1;

// Callbacks and session output already under way find a live object until then.
void destroy_io_later(void* io) {
  if (io != nullptr) tarn_remove_io(io);
}

// Binds the socket, unless `local_port` is 0, and begins to connect it. Failures show later.
void* open_io(TarnSocket socket, const char* ip, unsigned short port, unsigned short local_port) {
  socket.async();
  if (local_port != 0) socket.bind(local_port);
  socket.connect(ip, static_cast<short>(port));
  return tarn_add_io(socket).get();
}

}  // namespace

void* tarn_create_udp_io(const char* ip, unsigned short port, unsigned short local_port) {
  return open_io(TarnSocket(TarnSocket::UDP), ip, port, local_port);
}

void* tarn_create_tcp_io(const char* ip, unsigned short port) {
  return open_io(TarnSocket(TarnSocket::TCP), ip, port, 0);
}

void* tarn_create_io_from_fd(int fd) { return tarn_add_io(TarnSocket(fd)).get(); }

void tarn_attach_io(void* session, void* io) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_attach_io fail,bad io %p", io);
    return;
  }
  if (!object->attach(session)) TARN_LOG_WARN("tarn_attach_io fail,bad tarn %p", session);
}

void tarn_destroy_io(void* io) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_destroy_io fail,bad io %p", io);
    return;
  }
  if (!object->begin_destroy()) return;
  object->close();
  TarnThread::instance()->run_after(kReleaseDelayMs, oxutils::Function(&destroy_io_later, io));
}

void tarn_set_readable_callback(void* io, TarnIoCallback callback, void* arg) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_set_readable_callback fail,bad io %p", io);
    return;
  }
  object->set_readable_callback(callback, arg);
  object->run_on_io_thread(&TarnIo::watch_read);
}

void tarn_set_writeable_callback(void* io, TarnIoCallback callback, void* arg) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_set_writeable_callback fail,bad io %p", io);
    return;
  }
  object->set_writeable_callback(callback, arg);
  object->run_on_io_thread(&TarnIo::watch_write);
}

void tarn_set_io_error_callback(void* io, TarnIoErrorCallback callback, void* arg) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_set_io_error_callback fail,bad io %p", io);
    return;
  }
  object->set_error_callback(callback, arg);
  object->run_on_io_thread(&TarnIo::watch_error);
}

int tarn_peek_size(void* io) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_peek_size fail,bad io %p", io);
    return 0;
  }
  return object->peek_size();
}

char* tarn_peek(void* io) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_peek fail,bad io %p", io);
    return nullptr;
  }
  return object->peek_data();
}

void tarn_consume(void* io, int len) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_consume fail,bad io %p", io);
    return;
  }
  object->consume(usable_length(len));
}

int tarn_read(void* io, char* buf, int len) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_read fail,bad io %p", io);
    return kFailed;
  }
  if (is_missing(buf, len)) {
    TARN_LOG_WARN("tarn_read fail,null data io %p", io);
    return kFailed;
  }
  return object->read(buf, usable_length(len));
}

int tarn_write(void* io, const char* data, int len) {
  const auto object = tarn_hold_io(io);
  if (!object) {
    TARN_LOG_WARN("tarn_write fail,bad io %p", io);
    return kFailed;
  }
  if (is_missing(data, len)) {
    TARN_LOG_WARN("tarn_write fail,null data io %p", io);
    return kFailed;
  }
  return object->write(data, usable_length(len));
}

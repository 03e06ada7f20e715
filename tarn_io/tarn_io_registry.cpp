#include "tarn_io/tarn_io_registry.h"

#include "src/handle_registry.h"

namespace {

using IoRegistry = HandleRegistry<TarnIo>;

// Never destroyed: the worker and the I/O thread look objects up until the process is gone.
IoRegistry& by_address() {
  static IoRegistry& registry = *new IoRegistry;
  return registry;
}

IoRegistry& by_number() {
  static IoRegistry& registry = *new IoRegistry;
  return registry;
}

}  // namespace

oxutils::shared_ptr<TarnIo> tarn_add_io(const TarnSocket& socket) {
  oxutils::shared_ptr<TarnIo> io = oxutils::make_shared<TarnIo>(socket);
  by_number().add(io->number(), io);
  by_address().add(io.get(), io);
  return io;
}

HandleRegistry<TarnIo>::Hold tarn_hold_io(void* handle) { return by_address().hold(handle); }

HandleRegistry<TarnIo>::Hold tarn_hold_numbered_io(void* number) {
  return by_number().hold(number);
}

void tarn_remove_io(void* handle) {
  const oxutils::shared_ptr<TarnIo> io = by_address().remove(handle);
  if (io) by_number().remove(io->number());
}

// The registry of I/O handles.
#ifndef TARN_TARN_IO_TARN_IO_REGISTRY_H_
#define TARN_TARN_IO_TARN_IO_REGISTRY_H_

#include "oxutils/smart_ptr/shared_ptr.h"
#include "src/handle_registry.h"
#include "tarn_io/tarn_io.h"

// Makes and registers an I/O object; its handle is its address.
oxutils::shared_ptr<TarnIo> tarn_add_io(const TarnSocket& socket);
// Keeps the object for the length of a call; empty for a bad handle.
HandleRegistry<TarnIo>::Hold tarn_hold_io(void* handle);
// The same by TarnIo::number(), which no later object has, unlike an address.
HandleRegistry<TarnIo>::Hold tarn_hold_numbered_io(void* number);
// Drops the registry's reference.
void tarn_remove_io(void* handle);

#endif  // TARN_TARN_IO_TARN_IO_REGISTRY_H_

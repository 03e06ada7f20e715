// TarnEntity: one session on several I/O objects.
#ifndef TARN_TARN_IO_TARN_ENTITY_H_
#define TARN_TARN_IO_TARN_ENTITY_H_

#include <list>

#include "tarn_io/tarn_io.h"

// Sends what the session emits on every attached object. Not exposed by the C interface. Attached
// objects and the session belong to the caller and outlive the entity's use; not synchronised.
class TarnEntity {
 public:
  explicit TarnEntity(void* session) : session_(session) {}

  void attach(TarnIo* io);
  // Removes every occurrence.
  void detach(TarnIo* io);

  // An output callback: sends on every object of the entity given as `user`, in order.
  static int tarn_output(char* data, int len, void* user);
  // The size of what the TarnIo given as `io` has to read; a datagram is taken and dropped.
  static int read(void* io);

 private:
  static void on_readable(void* io) { read(io); }

  void* const session_;
  std::list<TarnIo*> ios_;  // in order of attachment
};

#endif  // TARN_TARN_IO_TARN_ENTITY_H_

#include "tarn_io/tarn_entity.h"

#include "tarn/tarn.h"

void TarnEntity::attach(TarnIo* io) {
  ios_.push_back(io);
  tarn_set_output_callback(session_, &TarnEntity::tarn_output, this);
  io->set_readable_callback(&TarnEntity::on_readable, io);
}

void TarnEntity::detach(TarnIo* io) { ios_.remove(io); }

int TarnEntity::tarn_output(char* data, int len, void* user) {
  for (TarnIo* const io : static_cast<TarnEntity*>(user)->ios_) io->write(data, len);
  return 0;
}

int TarnEntity::read(void* io) {
  auto* const object = static_cast<TarnIo*>(io);
  if (object->get_sock().protocol() == TarnSocket::TCP) return object->peek_size();
  char scratch[TarnSocket::kMaxDatagram];
  return object->read(scratch, TarnSocket::kMaxDatagram);
}

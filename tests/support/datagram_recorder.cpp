#include "tests/support/datagram_recorder.h"

#include <algorithm>

namespace tarn_test {

using Guard = std::lock_guard<std::mutex>;

Bytes bytes_of(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes pattern(size_t size, unsigned seed) {
  Bytes bytes(size);
  unsigned state = seed * 2654435761u + 12345u;
  for (unsigned char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

int DatagramRecorder::on_data(char* data, int len, void* recorder) {
  auto* self = static_cast<DatagramRecorder*>(recorder);
  const Guard lock(self->guard_);
  self->recorded_.emplace_back(data, data + len);
  self->last_thread_ = std::this_thread::get_id();
  // The result is documented as ignored, so a failure is reported every time.
  return -1;
}

std::vector<Bytes> DatagramRecorder::all() const {
  const Guard lock(guard_);
  return recorded_;
}

size_t DatagramRecorder::count() const {
  const Guard lock(guard_);
  return recorded_.size();
}

Bytes DatagramRecorder::at(size_t index) const {
  const Guard lock(guard_);
  return index < recorded_.size() ? recorded_[index] : Bytes();
}

Bytes DatagramRecorder::last() const {
  const Guard lock(guard_);
  return recorded_.empty() ? Bytes() : recorded_.back();
}

std::thread::id DatagramRecorder::last_thread() const {
  const Guard lock(guard_);
  return last_thread_;
}

void DatagramRecorder::clear() {
  const Guard lock(guard_);
  recorded_.clear();
}

int ErrorRecorder::on_error(TarnError code, void* recorder) {
  auto* self = static_cast<ErrorRecorder*>(recorder);
  const Guard lock(self->guard_);
  self->codes_.push_back(code);
  self->last_thread_ = std::this_thread::get_id();
  return -1;
}

std::vector<int> ErrorRecorder::all() const {
  const Guard lock(guard_);
  return codes_;
}

int ErrorRecorder::count(TarnError code) const {
  const Guard lock(guard_);
  return static_cast<int>(std::count(codes_.begin(), codes_.end(), code));
}

std::thread::id ErrorRecorder::last_thread() const {
  const Guard lock(guard_);
  return last_thread_;
}

void ErrorRecorder::clear() {
  const Guard lock(guard_);
  codes_.clear();
}

}  // namespace tarn_test

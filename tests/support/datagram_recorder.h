// Keeps a copy of everything that a data callback or an error callback is given.
//
// Any thread may record and look. The static functions are the callbacks; the recorder itself is
// their user pointer.
#ifndef TARN_TESTS_SUPPORT_DATAGRAM_RECORDER_H_
#define TARN_TESTS_SUPPORT_DATAGRAM_RECORDER_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarn/tarn.h"

namespace tarn_test {

using Bytes = std::vector<unsigned char>;

Bytes bytes_of(const std::string& text);
// `size` bytes that differ from message to message: `seed` picks them.
Bytes pattern(size_t size, unsigned seed = 0);

// Behind a mutex of the standard library, so that it shares no code with what it watches.
class DatagramRecorder {
 public:
  static int on_data(char* data, int len, void* recorder);

  std::vector<Bytes> all() const;
  size_t count() const;
  // The datagram at `index`, or the last one; empty when there is none.
  Bytes at(size_t index) const;
  Bytes last() const;
  // The thread that recorded the last one.
  std::thread::id last_thread() const;
  void clear();

 private:
  mutable std::mutex guard_;
  std::vector<Bytes> recorded_;
  std::thread::id last_thread_;
};

class ErrorRecorder {
 public:
  static int on_error(TarnError code, void* recorder);

  std::vector<int> all() const;
  // How often `code` was raised.
  int count(TarnError code) const;
  std::thread::id last_thread() const;
  void clear();

 private:
  mutable std::mutex guard_;
  std::vector<int> codes_;
  std::thread::id last_thread_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_DATAGRAM_RECORDER_H_

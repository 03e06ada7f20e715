// Writer: an application that goes on sending when it is told that there is room.
#ifndef TARN_TESTS_SIM_WRITER_H_
#define TARN_TESTS_SIM_WRITER_H_

#include <cstddef>
#include <deque>
#include <functional>
#include <numeric>
#include <utility>

namespace tarn_sim {

// Sends its messages in order, for as long as they are taken, on whichever task comes by. After a
// refusal it does nothing until go_on().
class Writer {
 public:
  // `send` tries a message of so many bytes: 0, -EAGAIN, or an error that ends it.
  explicit Writer(std::function<int(size_t)> send) : send_(std::move(send)) {}

  void write(size_t size);
  // There is room again.
  void go_on();
  // Messages and bytes that have not been taken.
  size_t waiting() const { return waiting_.size(); }
  size_t bytes() const { return std::accumulate(waiting_.begin(), waiting_.end(), size_t{0}); }

 private:
  void pump();

  const std::function<int(size_t)> send_;
  std::deque<size_t> waiting_;
  bool is_pumping_ = false;
  bool is_refused_ = false;
  bool is_told_ = false;  // while it was pumping
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_WRITER_H_

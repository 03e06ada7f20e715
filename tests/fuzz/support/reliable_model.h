// ReliableModel: what one end of a conversation makes of the reliable segments that reach it.
#ifndef TARN_TESTS_FUZZ_SUPPORT_RELIABLE_MODEL_H_
#define TARN_TESTS_FUZZ_SUPPORT_RELIABLE_MODEL_H_

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

namespace tarn_fuzz {

class ReliableModel {
 public:
  struct Outcome {
    bool is_refused = false;            // came early, and too many others wait already
    std::vector<std::string> messages;  // delivered, in order
  };

  // `limit` early segments may wait.
  Outcome input(unsigned seq, const std::string& payload, unsigned flag, size_t limit);

  // False once numbers have arrived of which the wrap-around order makes no sense: which of them
  // wait is then nobody's to say.
  bool is_exact() const { return is_exact_; }
  bool has_started() const { return started_; }
  unsigned last() const { return last_; }
  // Whether an early segment waits, and is to be acknowledged on its own.
  bool waits(unsigned seq) const { return early_.count(seq) == 1; }
  unsigned next() const { return started_ ? (last_ + 1) % 65536 : 0; }

 private:
  struct Early {
    std::string payload;
    bool ends_message;
  };

  void deliver(unsigned seq, const std::string& payload, bool ends_message, Outcome& outcome);

  bool is_exact_ = true;
  bool started_ = false;
  unsigned last_ = 0;
  std::map<unsigned, Early> early_;
  std::string unfinished_;
};

}  // namespace tarn_fuzz

#endif  // TARN_TESTS_FUZZ_SUPPORT_RELIABLE_MODEL_H_

// Writes down what a send window re-sends.
#ifndef TARN_TESTS_SUPPORT_KIT_RESENDS_H_
#define TARN_TESTS_SUPPORT_KIT_RESENDS_H_

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "oxutils/callback.h"
#include "tests/support/kit_bytes.h"

namespace tarn_test {

class Resends {
 public:
  oxutils::Function callback() { return oxutils::Function(this, &Resends::resend); }

  void resend(unsigned short seq, DataView packet, bool* keep) {
    {
      const std::lock_guard<std::mutex> hold(guard_);
      seqs_.push_back(seq);
      texts_.push_back(text_of(packet));
      kept_.push_back(*keep);
    }
    if (on_resend) on_resend(seq, keep);
  }

  // Numbers in order of emission, since the last call.
  std::vector<int> take() {
    const std::lock_guard<std::mutex> hold(guard_);
    std::vector<int> taken;
    taken.swap(seqs_);
    return taken;
  }
  std::vector<std::string> texts() const {
    const std::lock_guard<std::mutex> hold(guard_);
    return texts_;
  }
  // What *keep was at each call.
  std::vector<bool> kept() const {
    const std::lock_guard<std::mutex> hold(guard_);
    return kept_;
  }

  // Runs after each entry, with nothing locked here.
  std::function<void(unsigned short seq, bool* keep)> on_resend;

 private:
  mutable std::mutex guard_;
  std::vector<int> seqs_;
  std::vector<std::string> texts_;
  std::vector<bool> kept_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_RESENDS_H_

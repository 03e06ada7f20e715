// ModelEvent: stands in for the worker's event inside an Explorer's run.
#ifndef TARN_TESTS_INTERLEAVE_MODEL_EVENT_H_
#define TARN_TESTS_INTERLEAVE_MODEL_EVENT_H_

#include "tests/interleave/explorer.h"

namespace tarn_test {

// Clear again once somebody has waited for it. No wait has a limit: a wake-up that is lost leaves
// its thread waiting.
class ModelEvent {
 public:
  void Set() {
    Explorer& explorer = *Explorer::running();
    explorer.step("set", this);
    signalled_ = true;
    explorer.changed();
    known_.raise(explorer.view());
  }
  void Wait(int) {
    Explorer& explorer = *Explorer::running();
    explorer.step("wait", this, [this] { return signalled_; });
    signalled_ = false;
    explorer.view().raise(known_);
  }

 private:
  bool signalled_ = false;
  MemoryView known_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_INTERLEAVE_MODEL_EVENT_H_

#include "tests/sim/boundary.h"

#include <unistd.h>

#include "tests/sim/sanitizers.h"
#include "tests/sim/scheduler.h"

namespace tarn_sim {
namespace {

bool is_inside() {
  const Scheduler* const scheduler = Scheduler::running();
  return scheduler != nullptr && scheduler->in_library();
}

void enter() {
  Scheduler::running()->set_in_library(true);
  watch_accesses();
}

void leave() {
  ignore_accesses();
  Scheduler::running()->set_in_library(false);
}

}  // namespace

void begin_outside() { ignore_accesses(); }

// Not exit(): the library's threads are in the middle of their work.
void end_process(int code) {
  watch_accesses();  // or ThreadSanitizer objects
  _exit(code);
}

InsideLibrary::InsideLibrary() : entered_(!is_inside()) {
  if (entered_) enter();
}

InsideLibrary::~InsideLibrary() {
  if (entered_) leave();
}

OutsideLibrary::OutsideLibrary() : left_(is_inside()) {
  if (left_) leave();
}

OutsideLibrary::~OutsideLibrary() {
  if (left_) enter();
}

}  // namespace tarn_sim

// The library's log lines, as events of a trace.
#ifndef TARN_TESTS_MODEL_LIBRARY_LOG_H_
#define TARN_TESTS_MODEL_LIBRARY_LOG_H_

#include <string>

#include "tests/model/trace.h"

namespace tarn_model {

// Collects events on any thread while it lives; one at a time per process. Addresses in texts
// become names. What the timer queue says of filing timers is left out: it names threads, and comes
// when the worker gets to it. So are changes of the log level.
class LibraryLog {
 public:
  LibraryLog();
  ~LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  // The object of `size` bytes at `object` is called `name`, also in the lines that wait to be
  // taken; what lies inside it is kWindow. Any other address is kFunction.
  static void set_name(const void* object, size_t size, const char* name);
  // Gives the lines that wait to be taken their names, before the object goes.
  static void use_names();

  static void mute(bool on);

  static void add(Event event);
  // Everything since the last call.
  static Trace take();
};

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_LIBRARY_LOG_H_

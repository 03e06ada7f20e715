// Counts the instructions that a thread executes along a path, through Callgrind.
#ifndef TARN_TESTS_INSTRUCTIONS_COUNT_H_
#define TARN_TESTS_INSTRUCTIONS_COUNT_H_

#include <valgrind/callgrind.h>

namespace instructions {

struct Path {
  const char* name;    // as in the file of figures
  int rounds;          // counted
  int operations = 1;  // in each round; the figure is that of one
  // Rounds that go before. More than a window has room for, so that what lists and tables grow to
  // is there.
  int warm_up = 64;

  int all_rounds() const { return warm_up + rounds; }
};

// The calling thread's instructions count in between, no other thread's.
inline void begin_count() { CALLGRIND_TOGGLE_COLLECT; }
inline void end_count() { CALLGRIND_TOGGLE_COLLECT; }

// What has been counted since the last report is the path's.
void report(const Path& path);

// The calling thread's instructions in path.rounds calls of `round`.
template <typename Round>
void count(const Path& path, const Round& round) {
  for (int i = 0; i < path.warm_up; ++i) round();
  begin_count();
  for (int i = 0; i < path.rounds; ++i) round();
  end_count();
  report(path);
}

// The same with something before each round that is not counted. For long rounds: counting on and
// off is in the figure.
template <typename Prepare, typename Round>
void count(const Path& path, const Prepare& prepare, const Round& round) {
  for (int i = 0; i < path.all_rounds(); ++i) {
    prepare();
    const bool counted = i >= path.warm_up;
    if (counted) begin_count();
    round();
    if (counted) end_count();
  }
  report(path);
}

// Ends the program with a message unless the path was what its name says.
void require(bool condition, const Path& path, const char* what);

}  // namespace instructions

#endif  // TARN_TESTS_INSTRUCTIONS_COUNT_H_

// Where the simulator ends and the library begins.
#ifndef TARN_TESTS_SIM_BOUNDARY_H_
#define TARN_TESTS_SIM_BOUNDARY_H_

namespace tarn_sim {

// Each task is either inside the library or outside, in the simulator's own code. What it allocates
// inside counts as the library's, and only inside does ThreadSanitizer look at what it reads and
// writes.

// A task that has just begun is outside.
void begin_outside();
// Ends the process, from the outside.
[[noreturn]] void end_process(int code);

// Inside for a block: around every call of the library and around what it runs on its threads.
class InsideLibrary {
 public:
  InsideLibrary();
  ~InsideLibrary();
  InsideLibrary(const InsideLibrary&) = delete;
  InsideLibrary& operator=(const InsideLibrary&) = delete;

 private:
  const bool entered_;
};

// Outside for a block: in callbacks and in what stands for the system's calls. Nothing changes for
// a task that is outside already.
class OutsideLibrary {
 public:
  OutsideLibrary();
  ~OutsideLibrary();
  OutsideLibrary(const OutsideLibrary&) = delete;
  OutsideLibrary& operator=(const OutsideLibrary&) = delete;

 private:
  const bool left_;
};

}  // namespace tarn_sim

#endif  // TARN_TESTS_SIM_BOUNDARY_H_

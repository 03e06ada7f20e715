// A program under test: started with its output going into files, watched with deadlines.
#ifndef TARN_TESTS_E2E_CHILD_PROCESS_H_
#define TARN_TESTS_E2E_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tarn_test {

class ChildProcess {
 public:
  // Starts `arguments[0]` in `folder`. Its standard input is a pipe that write() fills. Its
  // standard output goes into a file, or with `piped_output` into a pipe that drain() empties.
  ChildProcess(const std::vector<std::string>& arguments, const std::string& folder,
               bool piped_output = false);
  // Kills a process that is still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void write(const std::string& bytes);
  void close_input();

  // Everything from the output pipe up to its end, with a rest after each 4 KiB.
  std::string drain(std::chrono::milliseconds rest = {});

  // What it has written so far.
  std::string output() const;
  std::string errors() const;

  // Waits until standard error holds `text`. False when it ends, or the deadline passes, without.
  bool wait_for_error_text(const std::string& text);

  void signal(int number) const;

  // Waits for the end. The exit status, 128 + the signal that ended it, or -1 after the deadline.
  int wait(std::chrono::milliseconds limit = std::chrono::seconds(30));
  bool running() { return wait(std::chrono::milliseconds(0)) == -1; }

 private:
  const std::string output_path_;
  const std::string error_path_;
  pid_t pid_ = -1;
  int input_ = -1;
  int piped_output_ = -1;
  int status_ = -1;  // once it is known
};

}  // namespace tarn_test

#endif  // TARN_TESTS_E2E_CHILD_PROCESS_H_

// Runs many small experiments, each in a process of its own and several at a time.
#ifndef TARN_TESTS_FAULTS_CHILDREN_H_
#define TARN_TESTS_FAULTS_CHILDREN_H_

#include <functional>
#include <string>
#include <vector>

namespace tarn_test {

struct ChildResult {
  int status = 0;      // as from waitpid
  std::string output;  // standard output and standard error

  bool passed() const;
  bool hung() const;
  bool aborted() const;
};

// Runs `body(i)` for each i below `count` in a child that fails where the body leaves a failure of
// the running test behind, and ends it after `seconds`. The calling process must have no threads.
std::vector<ChildResult> run_children(size_t count, const std::function<void(size_t)>& body,
                                      unsigned seconds);

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_CHILDREN_H_

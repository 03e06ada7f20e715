#include "tests/faults/children.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

namespace tarn_test {
namespace {

// Most of a child's time is waiting.
size_t children_at_once() { return 4 * std::max(1u, std::thread::hardware_concurrency()); }

[[noreturn]] void be_child(int output, unsigned seconds, const std::function<void()>& body) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  // Not caught: it ends the process, whatever its threads are at.
  alarm(seconds);
  // On a thread of its own, where nothing catches what the body lets through.
  std::thread(body).join();
  fflush(stdout);
  _exit(::testing::Test::HasFailure() ? 1 : 0);
}

std::string text_of(int file) {
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  const ssize_t size = pread(file, &text[0], text.size(), 0);
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return text;
}

struct Running {
  size_t index;
  int output;
};

}  // namespace

bool ChildResult::passed() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
bool ChildResult::hung() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM; }
bool ChildResult::aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }

std::vector<ChildResult> run_children(size_t count, const std::function<void(size_t)>& body,
                                      unsigned seconds) {
  std::vector<ChildResult> results(count);
  std::map<pid_t, Running> running;
  size_t next = 0;
  fflush(stdout);
  while (next < count || !running.empty()) {
    if (next < count && running.size() < children_at_once()) {
      const int output = memfd_create("child", MFD_CLOEXEC);
      const size_t index = next++;
      const pid_t child = fork();
      if (child == 0) be_child(output, seconds, [&] { body(index); });
      running[child] = {index, output};
      continue;
    }
    int status = 0;
    const auto ended = running.find(wait(&status));
    if (ended == running.end()) continue;
    results[ended->second.index] = {status, text_of(ended->second.output)};
    close(ended->second.output);
    running.erase(ended);
  }
  return results;
}

}  // namespace tarn_test

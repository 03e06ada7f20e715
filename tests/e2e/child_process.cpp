#include "tests/e2e/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

namespace tarn_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookAgain{5};

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string fresh_name(const std::string& folder, const char* kind) {
  static std::atomic<int> count{0};
  return folder + "/." + std::to_string(count++) + "." + kind;
}

std::vector<char*> argument_pointers(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    read_end = ends[0];
    write_end = ends[1];
  }
  int read_end = -1;
  int write_end = -1;
};

int open_output(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const std::string& folder,
                           bool piped_output)
    : output_path_(fresh_name(folder, "out")), error_path_(fresh_name(folder, "err")) {
  ::signal(SIGPIPE, SIG_IGN);
  const Pipe input;
  const int errors = open_output(error_path_);
  int output = -1;
  if (piped_output) {
    const Pipe pipe;
    output = pipe.write_end;
    piped_output_ = pipe.read_end;
  } else {
    output = open_output(output_path_);
  }
  std::vector<char*> pointers = argument_pointers(arguments);
  pid_ = fork();
  if (pid_ == 0) {
    const bool ready = dup2(input.read_end, 0) >= 0 && dup2(output, 1) >= 0 &&
                       dup2(errors, 2) >= 0 && chdir(folder.c_str()) == 0;
    if (ready) execv(pointers[0], pointers.data());
    _exit(127);
  }
  input_ = input.write_end;
  for (const int fd : {input.read_end, output, errors}) close(fd);
}

ChildProcess::~ChildProcess() {
  if (running()) {
    signal(SIGKILL);
    wait();
  }
  close_input();
  if (piped_output_ >= 0) close(piped_output_);
}

void ChildProcess::write(const std::string& bytes) {
  EXPECT_EQ(::write(input_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

void ChildProcess::close_input() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

std::string ChildProcess::drain(std::chrono::milliseconds rest) {
  std::string bytes;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = read(piped_output_, buffer, sizeof(buffer))) > 0) {
    bytes.append(buffer, static_cast<std::size_t>(got));
    std::this_thread::sleep_for(rest);
  }
  return bytes;
}

std::string ChildProcess::output() const { return read_file(output_path_); }

std::string ChildProcess::errors() const { return read_file(error_path_); }

bool ChildProcess::wait_for_error_text(const std::string& text) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (errors().find(text) == std::string::npos) {
    if (!running() || Clock::now() > deadline) return errors().find(text) != std::string::npos;
    std::this_thread::sleep_for(kLookAgain);
  }
  return true;
}

void ChildProcess::signal(int number) const { kill(pid_, number); }

int ChildProcess::wait(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (status_ < 0) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else if (Clock::now() >= deadline) {
      return -1;
    } else {
      std::this_thread::sleep_for(kLookAgain);
    }
  }
  return status_;
}

}  // namespace tarn_test

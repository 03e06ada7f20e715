// What the library's own threads look like to the rest of the process.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "tarn/io.h"
#include "tests/support/kit_death.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

using LibraryThreads = SocketFixture;

std::set<std::string> thread_names() {
  std::set<std::string> names;
  DIR* const tasks = opendir("/proc/self/task");
  while (const dirent* const entry = readdir(tasks)) {
    std::string name;
    std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm") >> name;
    names.insert(name);
  }
  closedir(tasks);
  return names;
}

std::atomic<int> caught{0};
void on_signal(int) { ++caught; }

// What a program sees as its open files that is started now.
std::string inherited_files() {
  const int output = memfd_create("output", MFD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  char shell[] = "/bin/sh";
  char option[] = "-c";
  char script[] = "for each in /proc/$$/fd/*; do readlink $each; done; echo seen";
  char* const arguments[] = {shell, option, script, nullptr};
  pid_t child = 0;
  EXPECT_EQ(posix_spawn(&child, shell, &actions, nullptr, arguments, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  waitpid(child, nullptr, 0);
  char text[4096];
  const ssize_t size = pread(output, text, sizeof text, 0);
  close(output);
  return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

int throw_from_output(char*, int, void*) { throw std::runtime_error("out of a session"); }
void throw_from_event(void*) { throw std::runtime_error("out of an event"); }

// The worker sends the message again.
void leave_the_worker() {
  tarn_init();
  void* const session = tarn_create();
  char message[] = "message";
  tarn_send_reliable(session, message, sizeof message);
  tarn_set_output_callback(session, throw_from_output, nullptr);
  sleep(20);
}

void leave_the_io_thread() {
  tarn_init();
  void* const io = tarn_create_udp_io(kLoopback, 9, 0);
  tarn_set_writeable_callback(io, throw_from_event, nullptr);
  sleep(20);
}

}  // namespace

TEST_F(LibraryThreads, HaveNames) {
  const std::set<std::string> names = thread_names();
  EXPECT_EQ(names.count("tarn_thread"), 1u);
  EXPECT_EQ(names.count("tarn_io"), 1u);
}

TEST_F(LibraryThreads, HandleNoSignalOfTheProcess) {
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigaction(SIGUSR1, &action, nullptr);
  sigset_t user;
  sigemptyset(&user);
  sigaddset(&user, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &user, nullptr);

  // The system gives it to a thread that does not block it, if there is one.
  kill(getpid(), SIGUSR1);
  io_thread_pass();
  settle();

  EXPECT_EQ(caught, 0);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGUSR1), 1);
  pthread_sigmask(SIG_UNBLOCK, &user, nullptr);
  EXPECT_EQ(caught, 1);
}

TEST_F(LibraryThreads, KeepTheirFilesFromAProgramThatIsStarted) {
  NewHandles handles;
  const unsigned short port = free_port();
  void* const listener = tarn_start_listen_tcp(port, NewHandles::on_new, &handles);
  const PlainSocket peer = PlainSocket::tcp_connect(port);
  fcntl(peer.fd(), F_SETFD, FD_CLOEXEC);
  ASSERT_TRUE(handles.wait_for(1));

  const std::string files = inherited_files();

  EXPECT_NE(files.find("seen"), std::string::npos) << "the program has run";
  EXPECT_EQ(files.find("socket:"), std::string::npos) << files;
  EXPECT_EQ(files.find("eventpoll"), std::string::npos) << files;
  tarn_stop_listen(listener);
}

TEST(LibraryThreadsDeathTest, ExceptionOnTheWorkerEndsTheProcess) {
  EXPECT_ABORT(leave_the_worker(), "out of a session");
}

TEST(LibraryThreadsDeathTest, ExceptionOnTheIoThreadEndsTheProcess) {
  EXPECT_ABORT(leave_the_io_thread(), "out of an event");
}

// No program that the application starts inherits a socket of the library's.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "tarn/io.h"
#include "tests/support/plain_socket.h"
#include "tests/support/session_fixture.h"

using namespace tarn_test;

namespace {

std::atomic<int> opened{0};
std::atomic<int> inherited{0};

}  // namespace

// Stands in front of the system's: the library's own calls come here, those of its probes as well.
extern "C" int socket(int domain, int type, int protocol) noexcept {
  ++opened;
  if ((type & SOCK_CLOEXEC) == 0) ++inherited;
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

TEST_F(RealTimeFixture, EverySocketOfAHandleIsOpenedSoThatAnExecClosesIt) {
  opened = inherited = 0;

  void* const ios[] = {tarn_create_udp_io(kLoopback, 9, 0), tarn_create_tcp_io(kLoopback, 9)};

  EXPECT_EQ(opened, 4) << "a probe and a socket each";
  EXPECT_EQ(inherited, 0);
  for (void* const each : ios) tarn_destroy_io(each);
}

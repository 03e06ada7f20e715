#include "tests/support/net_namespace.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <cstdlib>

namespace tarn_test {

NetNamespace::NetNamespace() {
  home_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (home_ < 0 || unshare(CLONE_NEWNET) != 0) {
    reason_ = strerror(errno);
    return;
  }
  entered_ = true;
  if (ip("link set lo up")) return;
  reason_ = "the ip command failed";
  setns(home_, CLONE_NEWNET);
  entered_ = false;
}

NetNamespace::~NetNamespace() {
  if (entered_ && setns(home_, CLONE_NEWNET) != 0) abort();
  if (home_ >= 0) close(home_);
}

bool NetNamespace::ip(const std::string& arguments) const {
  return system(("PATH=$PATH:/usr/sbin:/sbin ip " + arguments).c_str()) == 0;
}

bool NetNamespace::required() { return geteuid() == 0 && getenv("CI") != nullptr; }

}  // namespace tarn_test

// A network of the test's own: loopback and nothing else, until commands change it.
#ifndef TARN_TESTS_SUPPORT_NET_NAMESPACE_H_
#define TARN_TESTS_SUPPORT_NET_NAMESPACE_H_

#include <gtest/gtest.h>

#include <string>

namespace tarn_test {

// Moves the calling thread into a new network namespace, and back in the end. Threads and programs
// started meanwhile are in the namespace too.
class NetNamespace {
 public:
  NetNamespace();
  ~NetNamespace();
  NetNamespace(const NetNamespace&) = delete;
  NetNamespace& operator=(const NetNamespace&) = delete;

  bool entered() const { return entered_; }
  // Runs `ip` with these arguments; false when it fails.
  bool ip(const std::string& arguments) const;
  // Why there is no namespace.
  const std::string& reason() const { return reason_; }

  // Where root runs the tests unattended, a missing namespace must not pass for success.
  static bool required();

 private:
  int home_ = -1;
  bool entered_ = false;
  std::string reason_;
};

}  // namespace tarn_test

// For the body of a test.
#define TARN_REQUIRE_NAMESPACE(net)                                             \
  do {                                                                          \
    if (!(net).entered() && ::tarn_test::NetNamespace::required()) {            \
      FAIL() << "no network namespace: " << (net).reason();                     \
    }                                                                           \
    if (!(net).entered()) {                                                     \
      GTEST_SKIP() << "needs a network namespace of its own, which needs root " \
                      "and iproute2: "                                          \
                   << (net).reason();                                           \
    }                                                                           \
  } while (false)

#endif  // TARN_TESTS_SUPPORT_NET_NAMESPACE_H_

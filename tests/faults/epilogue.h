// What has to be true after any fault.
#ifndef TARN_TESTS_FAULTS_EPILOGUE_H_
#define TARN_TESTS_FAULTS_EPILOGUE_H_

namespace tarn_test {

// The wake-up's two ends, the listener that it came from, and the poller's set.
constexpr int kLongLivedDescriptors = 4;

// Messages go through between fresh sessions.
void expect_sessions_work();
// Bytes go through between fresh UDP handles, and from a fresh TCP listener.
void expect_sockets_work();
// All but the library's own, and `extra`, are closed again.
void expect_no_descriptors_left(int before, int extra);

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_EPILOGUE_H_

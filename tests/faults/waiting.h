// Waiting for a condition, in processes of which many run at once.
#ifndef TARN_TESTS_FAULTS_WAITING_H_
#define TARN_TESTS_FAULTS_WAITING_H_

#include <functional>

namespace tarn_test {

// Looks gently; false after `ms` milliseconds.
bool wait_for_condition(const std::function<bool()>& done, int ms);

}  // namespace tarn_test

#endif  // TARN_TESTS_FAULTS_WAITING_H_

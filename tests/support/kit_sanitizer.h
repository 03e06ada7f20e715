// What the tests are built with.
#ifndef TARN_TESTS_SUPPORT_KIT_SANITIZER_H_
#define TARN_TESTS_SUPPORT_KIT_SANITIZER_H_

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_TEST_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define TARN_TEST_THREAD_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TARN_TEST_ADDRESS_SANITIZER 1
#endif
#if defined(__SANITIZE_THREAD__)
#define TARN_TEST_THREAD_SANITIZER 1
#endif

namespace tarn_test {

#if defined(TARN_TEST_ADDRESS_SANITIZER)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

#if defined(TARN_TEST_THREAD_SANITIZER)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

}  // namespace tarn_test

#endif  // TARN_TESTS_SUPPORT_KIT_SANITIZER_H_

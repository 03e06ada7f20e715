// OX_ASSERT: a check of our own mistakes and the caller's, active in every build.
#ifndef TARN_OXUTILS_ASSERT_H_
#define TARN_OXUTILS_ASSERT_H_

namespace oxutils {

// Writes `source:line: function: assertion "condition" failed` and a line end to standard error in
// one piece, then aborts. Any thread.
[[noreturn]] void assertion_failed(const char* source, int line, const char* function,
                                   const char* condition);

}  // namespace oxutils

// `source` is the path as the library names it, without extension. `source` and `line` identify the
// check for those who read reports; they stay when code moves around it. A check without such a
// number passes __LINE__.
#define OX_ASSERT(source, line, condition)           \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : ::oxutils::assertion_failed((source), (line), __func__, #condition))

#endif  // TARN_OXUTILS_ASSERT_H_

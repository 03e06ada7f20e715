// What an observer sees of one side: callbacks, results and log lines, in the order in which they
// happen. Library and model agree when their traces are equal.
#ifndef TARN_TESTS_MODEL_TRACE_H_
#define TARN_TESTS_MODEL_TRACE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tarn_model {

enum class What { kLog, kResult, kDatagram, kReliable, kUnreliable, kError, kResend };

struct Event {
  What what;
  int64_t number;     // level, result, error code or sequence number
  std::string bytes;  // text, message or datagram
};

inline bool operator==(const Event& a, const Event& b) {
  return a.what == b.what && a.number == b.number && a.bytes == b.bytes;
}

using Trace = std::vector<Event>;

// Stand for the addresses in log lines, on both sides.
constexpr const char* kSession = "<session>";
constexpr const char* kWindow = "<window>";  // either one; also any other part of a session
constexpr const char* kFunction = "<function>";
constexpr const char* kNull = "(nil)";

// Appends a log line, unless the log is muted. Texts are written as the library has them, with %s
// for every %p.
void log(Trace& trace, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
void mute_log(bool on);

const char* name(What what);
std::string describe(const Event& event);
// Up to 40 bytes as text and hexadecimal, and how many there are.
std::string describe_bytes(const std::string& bytes);

// Empty when equal; else both traces from shortly before the first difference.
std::string difference(const Trace& model, const Trace& library);

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_TRACE_H_

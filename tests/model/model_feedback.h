// The rules of feedback: what fits, and how it is written.
#ifndef TARN_TESTS_MODEL_MODEL_FEEDBACK_H_
#define TARN_TESTS_MODEL_MODEL_FEEDBACK_H_

#include <string>
#include <vector>

#include "tests/model/model_recv_window.h"

namespace tarn_model {

std::string uint16_bytes(uint64_t value);  // the low 16 bits
std::string uint32_bytes(uint32_t value);
// Head and body; the length field has the low 16 bits of the body's size.
std::string segment_bytes(unsigned type, unsigned flag, const std::string& body);

// Whole segments, or empty.
struct ModelFeedback {
  std::string una;
  std::string acks;
};

// How many numbers an ack segment in `budget` bytes may name.
uint64_t ack_limit(uint64_t budget);

// Takes from the window what fits into `budget` bytes. What a session says of it goes to `trace`,
// if there is one.
ModelFeedback take_feedback(ModelRecvWindow& window, uint64_t budget, Trace* trace);

}  // namespace tarn_model

#endif  // TARN_TESTS_MODEL_MODEL_FEEDBACK_H_

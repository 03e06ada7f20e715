// Feedback: what a session tells its peer about segments received.
#ifndef TARN_SRC_FEEDBACK_H_
#define TARN_SRC_FEEDBACK_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "src/wire_format.h"

// An una segment, an ack-list segment, both or neither. A plain value.
struct Feedback {
  bool has_una = false;
  bool has_acks = false;  // also with no acks that fit: the segment is then sent with length 0
  uint16_t una = 0;
  std::vector<unsigned short> acks;

  size_t una_size() const { return has_una ? wire::kUnaSegSize : 0; }
  size_t ack_size() const {
    return has_acks ? wire::kSegHeadSize + acks.size() * wire::kSeqSize : 0;
  }

  bool empty() const { return !has_una && !has_acks; }

  // Numbers that fit beside an ack segment's head in `budget` bytes. The budget is unsigned on
  // purpose: an una that left less of it than a head wraps around, to no limit at all but what a
  // segment can hold.
  static unsigned long max_acks(unsigned long budget);

  // Write una_size() and ack_size() bytes; return the end of them.
  char* put_una(char* at) const;
  char* put_acks(char* at) const;
};

#endif  // TARN_SRC_FEEDBACK_H_

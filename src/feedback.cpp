#include "src/feedback.h"

#include <algorithm>

unsigned long Feedback::max_acks(unsigned long budget) {
  return std::min<unsigned long>((budget - wire::kSegHeadSize) / wire::kSeqSize, wire::kMaxAcks);
}

char* Feedback::put_una(char* at) const {
  if (!has_una) return at;
  wire::put_seg_head(at, wire::kUna, wire::kNoFlag, wire::kSeqSize);
  wire::put_uint16(at + wire::kSegHeadSize, una);
  return at + wire::kUnaSegSize;
}

char* Feedback::put_acks(char* at) const {
  if (!has_acks) return at;
  wire::put_seg_head(at, wire::kAck, wire::kNoFlag, acks.size() * wire::kSeqSize);
  at += wire::kSegHeadSize;
  for (const unsigned short seq : acks) {
    wire::put_uint16(at, seq);
    at += wire::kSeqSize;
  }
  return at;
}

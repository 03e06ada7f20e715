#include "tools/send_ledger.h"

#include "tools/datagram.h"

namespace tarn_tool {

void SendLedger::sent() {
  waiting_.set(next_);
  ++next_;
  ++outstanding_;
}

void SendLedger::received(std::string_view datagram) {
  DatagramReader reader(datagram);
  Segment segment;
  while (reader.next(segment)) {
    if (!segment_problem(segment).empty()) continue;
    if (segment.type == kUna) acknowledge_up_to(read_u16(segment.body));
    if (segment.type != kAckList) continue;
    for (std::size_t at = 0; at < segment.body.size(); at += 2) {
      acknowledge(read_u16(segment.body.substr(at)));
    }
  }
}

void SendLedger::acknowledge(std::uint16_t seq) {
  if (!waiting_.test(seq)) return;
  waiting_.reset(seq);
  --outstanding_;
}

void SendLedger::acknowledge_up_to(std::uint16_t una) {
  // Half the ring lies before any number: an acknowledgement that came late moves nothing.
  while (oldest_ != next_ && static_cast<std::uint16_t>(una - oldest_) < 0x8000) {
    acknowledge(oldest_);
    ++oldest_;
  }
}

}  // namespace tarn_tool

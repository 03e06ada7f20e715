#ifndef TARN_TOOLS_SEND_LEDGER_H_
#define TARN_TOOLS_SEND_LEDGER_H_

#include <bitset>
#include <cstdint>
#include <string_view>

namespace tarn_tool {

// Which reliable segments of a session the peer has not acknowledged yet.
//
// A session does not say how full its send window is, and a message that meets a full one is not
// stored. So the caller notes every segment that it causes and shows the ledger every datagram that
// it has fed to the session: what the ledger counts is never less than what the window holds.
// Not thread-safe.
class SendLedger {
 public:
  // One more segment has been sent. Sessions number their segments from 0 up.
  void sent();

  // Takes off what `datagram` acknowledges. Call after the session has seen it.
  void received(std::string_view datagram);

  // Segments that wait for their acknowledgement.
  unsigned outstanding() const { return outstanding_; }

 private:
  void acknowledge(std::uint16_t seq);
  void acknowledge_up_to(std::uint16_t una);

  std::bitset<65536> waiting_;
  std::uint16_t oldest_ = 0;  // nothing before it waits
  std::uint16_t next_ = 0;
  unsigned outstanding_ = 0;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_SEND_LEDGER_H_

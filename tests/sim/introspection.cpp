// Built with -fno-access-control.
#include "tests/sim/introspection.h"

#include "src/tarn_registry.h"
#include "src/tarn_session.h"

namespace tarn_sim {

WindowUse look_into(void* session, const Locks& locks) {
  const auto& looked_at = *static_cast<TarnSession*>(session);
  const SendWindow& send = looked_at.send_window_;
  const RecvWindow& recv = looked_at.recv_window_;
  WindowUse use;
  use.changing = locks.is_held(&send.lock_.handle_);
  use.counted = send.count_;
  for (const PacketMap& bucket : send.buckets) use.kept += bucket.size();
  use.early = recv.recv_buffer_.size();
  use.listed = recv.ack_list.size();
  return use;
}

bool is_registered(void* session) { return tarn_sessions().objects_.count(session) != 0; }

}  // namespace tarn_sim

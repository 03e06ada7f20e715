#ifndef TARN_TOOLS_LISTENER_ENTRANCE_H_
#define TARN_TOOLS_LISTENER_ENTRANCE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/entrance.h"
#include "tools/mailbox.h"
#include "tools/peer_address.h"

namespace tarn_tool {

// A listener of the library, UDP or TCP as the settings' transport says, and a conversation for
// each peer that it reports. Peers are numbered, since their addresses are not told. Whoever sends
// anything becomes a peer: it is up to the receiver to wait for a greeting.
class ListenerEntrance : public Entrance {
 public:
  // Listens on all addresses, so `address` must name none; port 0 chooses one. On failure null, and
  // `error` says why. Requires: the library has been started.
  static std::unique_ptr<ListenerEntrance> open(const PeerAddress& address,
                                                const SessionSettings& settings,
                                                std::string& error);
  ~ListenerEntrance() override;

  int fd() const override { return bell_.fd(); }
  void take_in() override;
  void forget(const Conversation&, TimePoint) override { --open_; }
  unsigned port() const override { return port_; }

 private:
  ListenerEntrance(unsigned port, const SessionSettings& settings)
      : port_(port), settings_(settings) {}
  bool start();
  static void on_new_peer(void* io, void* self);
  std::vector<void*> take_newcomers();
  std::unique_ptr<Conversation> converse(void* io);

  const unsigned port_;
  const SessionSettings settings_;
  void* listener_ = nullptr;
  std::size_t open_ = 0;
  unsigned last_number_ = 0;
  Mailbox bell_;  // rung for newcomers
  std::mutex lock_;
  std::vector<void*> newcomers_;  // I/O handles, guarded by lock_
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_LISTENER_ENTRANCE_H_

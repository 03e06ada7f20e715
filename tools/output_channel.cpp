#include "tools/output_channel.h"

#include <map>
#include <mutex>
#include <utility>

namespace tarn_tool {
namespace {

struct Directory {
  std::mutex lock;
  std::map<std::uintptr_t, std::weak_ptr<OutputChannel>> channels;  // guarded by lock
  std::uintptr_t last_number = 0;                                   // guarded by lock
};

// Lives for ever: the worker may still look up a channel while the process exits.
Directory& directory() {
  static Directory& instance = *new Directory;
  return instance;
}

std::uintptr_t next_number() {
  const std::lock_guard<std::mutex> hold(directory().lock);
  return ++directory().last_number;
}

}  // namespace

OutputChannel::OutputChannel(std::shared_ptr<UdpSocket> socket,
                             const std::optional<PeerAddress>& to)
    : socket_(std::move(socket)), to_(to), number_(next_number()) {}

std::shared_ptr<OutputChannel> OutputChannel::open(std::shared_ptr<UdpSocket> socket,
                                                   const std::optional<PeerAddress>& to) {
  std::shared_ptr<OutputChannel> channel(new OutputChannel(std::move(socket), to));
  const std::lock_guard<std::mutex> hold(directory().lock);
  directory().channels[channel->number_] = channel;
  return channel;
}

std::shared_ptr<OutputChannel> OutputChannel::find(void* user) {
  const std::lock_guard<std::mutex> hold(directory().lock);
  const auto entry = directory().channels.find(reinterpret_cast<std::uintptr_t>(user));
  return entry == directory().channels.end() ? nullptr : entry->second.lock();
}

OutputChannel::~OutputChannel() {
  const std::lock_guard<std::mutex> hold(directory().lock);
  directory().channels.erase(number_);
}

void* OutputChannel::user() const { return reinterpret_cast<void*>(number_); }

void OutputChannel::send(std::string_view datagram) {
  if (!socket_) return;
  if (to_) {
    socket_->send_to(datagram, *to_);
  } else {
    socket_->send(datagram);
  }
}

}  // namespace tarn_tool

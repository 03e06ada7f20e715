#include "tools/mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace tarn_tool {
namespace {

constexpr std::size_t kFullBytes = 1 << 20;
// Several times what a peer may have under way when it is held up.
constexpr std::size_t kMaxBytes = 8 << 20;

}  // namespace

Mailbox::Mailbox() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Mailbox::~Mailbox() { ::close(fd_); }

// The counter is never full: a reader takes it back to zero.
void Mailbox::ring() const { eventfd_write(fd_, 1); }

void Mailbox::post(std::string_view bytes, Conversation::Channel channel) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    bytes_ += bytes.size() + sizeof(Item);
    if (bytes_ > kMaxBytes) content_.flooded = true;
    if (!content_.flooded) content_.items.push_back({std::string(bytes), channel});
  }
  ring();
}

bool Mailbox::is_filled_by(std::size_t size) {
  const std::lock_guard<std::mutex> hold(lock_);
  return bytes_ + size > kFullBytes;
}

void Mailbox::note_full() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    content_.full = true;
  }
  ring();
}

void Mailbox::note_closed() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    content_.closed = true;
  }
  ring();
}

void Mailbox::note_writeable() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    content_.writeable = true;
  }
  ring();
}

Mailbox::Content Mailbox::take() {
  eventfd_t ignored = 0;
  eventfd_read(fd_, &ignored);
  const std::lock_guard<std::mutex> hold(lock_);
  bytes_ = 0;
  return std::exchange(content_, Content{});
}

}  // namespace tarn_tool

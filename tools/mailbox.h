#ifndef TARN_TOOLS_MAILBOX_H_
#define TARN_TOOLS_MAILBOX_H_

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tools/conversation.h"

namespace tarn_tool {

// Carries what the library's I/O thread reports over to the tool's main loop. Any thread.
class Mailbox {
 public:
  struct Item {
    std::string bytes;
    Conversation::Channel channel;
  };
  struct Content {
    std::vector<Item> items;
    bool closed = false;     // the peer, or an error, has ended the connection
    bool writeable = false;  // since the last time
    bool full = false;       // the peer was held up, see below
    bool flooded = false;    // more came than that explains
  };

  Mailbox();
  ~Mailbox();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  void post(std::string_view bytes, Conversation::Channel channel);
  // True when so many bytes more should be the last for now: hold up the peer first, then call
  // note_full(), so that the main loop lets it go on.
  bool is_filled_by(std::size_t size);
  void note_full();
  void note_closed();
  void note_writeable();

  // Ready for input when something has come since take().
  int fd() const { return fd_; }
  Content take();

 private:
  void ring() const;

  const int fd_;
  std::mutex lock_;
  Content content_;        // guarded by lock_
  std::size_t bytes_ = 0;  // in content_, guarded by lock_
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_MAILBOX_H_

#ifndef TARN_TOOLS_ENTRANCE_H_
#define TARN_TOOLS_ENTRANCE_H_

#include <functional>
#include <memory>

#include "tools/conversation.h"

namespace tarn_tool {

// Where a receiver's conversations come from. One thread.
class Entrance {
 public:
  // Gets each new conversation, before its first message.
  using Admit = std::function<void(std::unique_ptr<Conversation>)>;

  static constexpr std::size_t kMaxConversations = 64;

  virtual ~Entrance() = default;

  void set_admit(Admit admit) { admit_ = std::move(admit); }

  // To be watched for input.
  virtual int fd() const = 0;
  // Takes in what has come, without waiting.
  virtual void take_in() = 0;
  // The conversation is over and about to be deleted.
  virtual void forget(const Conversation& conversation, TimePoint now) = 0;

  virtual unsigned port() const = 0;

 protected:
  void admit(std::unique_ptr<Conversation> conversation) { admit_(std::move(conversation)); }

 private:
  Admit admit_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_ENTRANCE_H_

#ifndef TARN_TOOLS_FILE_SENDER_H_
#define TARN_TOOLS_FILE_SENDER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/conversation.h"
#include "tools/digest.h"
#include "tools/file_source.h"
#include "tools/outcome.h"
#include "tools/progress.h"
#include "tools/transfer_message.h"

namespace tarn_tool {

// The sending end of a transfer: offers files one after another, streams each as far as there is
// room, and compares what the peer says it has got.
class FileSender {
 public:
  // Gets the line that closes each file.
  using Report = std::function<void(const std::string& line)>;

  // `conversation` must outlive the sender.
  FileSender(Conversation& conversation, std::vector<std::string> paths,
             const SessionSettings& settings, Report report);

  void on_message(std::string_view bytes, Conversation::Channel channel);

  // Sends what may be sent, at most a burst. Returns true when there is more to do right away.
  bool pump(TimePoint now);

  // What to watch for input while the source has nothing to read; -1 for nothing.
  int waiting_fd() const { return waiting_fd_; }

  // Set once, when the transfer is over.
  const std::optional<Outcome>& outcome() const { return outcome_; }
  std::string status_text(TimePoint now);

 private:
  enum class Phase { kGreeting, kNextFile, kStreaming, kEnding, kAwaitingResult, kDraining };

  // Each does one thing and returns false when it has to wait first. What they send is put down in
  // message_, until the conversation takes it.
  bool step(TimePoint now);
  bool start_next(TimePoint now);
  bool stream();
  bool drain(TimePoint now);

  void take(const Message& message);
  void take_welcome(const Welcome& welcome);
  void take_result(const Result& result);
  void fail(int status, std::string text, bool tell_peer);

  Conversation& conversation_;
  const std::vector<std::string> paths_;
  const std::size_t payload_size_;
  const Report report_;

  Phase phase_ = Phase::kGreeting;
  std::string message_;
  std::size_t next_path_ = 0;
  std::unique_ptr<FileSource> source_;
  std::optional<Digest> digest_;
  std::optional<Progress> progress_;
  End end_;  // of the file that is under way, growing
  int waiting_fd_ = -1;
  int worst_status_ = kSuccess;
  TimePoint drain_until_;
  std::optional<Outcome> outcome_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_FILE_SENDER_H_

#ifndef TARN_TOOLS_FILE_RECEIVER_H_
#define TARN_TOOLS_FILE_RECEIVER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/conversation.h"
#include "tools/digest.h"
#include "tools/file_sink.h"
#include "tools/outcome.h"
#include "tools/progress.h"
#include "tools/transfer_message.h"

namespace tarn_tool {

// The receiving end of a transfer: writes what comes, holds up the peer while that takes long, and
// tells it what each file came to.
class FileReceiver {
 public:
  // Gets the line that closes each file.
  using Report = std::function<void(const std::string& line)>;

  // Writes to `output` ("-" for standard output, several files joined), or under the sender's
  // names. `conversation` must outlive the receiver.
  FileReceiver(Conversation& conversation, std::optional<std::string> output,
               const SessionSettings& settings, Report report);
  // Removes a file under the sender's name that is not complete.
  ~FileReceiver();
  FileReceiver(const FileReceiver&) = delete;
  FileReceiver& operator=(const FileReceiver&) = delete;

  void on_message(std::string_view bytes, Conversation::Channel channel);

  // Writes and confirms files, as far as that goes without waiting.
  void pump(TimePoint now);

  // What to watch for output while bytes are queued; -1 for nothing.
  int waiting_fd() const;

  // Set once, when the transfer is over.
  const std::optional<Outcome>& outcome() const { return outcome_; }
  // How far the file under way is; empty between files.
  std::string status_text(TimePoint now);

 private:
  enum class Phase { kGreeting, kBetweenFiles, kReceiving, kEnding };

  void take(const Message& message);
  void take_hello(const Hello& hello);
  void take_offer(const Offer& offer);
  void take_data(const Data& data);
  void take_end(const End& end);
  void take_done();
  bool open_sink(const Offer& offer);
  void hold_up_or_release();
  void confirm_file(TimePoint now);
  bool close_sink(bool agreed);
  void fail(int status, std::string text, bool tell_peer);
  void fail_protocol(const char* what);

  Conversation& conversation_;
  const std::optional<std::string> output_;
  const unsigned window_;
  const Report report_;

  Phase phase_ = Phase::kGreeting;
  std::unique_ptr<FileSink> sink_;
  std::optional<Digest> digest_;
  std::optional<Progress> progress_;
  End got_;        // of the file under way, growing
  End announced_;  // what the sender says the file is
  bool is_paused_ = false;
  std::size_t max_message_ = kMinMtu;  // bytes, as the greeting says
  int worst_status_ = kSuccess;
  std::optional<Outcome> outcome_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_FILE_RECEIVER_H_

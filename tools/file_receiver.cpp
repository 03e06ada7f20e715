#include "tools/file_receiver.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/terminal.h"

namespace tarn_tool {
namespace {

// Bytes that may wait for the output before the peer is held up.
constexpr std::size_t kMaxQueuedBytes = 1 << 20;
// Bytes that the peer may have under way, whatever sizes it asks for.
constexpr std::uint32_t kMaxWindowBytes = 16 << 20;

}  // namespace

FileReceiver::FileReceiver(Conversation& conversation, std::optional<std::string> output,
                           const SessionSettings& settings, Report report)
    : conversation_(conversation),
      output_(std::move(output)),
      window_(settings.window),
      report_(std::move(report)) {}

FileReceiver::~FileReceiver() {
  if (sink_) sink_->discard();
}

void FileReceiver::on_message(std::string_view bytes, Conversation::Channel channel) {
  if (outcome_) return;
  const auto message = parse_message(bytes);
  const bool may_overtake = message && std::holds_alternative<Abort>(*message);
  const bool fits = bytes.size() <= max_message_;
  if (!fits || !message || (channel == Conversation::Channel::kUnreliable && !may_overtake)) {
    fail_protocol("a malformed message");
    return;
  }
  take(*message);
}

void FileReceiver::take(const Message& message) {
  if (const auto* hello = std::get_if<Hello>(&message)) {
    take_hello(*hello);
  } else if (const auto* offer = std::get_if<Offer>(&message)) {
    take_offer(*offer);
  } else if (const auto* data = std::get_if<Data>(&message)) {
    take_data(*data);
  } else if (const auto* end = std::get_if<End>(&message)) {
    take_end(*end);
  } else if (const auto* abort = std::get_if<Abort>(&message)) {
    fail(kPeerEnded, fmt::format("{} gave up: {}", conversation_.peer(), printable(abort->reason)),
         false);
  } else if (std::holds_alternative<Done>(message)) {
    take_done();
  } else {
    fail_protocol("a receiver's message");
  }
}

void FileReceiver::take_hello(const Hello& hello) {
  if (phase_ != Phase::kGreeting) return fail_protocol("a second greeting");
  if (hello.mtu > conversation_.max_message()) {
    return fail(kPeerEnded,
                fmt::format("messages of {} bytes are too large, {} is the most", hello.mtu,
                            conversation_.max_message()),
                true);
  }
  max_message_ = hello.mtu;
  conversation_.send(encode(Welcome{std::min(window_, kMaxWindowBytes / hello.mtu)}));
  phase_ = Phase::kBetweenFiles;
}

void FileReceiver::take_offer(const Offer& offer) {
  if (phase_ != Phase::kBetweenFiles) return fail_protocol("a file out of turn");
  if (!open_sink(offer)) return;
  digest_.emplace();
  progress_.emplace(printable(offer.name), offer.size, Clock::now());
  got_ = End{};
  phase_ = Phase::kReceiving;
}

bool FileReceiver::open_sink(const Offer& offer) {
  if (sink_) return true;
  std::string error;
  sink_ = output_ ? FileSink::open(*output_, error) : FileSink::create(offer.name, error);
  if (!sink_) fail(kFailure, error, true);
  return sink_ != nullptr;
}

void FileReceiver::take_data(const Data& data) {
  if (phase_ != Phase::kReceiving) return fail_protocol("data without a file");
  digest_->update(data.bytes);
  got_.size += data.bytes.size();
  sink_->queue(std::string(data.bytes));
  hold_up_or_release();
}

void FileReceiver::take_end(const End& end) {
  if (phase_ != Phase::kReceiving) return fail_protocol("an end without a file");
  announced_ = end;
  got_.digest = digest_->finish();
  phase_ = Phase::kEnding;
}

void FileReceiver::take_done() {
  if (phase_ != Phase::kBetweenFiles) return fail_protocol("its farewell too early");
  std::string error;
  if (sink_ && !sink_->close(error)) {
    fail(kFailure, error, false);
  } else {
    outcome_ = Outcome{worst_status_, "", false};
  }
}

void FileReceiver::fail(int status, std::string text, bool tell_peer) {
  if (!outcome_) outcome_ = Outcome{status, std::move(text), tell_peer};
}

void FileReceiver::fail_protocol(const char* what) {
  fail(kPeerEnded, fmt::format("{} sent {}", conversation_.peer(), what), true);
}

void FileReceiver::pump(TimePoint now) {
  if (outcome_) return;
  std::string error;
  if (sink_ && !sink_->flush(error)) return fail(kFailure, error, true);
  if (phase_ == Phase::kEnding && sink_->queued() == 0) confirm_file(now);
  hold_up_or_release();
}

// Noted first: a release delivers what was held up, which may come to the next halt.
void FileReceiver::hold_up_or_release() {
  const bool is_full = sink_ && sink_->queued() > kMaxQueuedBytes;
  if (is_full == is_paused_) return;
  is_paused_ = is_full;
  conversation_.pause(is_full);
}

void FileReceiver::confirm_file(TimePoint now) {
  const bool agreed = got_.size == announced_.size && got_.digest == announced_.digest;
  const std::string name = printable(sink_->name());
  if (!close_sink(agreed)) return;
  if (!conversation_.send(encode(Result{agreed, got_.size, got_.digest}))) {
    return fail_protocol("files without taking an answer");
  }
  progress_->update(got_.size, now);
  report_(fmt::format("received {}: {} bytes, sha256 {}, {}", name, got_.size, to_hex(got_.digest),
                      progress_->total_text(now)));
  if (!agreed) {
    worst_status_ = kMismatch;
    report_(fmt::format("{} had announced {} bytes, sha256 {}", conversation_.peer(),
                        announced_.size, to_hex(announced_.digest)));
  }
  phase_ = Phase::kBetweenFiles;
}

// Ends a file of its own; an output that all files share stays open for the next one.
bool FileReceiver::close_sink(bool agreed) {
  if (output_) return true;
  std::string error;
  const bool closed = sink_->close(error);
  if (!closed || !agreed) sink_->discard();
  sink_.reset();
  if (!closed) fail(kFailure, error, true);
  return closed;
}

int FileReceiver::waiting_fd() const {
  return !outcome_ && sink_ && sink_->queued() > 0 ? sink_->fd() : -1;
}

std::string FileReceiver::status_text(TimePoint now) {
  if (outcome_ || !progress_ || phase_ == Phase::kBetweenFiles) return "";
  progress_->update(got_.size, now);
  return progress_->text();
}

}  // namespace tarn_tool

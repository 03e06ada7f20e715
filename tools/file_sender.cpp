#include "tools/file_sender.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/terminal.h"

namespace tarn_tool {
namespace {

// Messages sent before the socket is looked at again.
constexpr int kBurst = 64;
// How long the last message may wait for its acknowledgement. By then the peer has confirmed every
// file, so that nothing depends on it.
constexpr std::chrono::seconds kDrainTime{2};

}  // namespace

FileSender::FileSender(Conversation& conversation, std::vector<std::string> paths,
                       const SessionSettings& settings, Report report)
    : conversation_(conversation),
      paths_(std::move(paths)),
      payload_size_(settings.mtu - kDataHeadSize),
      report_(std::move(report)),
      message_(encode(Hello{settings.mtu})) {}

void FileSender::on_message(std::string_view bytes, Conversation::Channel channel) {
  if (outcome_) return;
  const auto message = parse_message(bytes);
  const bool may_overtake = message && std::holds_alternative<Abort>(*message);
  if (!message || (channel == Conversation::Channel::kUnreliable && !may_overtake)) {
    fail(kPeerEnded, fmt::format("{} sent a malformed message", conversation_.peer()), true);
    return;
  }
  take(*message);
}

void FileSender::take(const Message& message) {
  if (const auto* welcome = std::get_if<Welcome>(&message)) {
    take_welcome(*welcome);
  } else if (const auto* result = std::get_if<Result>(&message)) {
    take_result(*result);
  } else if (const auto* abort = std::get_if<Abort>(&message)) {
    fail(kPeerEnded, fmt::format("{} gave up: {}", conversation_.peer(), printable(abort->reason)),
         false);
  } else {
    fail(kPeerEnded, fmt::format("{} is no receiver", conversation_.peer()), true);
  }
}

void FileSender::take_welcome(const Welcome& welcome) {
  if (phase_ != Phase::kGreeting) {
    fail(kPeerEnded, fmt::format("{} greeted twice", conversation_.peer()), true);
    return;
  }
  conversation_.limit_to(welcome.window);
  phase_ = Phase::kNextFile;
}

void FileSender::take_result(const Result& result) {
  if (phase_ != Phase::kAwaitingResult) {
    fail(kPeerEnded, fmt::format("{} confirmed what was not sent", conversation_.peer()), true);
    return;
  }
  const bool agreed = result.agreed && result.size == end_.size && result.digest == end_.digest;
  const TimePoint now = Clock::now();
  progress_->update(end_.size, now);
  report_(fmt::format("sent {}: {} bytes, sha256 {}, {}", printable(source_->name()), end_.size,
                      to_hex(end_.digest), progress_->total_text(now)));
  if (!agreed) {
    worst_status_ = kMismatch;
    report_(fmt::format("{} got something else: {} bytes, sha256 {}", conversation_.peer(),
                        result.size, to_hex(result.digest)));
  }
  source_.reset();
  phase_ = Phase::kNextFile;
}

void FileSender::fail(int status, std::string text, bool tell_peer) {
  if (!outcome_) outcome_ = Outcome{status, std::move(text), tell_peer};
}

bool FileSender::pump(TimePoint now) {
  waiting_fd_ = -1;
  bool more = true;
  for (int i = 0; i < kBurst && more && !outcome_; ++i) more = step(now);
  return more && !outcome_;
}

bool FileSender::step(TimePoint now) {
  if (!message_.empty() && !conversation_.send(message_)) return false;
  message_.clear();
  switch (phase_) {
    case Phase::kNextFile:
      return start_next(now);
    case Phase::kStreaming:
      return stream();
    case Phase::kEnding:
      message_ = encode(end_);
      phase_ = Phase::kAwaitingResult;
      return true;
    case Phase::kDraining:
      return drain(now);
    case Phase::kGreeting:
    case Phase::kAwaitingResult:
      break;
  }
  return false;
}

bool FileSender::start_next(TimePoint now) {
  if (next_path_ == paths_.size()) {
    message_ = encode(Done{});
    drain_until_ = now + kDrainTime;
    phase_ = Phase::kDraining;
    return true;
  }
  std::string error;
  source_ = FileSource::open(paths_[next_path_++], error);
  if (!source_) {
    fail(kFailure, error, true);
    return false;
  }
  message_ = encode(Offer{source_->size(), source_->name()});
  digest_.emplace();
  progress_.emplace(printable(source_->name()), source_->size(), now);
  end_ = End{};
  phase_ = Phase::kStreaming;
  return true;
}

bool FileSender::stream() {
  std::string_view bytes;
  switch (source_->next(payload_size_, bytes)) {
    case FileSource::State::kBytes:
      digest_->update(bytes);
      end_.size += bytes.size();
      message_ = encode(Data{bytes});
      return true;
    case FileSource::State::kEnd:
      end_.digest = digest_->finish();
      phase_ = Phase::kEnding;
      return true;
    case FileSource::State::kWait:
      waiting_fd_ = source_->fd();
      return false;
    case FileSource::State::kFailed:
      fail(kFailure, source_->error(), true);
      return false;
  }
  return false;
}

bool FileSender::drain(TimePoint now) {
  if (conversation_.undelivered() == 0 || now > drain_until_) {
    outcome_ = Outcome{worst_status_, "", false};
  }
  return false;
}

std::string FileSender::status_text(TimePoint now) {
  if (phase_ == Phase::kGreeting) return fmt::format("waiting for {}", conversation_.peer());
  if (!progress_) return "";
  // What the peer has; of that, the other messages are nothing to speak of.
  progress_->update(end_.size - std::min<std::uint64_t>(end_.size, conversation_.undelivered()),
                    now);
  return progress_->text();
}

}  // namespace tarn_tool

// What an endpoint makes of a datagram.
#include "tests/model/model_feedback.h"
#include "tests/model/model_session.h"

namespace tarn_model {
namespace {

unsigned byte_at(const std::string& bytes, size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}
uint16_t uint16_at(const std::string& bytes, size_t at) {
  return static_cast<uint16_t>(byte_at(bytes, at) * 256 + byte_at(bytes, at + 1));
}
uint32_t uint32_at(const std::string& bytes, size_t at) {
  return uint32_t{uint16_at(bytes, at)} * 65536 + uint16_at(bytes, at + 2);
}

struct Head {
  unsigned type = 0;
  unsigned flag = 0;
  std::string body;
};

// Reads a datagram from its front on.
class Reader {
 public:
  Reader(Trace& trace, const std::string& datagram) : trace_(trace), datagram_(datagram) {}

  unsigned long left() const { return datagram_.size() - at_; }

  bool header() {
    if (left() < 2) {
      log(trace_, 5, "error tarn header len %lu", left());
      return false;
    }
    const char magic = datagram_[0];
    if (magic != '#' && magic != '$') {
      log(trace_, 5, "error magic %c", magic);
      return false;
    }
    const unsigned version = byte_at(datagram_, 1);
    if (version != 0) log(trace_, 2, "not match version %u", version);
    at_ = 2;
    return true;
  }

  // What has been read of a segment that is refused stays read.
  bool segment(Head& head) {
    const unsigned long before = left();
    if (before < 2) return refuse("error tarn segment len", before);
    const unsigned first = byte_at(datagram_, at_);
    head.type = first / 4;
    head.flag = first % 4;
    at_ += 1;
    if (head.type > 6 || head.type == 5) return refuse("error segment type", head.type);
    if (before < 3) return refuse("error tarn segment len", before);
    const unsigned length = uint16_at(datagram_, at_);
    at_ += 2;
    if (left() < length) return refuse("error segment len", length);
    head.body = datagram_.substr(at_, length);
    at_ += length;
    return true;
  }

 private:
  bool refuse(const char* what, unsigned long number) {
    log(trace_, 2, "%s %lu", what, number);
    return false;
  }

  Trace& trace_;
  const std::string& datagram_;
  size_t at_ = 0;
};

}  // namespace

void ModelSession::input(const std::string& datagram) {
  log(trace, 5, "tarn %s input len %d", kSession, static_cast<int>(datagram.size()));
  if (stopped_) return;
  active();
  Reader reader(trace, datagram);
  if (!reader.header()) return;
  Head head;
  while (reader.left() >= 3 && reader.segment(head)) {
    log(trace, 4, "%s recv packet type: %u", kSession, head.type);
    dispatch(head.type, head.flag, head.body);
  }
  if (reader.left() > 0) log(trace, 2, "redundant len %lu", reader.left());
}

void ModelSession::dispatch(unsigned type, unsigned flag, const std::string& body) {
  switch (type) {
    case 0:
      return got_reliable(body, flag);
    case 1:
      return got_unreliable(body);
    case 2:
      return got_acks(body);
    case 3:
      return got_una(body);
    case 4:
      return got_bye();
    default:
      return got_conv(body);
  }
}

void ModelSession::got_reliable(const std::string& body, unsigned flag) {
  if (body.size() <= 2) {
    log(trace, 1, "error reliable size %lu", static_cast<unsigned long>(body.size()));
    return;
  }
  const uint16_t seq = uint16_at(body, 0);
  log(trace, 4, "tarn %s got reliable seq %u", kSession, seq);
  if (!recv_->input(seq, body.substr(2), flag, settings_.recv_window_size)) error(1);
}

void ModelSession::deliver(const std::string& message) {
  if (stopped_) return;
  if (!has(kHasReliable)) {
    log(trace, 2, "tarn %s has no reliable callback", kSession);
    return;
  }
  log(trace, 5, "tarn %s recv reliable len %lu", kSession,
      static_cast<unsigned long>(message.size()));
  happened(What::kReliable, 0, message);
}

void ModelSession::got_unreliable(const std::string& body) {
  const unsigned long size = body.size();
  log(trace, 5, "tarn %s got unreliable len %lu", kSession, size);
  if (body.empty()) {
    log(trace, 1, "%s error unreliable size %lu", kSession, size);
    return;
  }
  if (stopped_) return;
  if (!has(kHasUnreliable)) {
    log(trace, 2, "tarn %s has no unreliable callback", kSession);
    return;
  }
  log(trace, 5, "tarn %s recv unreliable len %lu", kSession, size);
  happened(What::kUnreliable, 0, body);
}

void ModelSession::got_acks(const std::string& body) {
  if (body.empty() || body.size() % 2 != 0) {
    log(trace, 1, "%s error ack size %lu", kSession, static_cast<unsigned long>(body.size()));
    return;
  }
  for (size_t at = 0; at < body.size(); at += 2) {
    const uint16_t seq = uint16_at(body, at);
    send_->ack(seq);
    log(trace, 4, "tarn %s got ack %u,send window size %lu", kSession, seq, unacknowledged());
  }
}

void ModelSession::got_una(const std::string& body) {
  if (body.size() != 2) {
    log(trace, 1, "error una size %lu", static_cast<unsigned long>(body.size()));
    return;
  }
  const uint16_t una = uint16_at(body, 0);
  send_->una(una);
  log(trace, 4, "tarn %s got una %u send window size %lu", kSession, una, unacknowledged());
}

void ModelSession::got_bye() {
  log(trace, 3, "tarn %s got bye", kSession);
  got_bye_ = true;
  error(2);
}

// A conversation id is taken over once; a different one later is reported and changes nothing.
void ModelSession::got_conv(const std::string& body) {
  if (body.size() < 4) {
    log(trace, 1, "error conv size %lu", static_cast<unsigned long>(body.size()));
    return;
  }
  const uint32_t conv = uint32_at(body, 0);
  log(trace, 5, "tarn %s got conv %lu", kSession, static_cast<unsigned long>(conv));
  if (conv_ == 0) {
    conv_ = conv;
  } else if (conv_ != conv) {
    log(trace, 2, "tarn %s error conv local %lu recv %lu", kSession,
        static_cast<unsigned long>(conv_), static_cast<unsigned long>(conv));
  }
}

int ModelSession::check_packet(const std::string& datagram) {
  if (datagram.empty()) return -1;
  Reader reader(trace, datagram);
  Head first;
  if (!reader.header() || !reader.segment(first)) return -1;
  if (first.type != 0) return 1;
  if (first.body.size() < 2) return -1;
  return uint16_at(first.body, 0) == 0 ? 0 : 1;
}

uint32_t ModelSession::read_conv(const std::string& datagram) {
  Reader reader(trace, datagram);
  if (!reader.header()) return 0xFFFFFFFF;
  Head head;
  while (reader.left() >= 3 && reader.segment(head)) {
    if (head.type != 6) continue;
    return head.body.size() < 4 ? 0 : uint32_at(head.body, 0);
  }
  return 0;
}

}  // namespace tarn_model

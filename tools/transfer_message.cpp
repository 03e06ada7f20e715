#include "tools/transfer_message.h"

#include <algorithm>
#include <limits>

namespace tarn_tool {
namespace {

enum Type : std::uint8_t {
  kHelloType = 1,
  kOfferType,
  kDataType,
  kEndType,
  kDoneType,
  kWelcomeType,
  kResultType,
  kAbortType
};

// Tells this protocol, and its version, from any other that a peer may speak.
constexpr std::string_view kGreeting = "tarn transfer 2\n";
constexpr std::uint64_t kUnknownSize = std::numeric_limits<std::uint64_t>::max();

class Writer {
 public:
  explicit Writer(Type type) { number(type, 1); }

  Writer& number(std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) bytes_ += static_cast<char>(value >> (8 * i) & 0xff);
    return *this;
  }
  Writer& text(std::string_view text) {
    bytes_ += text;
    return *this;
  }
  Writer& digest(const Sha256& digest) {
    bytes_.append(digest.begin(), digest.end());
    return *this;
  }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

// Reads from the front. Once something was missing, everything reads as zero and ok() is false.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  std::uint64_t number(std::size_t width) {
    std::uint64_t value = 0;
    for (const char c : take(width)) value = value << 8 | static_cast<unsigned char>(c);
    return value;
  }
  Sha256 digest() {
    Sha256 digest = {};
    const std::string_view bytes = take(digest.size());
    std::copy(bytes.begin(), bytes.end(), digest.begin());
    return digest;
  }
  std::string_view rest() { return take(bytes_.size()); }
  bool skip(std::string_view expected) {
    if (take(expected.size()) != expected) ok_ = false;
    return ok_;
  }
  // True when everything read was there and nothing is left over.
  bool ok() const { return ok_ && bytes_.empty(); }

 private:
  std::string_view take(std::size_t count) {
    if (!ok_ || count > bytes_.size()) {
      ok_ = false;
      return {};
    }
    const std::string_view taken = bytes_.substr(0, count);
    bytes_.remove_prefix(count);
    return taken;
  }

  std::string_view bytes_;
  bool ok_ = true;
};

struct Encoder {
  std::string operator()(const Hello& m) const {
    return Writer(kHelloType).text(kGreeting).number(m.mtu, 4).take();
  }
  std::string operator()(const Welcome& m) const {
    return Writer(kWelcomeType).number(m.window, 4).take();
  }
  std::string operator()(const Offer& m) const {
    const std::string_view name = std::string_view(m.name).substr(0, kMaxName);
    return Writer(kOfferType).number(m.size.value_or(kUnknownSize), 8).text(name).take();
  }
  std::string operator()(const Data& m) const { return Writer(kDataType).text(m.bytes).take(); }
  std::string operator()(const End& m) const {
    return Writer(kEndType).number(m.size, 8).digest(m.digest).take();
  }
  std::string operator()(const Done&) const { return Writer(kDoneType).take(); }
  std::string operator()(const Result& m) const {
    return Writer(kResultType).number(m.agreed, 1).number(m.size, 8).digest(m.digest).take();
  }
  std::string operator()(const Abort& m) const {
    return Writer(kAbortType).text(std::string_view(m.reason).substr(0, kMaxReason)).take();
  }
};

Hello read_hello(Reader& reader) {
  Hello hello;
  if (!reader.skip(kGreeting)) return hello;
  hello.mtu = static_cast<std::uint32_t>(reader.number(4));
  return hello;
}

Offer read_offer(Reader& reader) {
  Offer offer;
  const std::uint64_t size = reader.number(8);
  if (size != kUnknownSize) offer.size = size;
  offer.name = std::string(reader.rest());
  return offer;
}

End read_end(Reader& reader) {
  End end;
  end.size = reader.number(8);
  end.digest = reader.digest();
  return end;
}

Result read_result(Reader& reader) {
  Result result;
  result.agreed = reader.number(1) == 1;
  result.size = reader.number(8);
  result.digest = reader.digest();
  return result;
}

std::optional<Message> read_body(std::uint64_t type, Reader& reader) {
  switch (type) {
    case kHelloType:
      return read_hello(reader);
    case kOfferType:
      return read_offer(reader);
    case kDataType:
      return Data{reader.rest()};
    case kEndType:
      return read_end(reader);
    case kDoneType:
      return Done{};
    case kWelcomeType:
      return Welcome{static_cast<std::uint32_t>(reader.number(4))};
    case kResultType:
      return read_result(reader);
    case kAbortType:
      return Abort{std::string(reader.rest())};
    default:
      return std::nullopt;
  }
}

// Limits that the layout alone does not set.
bool is_sensible(const Message& message) {
  if (const auto* hello = std::get_if<Hello>(&message)) {
    return hello->mtu >= kMinMtu && hello->mtu <= kMaxHelloMtu;
  }
  if (const auto* welcome = std::get_if<Welcome>(&message)) return welcome->window > 0;
  if (const auto* offer = std::get_if<Offer>(&message)) {
    return !offer->name.empty() && offer->name.size() <= kMaxName;
  }
  if (const auto* data = std::get_if<Data>(&message)) return !data->bytes.empty();
  if (const auto* abort = std::get_if<Abort>(&message)) return abort->reason.size() <= kMaxReason;
  return true;
}

}  // namespace

std::string encode(const Message& message) { return std::visit(Encoder(), message); }

std::optional<Message> parse_message(std::string_view bytes) {
  Reader reader(bytes);
  const std::uint64_t type = reader.number(1);
  auto message = read_body(type, reader);
  if (!message || !reader.ok() || !is_sensible(*message)) return std::nullopt;
  return message;
}

}  // namespace tarn_tool

#ifndef TARN_TOOLS_TRANSFER_MESSAGE_H_
#define TARN_TOOLS_TRANSFER_MESSAGE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "tools/digest.h"

namespace tarn_tool {

// What the two ends of a transfer tell each other. One byte of type, then numbers in big-endian
// order and text that reaches to the end. Everything is reliable, but Abort, which has to arrive
// while the reliable messages are stuck.
//
//   sender:    Hello           Offer Data* End         Offer Data* End ...  Done
//   receiver:         Welcome                  Result                  ...
//   either:    Abort

// Opens the conversation. Nothing else starts one, and nothing follows before the answer.
struct Hello {
  std::uint32_t mtu = 0;  // bytes in the largest message that follows
};
struct Welcome {
  std::uint32_t window = 0;  // segments that the receiver keeps
};
struct Offer {
  std::optional<std::uint64_t> size;  // bytes; unknown for a stream
  std::string name;                   // 1 to kMaxName bytes
};
// Only a view: good as long as the message that it was parsed from.
struct Data {
  std::string_view bytes;
};
struct End {
  std::uint64_t size = 0;
  Sha256 digest = {};
};
struct Done {};
// What the receiver has got, and whether that is what End announced.
struct Result {
  bool agreed = false;
  std::uint64_t size = 0;
  Sha256 digest = {};
};
struct Abort {
  std::string reason;  // at most kMaxReason bytes
};

using Message = std::variant<Hello, Welcome, Offer, Data, End, Done, Result, Abort>;

constexpr std::size_t kMaxName = 200;
constexpr std::size_t kMaxReason = 200;
// Every message but Data fits into the smaller one; a greeting names nothing above the larger one.
constexpr unsigned kMinMtu = 256;
constexpr unsigned kMaxHelloMtu = 65535;
// Bytes of Data that are not payload.
constexpr std::size_t kDataHeadSize = 1;

// The bytes of one message. Names and reasons that are too long are cut.
std::string encode(const Message& message);

// The message that `bytes` spell; nothing when they are malformed. Never reads outside of `bytes`.
std::optional<Message> parse_message(std::string_view bytes);

}  // namespace tarn_tool

#endif  // TARN_TOOLS_TRANSFER_MESSAGE_H_

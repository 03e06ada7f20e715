#ifndef TARN_TOOLS_DIGEST_H_
#define TARN_TOOLS_DIGEST_H_

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace tarn_tool {

using Sha256 = std::array<std::uint8_t, 32>;

// The digest in 64 lower-case hexadecimal digits.
std::string to_hex(const Sha256& digest);

// SHA-256 over a stream of bytes.
class Digest {
 public:
  Digest();

  void update(std::string_view bytes);

  // The digest of everything so far. Requires: not called before; no update afterwards.
  Sha256 finish();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

}  // namespace tarn_tool

#endif  // TARN_TOOLS_DIGEST_H_

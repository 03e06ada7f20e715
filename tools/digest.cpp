#include "tools/digest.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <stdexcept>

namespace tarn_tool {
namespace {

void require(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 is not available");
}

}  // namespace

std::string to_hex(const Sha256& digest) {
  std::string text;
  for (const std::uint8_t byte : digest) text += fmt::format("{:02x}", byte);
  return text;
}

void Digest::Free::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

Digest::Digest() : context_(EVP_MD_CTX_new()) {
  require(context_ ? EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) : 0);
}

void Digest::update(std::string_view bytes) {
  require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

Sha256 Digest::finish() {
  Sha256 digest = {};
  require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr));
  return digest;
}

}  // namespace tarn_tool

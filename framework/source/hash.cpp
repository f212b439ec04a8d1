#include "kelvo/hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace kelvo {
namespace {
// OpenSSL initialises itself on first use and keeps some state on the thread that did it. When that
// thread is a job worker still running at exit, the state is never freed; initialising on the main
// thread at load time lets the library's own exit handler release it.
[[maybe_unused]] const bool opensslReady = OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr) == 1;
} // namespace

Sha256::Sha256() : _ctx(EVP_MD_CTX_new()) {
  EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(_ctx), EVP_sha256(), nullptr);
}

Sha256::~Sha256() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(_ctx)); }

void Sha256::Update(const void* data, std::size_t size) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(_ctx), data, size);
}

std::array<std::uint8_t, 32> Sha256::Finish() {
  std::array<std::uint8_t, 32> digest{};
  unsigned int len = 0;
  EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(_ctx), digest.data(), &len);
  return digest;
}

std::string ToHex(const std::uint8_t* bytes, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text(size * 2, '0');
  for (std::size_t i = 0; i < size; ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 15];
  }
  return text;
}

Result<void> OutputStreamHasher::Write(const void* data, std::size_t size) {
  if (_closed) return IllegalStateError("Write after close.");
  _hash.Update(data, size);
  return _inner ? _inner->Write(data, size) : Result<void>();
}

Result<void> OutputStreamHasher::Close() {
  if (_closed) return {};
  _closed = true;
  _digest = _hash.Finish();
  return _inner ? _inner->Close() : Result<void>();
}

Result<std::array<std::uint8_t, 16>> CreateUuid() {
  std::array<std::uint8_t, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) return UnexpectedError("No random bytes for a UUID.");
  b[6] = static_cast<std::uint8_t>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<std::uint8_t>((b[8] & 0x3f) | 0x80);
  return b;
}

Result<std::string> CreateUuidString() {
  KELVO_ASSIGN_OR_RETURN(auto b, CreateUuid());
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += digits[b[i] >> 4];
    text += digits[b[i] & 15];
  }
  return text;
}

} // namespace kelvo

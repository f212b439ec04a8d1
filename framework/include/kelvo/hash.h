#pragma once
// SHA-256 streaming and UUIDs (random, RFC 4122 version 4), both through OpenSSL.

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// Incremental SHA-256. REQUIRES: external synchronization.
class Sha256 {
public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void Update(const void* data, std::size_t size);
  // The 32-byte digest; the hasher can't be updated afterwards.
  std::array<std::uint8_t, 32> Finish();

private:
  void* _ctx;
};

std::string ToHex(const std::uint8_t* bytes, std::size_t size);

// An output stream that passes each write to an inner stream (which may be a null stream) and
// to a SHA-256 hasher; Close closes the inner stream and makes the digest available.
class OutputStreamHasher final : public OutputStream {
public:
  explicit OutputStreamHasher(std::unique_ptr<OutputStream> inner) : _inner(std::move(inner)) {}
  Result<void> Write(const void* data, std::size_t size) override;
  Result<void> Close() override;
  // The digest; valid after Close.
  const std::array<std::uint8_t, 32>& GetDigest() const { return _digest; }

private:
  std::unique_ptr<OutputStream> _inner;
  Sha256 _hash;
  std::array<std::uint8_t, 32> _digest{};
  bool _closed = false;
};

// 16 random bytes with the version 4 and variant bits set.
Result<std::array<std::uint8_t, 16>> CreateUuid();
// The canonical text "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx" in upper case.
Result<std::string> CreateUuidString();

} // namespace kelvo

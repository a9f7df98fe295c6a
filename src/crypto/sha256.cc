// The calls of the SHA-256-shaped digest.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>

#include "ZuHelper.h"
#include "crypto/sha256_blocks.h"
#include "crypto/sha256_constants.h"
#include "support/hex.h"

const uint64_t sha256_k[64] = {ZU_SHA256_CONSTANTS};

namespace {

constexpr uint32_t kBlockSize = sizeof(ZuSHA256Context::block) / 2;
constexpr uint64_t kInitialHash[] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372,
                                     0xa54ff53a, 0x510e527f, 0x9b05688c,
                                     0x1f83d9ab, 0x5be0cd19};

void WriteBigEndian(uint32_t number, uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(number >> (24 - 8 * i));
  }
}

// Takes the first `count` blocks of the context's buffer.
void CompressBuffer(ZuSHA256Context& context, size_t count) {
  zu::crypto::CompressSha256(
      context.hash, reinterpret_cast<const std::byte*>(context.block), count);
}

}  // namespace

void ZuSHA256_Init(ZuSHA256Context* context) {
  std::memcpy(context->hash, kInitialHash, sizeof kInitialHash);
  context->total_length = 0;
  context->pending_length = 0;
}

void ZuSHA256_Update(ZuSHA256Context* context, const void* data,
                     uint32_t length) {
  if (length == 0) return;
  const auto* next = static_cast<const std::byte*>(data);
  const uint32_t taken = std::min(kBlockSize - context->pending_length, length);
  std::memcpy(context->block + context->pending_length, next, taken);
  context->pending_length += taken;
  if (context->pending_length < kBlockSize) return;

  CompressBuffer(*context, 1);
  next += taken;
  const uint32_t left = length - taken;
  const uint32_t pending = left % kBlockSize;
  zu::crypto::CompressSha256(context->hash, next, left / kBlockSize);
  std::memcpy(context->block, next + (left - pending), pending);
  context->pending_length = pending;
  // Wraps, as does the length in bits below: both are 32 bits wide by contract.
  context->total_length += left - pending + kBlockSize;
}

void ZuSHA256_Final(ZuSHA256Context* context, uint8_t* digest) {
  const uint32_t pending = context->pending_length;
  const uint32_t bits = (context->total_length + pending) * 8;
  // 0x80 and the 8 bytes of the length, of which the upper 4 are always 0.
  const uint32_t padded =
      pending + 9 > kBlockSize ? 2 * kBlockSize : kBlockSize;
  std::memset(context->block + pending, 0, padded - pending);
  context->block[pending] = 0x80;
  WriteBigEndian(bits, context->block + padded - sizeof bits);
  CompressBuffer(*context, padded / kBlockSize);

  for (size_t i = 0; i < std::size(context->hash); ++i) {
    WriteBigEndian(static_cast<uint32_t>(context->hash[i]), digest + 4 * i);
  }
}

ZuSHA256Context* Zu_SHA256_Start(void) {
  auto* context = new (std::nothrow) ZuSHA256Context;
  if (context == nullptr) std::abort();
  ZuSHA256_Init(context);
  return context;
}

void Zu_SHA256_Update(ZuSHA256Context* context, const void* data,
                      uint32_t length) {
  ZuSHA256_Update(context, data, length);
}

void Zu_SHA256_Finish(ZuSHA256Context* context, char* text) {
  uint8_t digest[ZU_SHA256_SIZE] = {};
  ZuSHA256_Final(context, digest);
  delete context;
  zu::WriteUpperHex(std::as_bytes(std::span(digest)), text);
}

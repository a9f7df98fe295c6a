// The half of code_directory.h that hashes.

#include <openssl/objects.h>
#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>

#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/code_directory.h"
#include "platform/linux/thread.h"

namespace zu::platform {
namespace {

// One thread hashes smaller code as fast as two.
constexpr uint64_t kMinSizeForThreads = 8 * 1024 * 1024;
constexpr uint64_t kMaxFileSize =
    static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
// Large enough for few calls, small enough to stay in a core's cache.
constexpr uint64_t kBufferSize = 256 * 1024;

bool StartsWith(std::span<const std::byte> digest,
                std::span<const std::byte> value) {
  return !value.empty() && value.size() <= digest.size() &&
         std::equal(value.begin(), value.end(), digest.begin());
}

// Hashes a run of pages. Allocates when it is made and never afterwards, so
// that it can run on a thread of its own.
class PageHasher {
 public:
  PageHasher(const EVP_MD* digest, int descriptor, uint64_t slice_offset,
             const CodeDirectory& directory)
      : digest_(digest),
        descriptor_(descriptor),
        slice_offset_(slice_offset),
        directory_(directory),
        page_size_(directory.page_size != 0 ? directory.page_size
                                            : directory.code_limit),
        context_(EVP_MD_CTX_new()),
        buffer_size_(std::min(directory.code_limit, kBufferSize)),
        buffer_(std::make_unique_for_overwrite<std::byte[]>(buffer_size_)) {}

  PagesResult Check(uint32_t first, uint32_t end) noexcept {
    const ScopedErrorMark mark;
    if (digest_ == nullptr || !context_ ||
        EVP_DigestInit_ex2(context_.get(), digest_, nullptr) != 1) {
      return PagesResult::kUnreadable;
    }
    uint32_t page = first;
    uint64_t missing = SizeOfPage(page);  // Of the current page.
    const uint64_t code_end = std::min(end * page_size_, directory_.code_limit);
    for (uint64_t offset = first * page_size_; offset < code_end;) {
      std::span<const std::byte> rest =
          std::span(buffer_.get(), static_cast<size_t>(std::min<uint64_t>(
                                       code_end - offset, buffer_size_)));
      if (!ReadAt(descriptor_, slice_offset_ + offset,
                  {buffer_.get(), rest.size()})) {
        return errno == 0 ? PagesResult::kDamaged : PagesResult::kUnreadable;
      }
      offset += rest.size();
      while (!rest.empty()) {
        const auto part = rest.first(
            static_cast<size_t>(std::min<uint64_t>(missing, rest.size())));
        if (EVP_DigestUpdate(context_.get(), part.data(), part.size()) != 1) {
          return PagesResult::kUnreadable;
        }
        rest = rest.subspan(part.size());
        missing -= part.size();
        if (missing != 0) break;
        const PagesResult result = FinishPage(page);
        if (result != PagesResult::kGood) return result;
        if (++page < end) missing = SizeOfPage(page);
      }
    }
    return PagesResult::kGood;
  }

 private:
  uint64_t SizeOfPage(uint32_t page) const {
    return std::min(page_size_, directory_.code_limit - page * page_size_);
  }

  PagesResult FinishPage(uint32_t page) noexcept {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    // Without a type the context keeps the digest that it has.
    if (EVP_DigestFinal_ex(context_.get(), digest, &size) != 1 ||
        EVP_DigestInit_ex2(context_.get(), nullptr, nullptr) != 1) {
      return PagesResult::kUnreadable;
    }
    return StartsWith(std::as_bytes(std::span(digest, size)),
                      directory_.CodeSlot(page))
               ? PagesResult::kGood
               : PagesResult::kDamaged;
  }

  const EVP_MD* const digest_;
  const int descriptor_;
  const uint64_t slice_offset_;
  const CodeDirectory& directory_;
  const uint64_t page_size_;
  const DigestContextPtr context_;
  const uint64_t buffer_size_;
  const std::unique_ptr<std::byte[]> buffer_;
};

}  // namespace

int DigestNid(CodeHash hash) {
  switch (hash) {
    case CodeHash::kSha1:
      return NID_sha1;
    case CodeHash::kSha256:
    case CodeHash::kSha256Truncated:
      return NID_sha256;
    case CodeHash::kSha384:
      return NID_sha384;
  }
  return NID_undef;
}

std::vector<std::byte> HashOf(const CryptoContext& context, CodeHash hash,
                              std::span<const std::byte> data) {
  const EVP_MD* const digest = context.Digest(DigestNid(hash));
  return digest == nullptr ? std::vector<std::byte>() : DigestOf(data, *digest);
}

bool MatchesSlot(const CryptoContext& context, const CodeDirectory& directory,
                 uint32_t slot, std::span<const std::byte> data) {
  return StartsWith(HashOf(context, directory.hash, data),
                    directory.SpecialSlot(slot));
}

std::vector<std::byte> CdHash(const CryptoContext& context,
                              const CodeDirectory& directory) {
  constexpr size_t kSize = 20;
  std::vector<std::byte> hash =
      HashOf(context, directory.hash, directory.bytes);
  hash.resize(std::min(hash.size(), kSize));
  return hash;
}

PagesResult VerifyPages(const CryptoContext& context, int descriptor,
                        uint64_t slice_offset, const CodeDirectory& directory) {
  if (directory.code_slots == 0) return PagesResult::kGood;
  // A larger limit cannot be met, and sums with it could overflow.
  if (slice_offset > kMaxFileSize ||
      directory.code_limit > kMaxFileSize - slice_offset) {
    return PagesResult::kDamaged;
  }
  const EVP_MD* const digest = context.Digest(DigestNid(directory.hash));
  PageHasher hasher(digest, descriptor, slice_offset, directory);
  const uint32_t pages = directory.code_slots;
  if (pages == 1 || directory.code_limit <= kMinSizeForThreads) {
    return hasher.Check(0, pages);
  }
  PageHasher helper(digest, descriptor, slice_offset, directory);
  const uint32_t half = pages / 2;
  PagesResult second = PagesResult::kUnreadable;
  const std::optional<pthread_t> thread =
      StartThread("ZuCodePages", [&] { second = helper.Check(half, pages); });
  if (!thread) return hasher.Check(0, pages);
  const PagesResult first = hasher.Check(0, half);
  ::pthread_join(*thread, nullptr);
  return first != PagesResult::kGood ? first : second;
}

}  // namespace zu::platform

#include "platform/linux/signing/bundle/resource_seal.h"

#include <fcntl.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <string_view>
#include <utility>

#include "platform/code_signing.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/status.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// More than any bundle has; what stays in memory at once is bounded.
constexpr size_t kMaxEntries = 1 << 20;
constexpr size_t kMaxRequirements = 16 << 20;  // Bytes, all of them together.

std::string_view AsText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool HasDigest(const FoundResource& found, const EVP_MD& digest,
               std::string_view expected, uint64_t& budget) {
  const FileDescriptor file(RetryOnInterrupt([&] {
    // A pipe that has taken the file's place would make a plain open wait.
    return ::openat(found.directory, found.name,
                    O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  }));
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0 ||
      !S_ISREG(status.st_mode)) {
    return false;
  }
  const auto size = static_cast<uint64_t>(status.st_size);
  if (size > budget) return false;
  budget -= size;
  const auto value = DigestOfContent(file.get(), size, digest);
  return value && AsText(*value) == expected;
}

bool PointsTo(const FoundResource& found, std::string_view expected) {
  if (expected.size() >= PATH_MAX) return false;
  // One byte more, which tells a longer text.
  std::string text(expected.size() + 1, '\0');
  const ssize_t size =
      ::readlinkat(found.directory, found.name, text.data(), text.size());
  return size >= 0 && std::string_view(text).substr(
                          0, static_cast<size_t>(size)) == expected;
}

}  // namespace

struct ResourceSeal::Check {
  const CryptoContext& context;
  const BundleLayout& bundle;
  uint64_t& budget;
  std::vector<NestedCode>& nested;
  std::vector<const Entry*> seen = {};
  size_t requirements = 0;  // Bytes.
};

std::optional<ResourceSeal::Entry> ResourceSeal::ParseEntry(
    PropertyList::Value value) {
  Entry entry{.digest = NID_sha1};
  std::optional<std::string_view> text;
  if (const auto digest = value.AsData()) {
    text = AsText(*digest);
  } else if (const auto better = value.Find("hash2")) {
    entry.digest = NID_sha256;
    if (const auto data = better->AsData()) text = AsText(*data);
  } else if (const auto only = value.Find("hash")) {
    if (const auto data = only->AsData()) text = AsText(*data);
  } else if (const auto link = value.Find("symlink")) {
    entry.kind = Entry::Kind::kSymlink;
    text = link->AsString();
  } else if (const auto requirement = value.Find("requirement")) {
    entry.kind = Entry::Kind::kCode;
    text = requirement->AsString();
  }
  if (!text) return std::nullopt;
  entry.value = *text;
  if (const auto optional = value.Find("optional")) {
    entry.optional = optional->AsBoolean().value_or(false);
  }
  return entry;
}

std::shared_ptr<const ResourceSeal> ResourceSeal::Parse(
    std::span<const std::byte> bytes) {
  std::optional<PropertyList> list = PropertyList::Parse(bytes);
  if (!list) return nullptr;
  const bool nested = list->root().Find("files2").has_value();
  const auto rules = list->root().Find(nested ? "rules2" : "rules");
  if (!rules) return nullptr;
  std::optional<ResourceRules> compiled = ResourceRules::Parse(*rules);
  if (!compiled) return nullptr;
  const std::shared_ptr<ResourceSeal> seal(
      new ResourceSeal(*std::move(list), *std::move(compiled)));
  seal->nested_ = nested;
  const auto files = seal->list_.root().Find(nested ? "files2" : "files");
  if (!files || files->type() != PropertyList::Type::kDictionary ||
      files->size() > kMaxEntries) {
    return nullptr;
  }
  for (size_t index = 0; index < files->size(); ++index) {
    const std::optional<Entry> entry = ParseEntry(files->EntryAt(index));
    if (!entry) return nullptr;
    seal->entries_.insert_or_assign(files->KeyAt(index), *entry);
  }
  return seal;
}

int32_t ResourceSeal::Compare(const FoundResource& found, Check& check) const {
  const auto position = entries_.find(found.path);
  if (position == entries_.end()) return kCodeSigningBadResource;  // Added.
  const Entry& entry = position->second;
  bool good = false;
  switch (entry.kind) {
    case Entry::Kind::kDigest: {
      const EVP_MD* const digest = check.context.Digest(entry.digest);
      good = found.kind == FoundResource::Kind::kFile && digest != nullptr &&
             HasDigest(found, *digest, entry.value, check.budget);
      break;
    }
    case Entry::Kind::kSymlink:
      good = found.kind == FoundResource::Kind::kSymlink &&
             PointsTo(found, entry.value);
      break;
    case Entry::Kind::kCode:
      check.requirements += entry.value.size();
      good = found.kind != FoundResource::Kind::kSymlink &&
             check.requirements <= kMaxRequirements;
      if (!good) break;
      check.nested.push_back(
          {check.bundle.resource_base + "/" + std::string(found.path),
           std::string(entry.value)});
      break;
  }
  check.seen.push_back(&entry);
  return good ? kCodeSigningSuccess : kCodeSigningBadResource;
}

int32_t ResourceSeal::VerifyResources(const CryptoContext& context,
                                      const BundleLayout& bundle,
                                      uint64_t& budget,
                                      std::vector<NestedCode>& nested) const {
  const ScopedErrorMark mark;
  Check check{context, bundle, budget, nested};
  const int32_t status = WalkResources(
      bundle, rules_, nested_,
      [&](const FoundResource& found) { return Compare(found, check); });
  if (status != kCodeSigningSuccess) return status;
  std::sort(check.seen.begin(), check.seen.end(), std::less<>());
  for (const auto& [path, entry] : entries_) {
    if (!entry.optional &&
        !std::binary_search(check.seen.begin(), check.seen.end(), &entry,
                            std::less<>())) {
      return kCodeSigningBadResource;
    }
  }
  return kCodeSigningSuccess;
}

}  // namespace zu::platform

#include "platform/linux/signing/bundle/resource_rules.h"

#include <dirent.h>
#include <fcntl.h>
#include <re2/re2.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstring>

#include "platform/linux/signing/status.h"
#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

// Real seals have about fifteen rules of up to a hundred characters.
constexpr size_t kMaxRules = 256;
constexpr size_t kMaxExpressionSize = 4096;
constexpr int64_t kMaxExpressionMemory = 256 << 10;
// One descriptor is open for each level.
constexpr size_t kMaxDirectoryDepth = 64;

struct DirectoryTraits {
  using Value = DIR*;
  static constexpr Value kNone = nullptr;
  static void Close(Value directory) noexcept {
    const int saved = errno;
    ::closedir(directory);
    errno = saved;
  }
};
using Directory = ScopedHandle<DirectoryTraits>;

Directory OpenDirectory(int parent, const char* name) {
  FileDescriptor descriptor(RetryOnInterrupt([&] {
    return ::openat(parent, name,
                    O_RDONLY | O_CLOEXEC | O_DIRECTORY | O_NOFOLLOW);
  }));
  if (!descriptor.valid()) return Directory();
  Directory directory(::fdopendir(descriptor.get()));
  if (directory.valid()) static_cast<void>(descriptor.release());
  return directory;
}

std::optional<double> NumberIn(PropertyList::Value value) {
  if (const auto integer = value.AsInteger()) {
    return static_cast<double>(*integer);
  }
  return value.AsReal();
}

// What a rule says; absent when it is of no known form.
std::optional<ResourceRule> ParseRule(PropertyList::Value value) {
  ResourceRule rule;
  if (const auto flag = value.AsBoolean()) {
    rule.omit = !*flag;
    return rule;
  }
  if (const auto weight = NumberIn(value)) {
    rule.weight = *weight;
    return rule;
  }
  if (value.type() != PropertyList::Type::kDictionary) return std::nullopt;
  if (const auto weight = value.Find("weight")) {
    const std::optional<double> number = NumberIn(*weight);
    if (!number) return std::nullopt;
    rule.weight = *number;
  }
  const auto flag = [&](const char* name) {
    const auto found = value.Find(name);
    return found && found->AsBoolean().value_or(false);
  };
  rule.omit = flag("omit");
  rule.optional = flag("optional");
  rule.nested = flag("nested");
  return rule;
}

class Walk {
 public:
  Walk(const BundleLayout& bundle, const ResourceRules& rules, bool nested,
       const std::function<int32_t(const FoundResource&)>& visit)
      : rules_(rules), nested_(nested), visit_(visit) {
    const std::string base = bundle.resource_base + "/";
    if (bundle.executable.starts_with(base)) {
      executable_ = bundle.executable.substr(base.size());
    }
  }

  int32_t Enter(int parent, const char* name, size_t depth) {
    const Directory directory = OpenDirectory(parent, name);
    if (!directory.valid() || depth == kMaxDirectoryDepth) {
      return kCodeSigningBadResource;
    }
    for (;;) {
      errno = 0;
      const dirent* const entry = ::readdir(directory.get());
      if (entry == nullptr) {
        return errno == 0 ? 0 : kCodeSigningBadResource;
      }
      if (std::strcmp(entry->d_name, ".") == 0 ||
          std::strcmp(entry->d_name, "..") == 0) {
        continue;
      }
      const size_t parent_size = path_.size();
      if (!path_.empty()) path_ += '/';
      path_ += entry->d_name;
      const int32_t status =
          Look(::dirfd(directory.get()), entry->d_name, depth);
      path_.resize(parent_size);
      if (status != 0) return status;
    }
  }

 private:
  // The signature, what is left of older ones' form, a store's receipt and the
  // executable, whose own signature covers it.
  bool IsExcluded() const {
    return path_ == "_CodeSignature" || path_ == "CodeResources" ||
           path_ == "_MASReceipt" || path_ == executable_;
  }

  int32_t Look(int directory, const char* name, size_t depth) {
    if (IsExcluded()) return 0;
    struct stat status {};
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return kCodeSigningBadResource;
    }
    const ResourceRule* const rule = rules_.Find(path_);
    // A directory is entered all the same: what is in there has rules of its
    // own, or was added.
    if (rule != nullptr && rule->omit && !S_ISDIR(status.st_mode)) return 0;
    FoundResource::Kind kind = FoundResource::Kind::kFile;
    switch (status.st_mode & S_IFMT) {
      case S_IFDIR:
        // What is no code is entered, whatever rule matches it.
        if (!nested_ || rule == nullptr || rule->omit || !rule->nested ||
            std::strchr(name, '.') == nullptr) {
          return Enter(directory, name, depth + 1);
        }
        kind = FoundResource::Kind::kDirectory;
        break;
      case S_IFREG:
        break;
      case S_IFLNK:
        if (!nested_) return 0;
        kind = FoundResource::Kind::kSymlink;
        break;
      default:
        return rule == nullptr ? 0 : kCodeSigningResourceNotSupported;
    }
    if (rule == nullptr) return 0;
    return visit_({kind, path_, directory, name, *rule});
  }

  const ResourceRules& rules_;
  const bool nested_;
  const std::function<int32_t(const FoundResource&)>& visit_;
  std::string executable_;
  std::string path_;
};

}  // namespace

struct ResourceRules::Compiled {
  std::unique_ptr<const re2::RE2> expression;
  ResourceRule rule;
};

ResourceRules::ResourceRules() = default;
ResourceRules::ResourceRules(ResourceRules&&) noexcept = default;
ResourceRules& ResourceRules::operator=(ResourceRules&&) noexcept = default;
ResourceRules::~ResourceRules() = default;

std::optional<ResourceRules> ResourceRules::Parse(PropertyList::Value list) {
  if (list.type() != PropertyList::Type::kDictionary ||
      list.size() > kMaxRules) {
    return std::nullopt;
  }
  re2::RE2::Options options;
  options.set_posix_syntax(true);
  options.set_one_line(true);  // ^ and $ are the path's ends only,
  options.set_dot_nl(true);    // since a name may contain a line's end,
  options.set_encoding(re2::RE2::Options::EncodingLatin1);  // or any bytes.
  options.set_never_capture(true);
  options.set_log_errors(false);
  options.set_max_mem(kMaxExpressionMemory);
  ResourceRules rules;
  for (size_t index = 0; index < list.size(); ++index) {
    const std::string_view text = list.KeyAt(index);
    const std::optional<ResourceRule> rule = ParseRule(list.EntryAt(index));
    if (!rule || text.size() > kMaxExpressionSize) return std::nullopt;
    auto expression = std::make_unique<const re2::RE2>(
        re2::StringPiece(text.data(), text.size()), options);
    if (!expression->ok()) return std::nullopt;
    rules.rules_.push_back({std::move(expression), *rule});
  }
  return rules;
}

const ResourceRule* ResourceRules::Find(std::string_view path) const {
  const ResourceRule* best = nullptr;
  for (const Compiled& compiled : rules_) {
    if ((best == nullptr || compiled.rule.weight > best->weight) &&
        re2::RE2::PartialMatch(re2::StringPiece(path.data(), path.size()),
                               *compiled.expression)) {
      best = &compiled.rule;
    }
  }
  return best;
}

int32_t WalkResources(
    const BundleLayout& bundle, const ResourceRules& rules, bool nested,
    const std::function<int32_t(const FoundResource&)>& visit) {
  return Walk(bundle, rules, nested, visit)
      .Enter(AT_FDCWD, bundle.resource_base.c_str(), 0);
}

}  // namespace zu::platform

#include "platform/linux/signing/signer/bundle_signer.h"

#include <fcntl.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/linux/property_list.h"
#include "platform/linux/signing/bundle/bundle_layout.h"
#include "platform/linux/signing/bundle/resource_rules.h"
#include "platform/linux/signing/cms/signed_message.h"
#include "platform/linux/signing/file_content.h"
#include "platform/linux/signing/macho/macho_image.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "support/file_descriptor.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

// The platform's usual rules, as it writes them: those of bundles whose
// resources have a directory of their own, and those of flat ones.
struct RuleText {
  const char* expression;
  const char* value;
};

constexpr char kLight[] = "<dict><key>weight</key><real>11</real></dict>";
constexpr char kHeavy[] = "<dict><key>weight</key><real>20</real></dict>";
constexpr char kHeavyOmitted[] =
    "<dict><key>omit</key><true/><key>weight</key><real>20</real></dict>";
constexpr char kNested[] =
    "<dict><key>nested</key><true/><key>weight</key><real>10</real></dict>";
constexpr char kLocalized[] =
    "<dict><key>optional</key><true/><key>weight</key><real>1000</real></dict>";
constexpr char kBaseLocalized[] =
    "<dict><key>weight</key><real>1010</real></dict>";
constexpr char kLocalVersion[] =
    "<dict><key>omit</key><true/><key>weight</key><real>1100</real></dict>";
constexpr char kFinderData[] =
    "<dict><key>omit</key><true/><key>weight</key><real>2000</real></dict>";

constexpr RuleText kFirstRules[] = {
    {"^Resources/", "<true/>"},
    {"^Resources/.*\\.lproj/", kLocalized},
    {"^Resources/.*\\.lproj/locversion.plist$", kLocalVersion},
    {"^Resources/Base\\.lproj/", kBaseLocalized},
    {"^version.plist$", "<true/>"},
};
constexpr RuleText kSecondRules[] = {
    {".*\\.dSYM($|/)", kLight},
    {"^(.*/)?\\.DS_Store$", kFinderData},
    {"^(Frameworks|SharedFrameworks|PlugIns|Plug-ins|XPCServices|Helpers|MacOS|"
     "Library/(Automator|Spotlight|LoginItems))/",
     kNested},
    {"^.*", "<true/>"},
    {"^Info\\.plist$", kHeavyOmitted},
    {"^PkgInfo$", kHeavyOmitted},
    {"^Resources/", kHeavy},
    {"^Resources/.*\\.lproj/", kLocalized},
    {"^Resources/.*\\.lproj/locversion.plist$", kLocalVersion},
    {"^Resources/Base\\.lproj/", kBaseLocalized},
    {"^[^/]+$", kNested},
    {"^embedded\\.provisionprofile$", kHeavy},
    {"^version\\.plist$", kHeavy},
};
constexpr RuleText kFlatFirstRules[] = {
    {"^.*", "<true/>"},
    {"^.*\\.lproj/", kLocalized},
    {"^.*\\.lproj/locversion.plist$", kLocalVersion},
    {"^Base\\.lproj/", kBaseLocalized},
    {"^version.plist$", "<true/>"},
};
constexpr RuleText kFlatSecondRules[] = {
    {".*\\.dSYM($|/)", kLight},
    {"^(.*/)?\\.DS_Store$", kFinderData},
    {"^.*", "<true/>"},
    {"^.*\\.lproj/", kLocalized},
    {"^.*\\.lproj/locversion.plist$", kLocalVersion},
    {"^Base\\.lproj/", kBaseLocalized},
    {"^Info\\.plist$", kHeavyOmitted},
    {"^PkgInfo$", kHeavyOmitted},
    {"^embedded\\.provisionprofile$", kHeavy},
    {"^version\\.plist$", kHeavy},
};

std::string Element(const char* name, std::string_view text) {
  std::string element = std::string("<") + name + ">";
  for (const char c : text) {
    switch (c) {
      case '<':
        element += "&lt;";
        break;
      case '>':
        element += "&gt;";
        break;
      case '&':
        element += "&amp;";
        break;
      default:
        element += c;
    }
  }
  return element + "</" + name + ">";
}

std::string DataElement(std::span<const std::byte> bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  text.pop_back();
  return Element("data", text);
}

std::string HexString(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "H\"";
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<size_t>(byte >> 4)];
    text += kDigits[std::to_integer<size_t>(byte & std::byte{0xf})];
  }
  return text + "\"";
}

std::string QuotedString(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string RulesElement(std::span<const RuleText> rules) {
  std::string text = "<dict>\n";
  for (const RuleText& rule : rules) {
    text += Element("key", rule.expression) + rule.value + "\n";
  }
  return text + "</dict>\n";
}

std::optional<ResourceRules> Compile(std::span<const RuleText> rules) {
  const std::string text = RulesElement(rules);
  const auto list = PropertyList::Parse(std::as_bytes(std::span(text)));
  return list ? ResourceRules::Parse(list->root()) : std::nullopt;
}

// What is sealed, as <key> and value: in the order of the paths.
using Entries = std::map<std::string, std::string>;

std::string FilesElement(const Entries& entries) {
  std::string text = "<dict>\n";
  for (const auto& [path, value] : entries) {
    text += Element("key", path) + value + "\n";
  }
  return text + "</dict>\n";
}

class Sealer {
 public:
  Sealer(std::shared_ptr<const CryptoContext> context,
         const BundleLayout& bundle, std::string& error)
      : context_(std::move(context)), bundle_(bundle), error_(error) {}

  // The seal's text; absent on failure.
  std::optional<std::string> Seal() {
    const bool flat =
        bundle_.info_dictionary == bundle_.resource_base + "/Info.plist" &&
        bundle_.root == bundle_.resource_base;
    const std::span<const RuleText> first =
        flat ? std::span<const RuleText>(kFlatFirstRules) : kFirstRules;
    const std::span<const RuleText> second =
        flat ? std::span<const RuleText>(kFlatSecondRules) : kSecondRules;
    Entries files;
    Entries files2;
    if (!Collect(first, false, files) || !Collect(second, true, files2)) {
      return std::nullopt;
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n<key>files</key>" +
           FilesElement(files) + "<key>files2</key>" + FilesElement(files2) +
           "<key>rules</key>" + RulesElement(first) + "<key>rules2</key>" +
           RulesElement(second) + "</dict>\n</plist>\n";
  }

 private:
  bool Collect(std::span<const RuleText> text, bool nested, Entries& entries) {
    const std::optional<ResourceRules> rules = Compile(text);
    if (!rules) return false;
    const int32_t status = WalkResources(
        bundle_, *rules, nested, [&](const FoundResource& found) -> int32_t {
          const std::optional<std::string> value =
              nested && found.rule.nested &&
                      found.kind != FoundResource::Kind::kSymlink
                  ? CodeEntry(found.path)
                  : ResourceEntry(found, nested);
          if (!value || !IsValidUtf8(found.path)) {
            error_ = found.path + ": " +
                     (error_.empty() ? "cannot be sealed" : error_);
            return -1;
          }
          entries[found.path] = *value;
          return 0;
        });
    if (status != 0 && error_.empty()) error_ = "a resource cannot be read";
    return status == 0;
  }

  std::optional<std::string> ResourceEntry(const FoundResource& found,
                                           bool second) const {
    if (found.kind == FoundResource::Kind::kSymlink) {
      std::string target(PATH_MAX, '\0');
      const ssize_t size = ::readlinkat(found.directory, found.name,
                                        target.data(), target.size());
      if (size < 0) return std::nullopt;
      target.resize(static_cast<size_t>(size));
      if (!IsValidUtf8(target)) return std::nullopt;
      return "<dict><key>symlink</key>" + Element("string", target) + "</dict>";
    }
    const FileDescriptor file(RetryOnInterrupt([&] {
      return ::openat(found.directory, found.name,
                      O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    }));
    struct stat status {};
    if (!file.valid() || ::fstat(file.get(), &status) != 0) return std::nullopt;
    const auto size = static_cast<uint64_t>(status.st_size);
    const auto hash =
        DigestOfContent(file.get(), size, *context_->Digest(NID_sha1));
    const auto hash2 =
        DigestOfContent(file.get(), size, *context_->Digest(NID_sha256));
    if (!hash || !hash2) return std::nullopt;
    if (!second && !found.rule.optional) return DataElement(*hash);
    return "<dict><key>hash</key>" + DataElement(*hash) +
           (second ? "<key>hash2</key>" + DataElement(*hash2) : "") +
           (found.rule.optional ? "<key>optional</key><true/>" : "") +
           "</dict>";
  }

  // What code must satisfy later on: to be this very code when its signature
  // is ad-hoc, else to come from the same signer under the same name.
  std::optional<std::string> CodeEntry(const std::string& path) {
    std::string file = bundle_.resource_base + "/" + path;
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      const std::optional<BundleLayout> bundle = FindBundle(file);
      file = bundle ? bundle->executable : std::string();
    }
    const FileDescriptor code(RetryOnInterrupt([&] {
      return ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    }));
    std::vector<MachOSlice> slices;
    if (!code.valid() || ReadMachO(code.get(), slices) != MachOResult::kOk) {
      error_ = "nested code is no Mach-O file";
      return std::nullopt;
    }
    std::string requirement;
    std::string native_hash;
    for (const MachOSlice& slice : slices) {
      EmbeddedSignature signature;
      if (!ReadSignature(code.get(), slice, signature)) {
        error_ = "nested code is not signed";
        return std::nullopt;
      }
      const CodeDirectory& directory = signature.best();
      const std::vector<std::byte> hash = CdHash(*context_, directory);
      if (&slice == &NativeSlice(slices)) native_hash = DataElement(hash);
      std::string alternative = "cdhash " + HexString(hash);
      if (!signature.cms.empty()) {
        const std::optional<std::string> leaf = LeafHash(signature.cms);
        if (!leaf) {
          error_ = "nested code's signature cannot be read";
          return std::nullopt;
        }
        alternative = "identifier " + QuotedString(directory.identifier) +
                      " and certificate leaf = " + *leaf;
      }
      if (requirement.find(alternative) != requirement.npos) continue;
      if (!requirement.empty()) requirement += " or ";
      requirement += alternative;
    }
    return "<dict><key>cdhash</key>" + native_hash + "<key>requirement</key>" +
           Element("string", requirement) + "</dict>";
  }

  static bool ReadSignature(int descriptor, const MachOSlice& slice,
                            EmbeddedSignature& signature) {
    if (!slice.signature) return false;
    std::vector<std::byte> bytes(static_cast<size_t>(slice.signature->size));
    return ReadAt(descriptor, slice.range.offset + slice.signature->offset,
                  bytes) &&
           EmbeddedSignature::Parse(std::move(bytes), signature) ==
               EmbeddedSignature::ParseResult::kOk;
  }

  std::optional<std::string> LeafHash(std::span<const std::byte> cms) const {
    SignedMessage message;
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (message.Parse(context_, {cms.begin(), cms.end()}) !=
            SignedMessage::ParseResult::kOk ||
        message.certificates().empty() ||
        X509_digest(message.certificates().front().get(),
                    context_->Digest(NID_sha1), hash, &size) != 1) {
      return std::nullopt;
    }
    return HexString(std::as_bytes(std::span(hash).first(size)));
  }

  const std::shared_ptr<const CryptoContext> context_;
  const BundleLayout& bundle_;
  std::string& error_;
};

bool WriteSeal(const BundleLayout& bundle, const std::string& seal) {
  const std::string& directory = bundle.signature_directory;
  const std::string name = directory + "/CodeResources";
  const std::string fresh = name + ".new";
  ::mkdir(directory.c_str(), 0755);
  std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
  file << seal;
  file.close();
  return file.good() && ::rename(fresh.c_str(), name.c_str()) == 0;
}

std::string IdentifierOf(std::span<const std::byte> info_dictionary) {
  const auto list = PropertyList::Parse(info_dictionary);
  const auto value =
      list ? list->root().Find("CFBundleIdentifier") : std::nullopt;
  return std::string(value ? value->AsString().value_or(std::string_view())
                           : "");
}

}  // namespace

SignResult SignBundle(const std::string& path, MachOSignOptions options,
                      std::string& error) {
  const ScopedErrorMark mark;
  error.clear();
  std::optional<BundleLayout> bundle = FindBundle(path);
  if (!bundle) bundle = FindBundleOfExecutable(path);
  if (!bundle || bundle->executable.empty()) {
    error = path + ": no bundle, or one without a main executable";
    return SignResult::kRefused;
  }
  const std::shared_ptr<const CryptoContext> context = CryptoContext::Create();
  if (!context) {
    error = "libcrypto cannot be used";
    return SignResult::kFailed;
  }
  const std::optional<std::string> seal =
      Sealer(context, *bundle, error).Seal();
  if (!seal) return SignResult::kRefused;
  const auto bytes = std::as_bytes(std::span(*seal));

  options.resources.emplace(bytes.begin(), bytes.end());
  if (!bundle->info_dictionary.empty()) {
    options.info_dictionary =
        ReadRegularFile(bundle->info_dictionary, PropertyList::kMaxSize);
    if (!options.info_dictionary) {
      error = bundle->info_dictionary + ": cannot be read";
      return SignResult::kFailed;
    }
    if (options.identifier.empty()) {
      options.identifier = IdentifierOf(*options.info_dictionary);
    }
  }
  const SignResult result = SignMachO(bundle->executable, options, error);
  if (result == SignResult::kSigned && !WriteSeal(*bundle, *seal)) {
    error = bundle->signature_directory + ": " + std::strerror(errno);
    return SignResult::kFailed;
  }
  return result;
}

}  // namespace zu::platform

// Small files of every format that can be signed.
#ifndef ZU_TESTS_SIGNING_SIGNED_FILE_H_
#define ZU_TESTS_SIGNING_SIGNED_FILE_H_

#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/linux/signing/signer/bundle_signer.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"

namespace zu::test {

enum class Format { kElf, kScript, kMachO, kUniversal, kBundle };
inline constexpr Format kFormats[] = {Format::kElf, Format::kScript,
                                      Format::kMachO, Format::kUniversal,
                                      Format::kBundle};
inline const char* NameOf(Format format) {
  constexpr const char* kNames[] = {"ELF", "script", "Mach-O", "universal",
                                    "bundle"};
  return kNames[static_cast<int>(format)];
}

// Made anew, unsigned.
class SignedFile {
 public:
  explicit SignedFile(Format format,
                      std::filesystem::path path = "/tmp/file.app")
      : format_(format), path_(std::move(path)) {
    namespace fs = std::filesystem;
    fs::remove_all(path_);
    const std::vector<std::byte> intel = BuildMachO({.code_size = 9000});
    switch (format_) {
      case Format::kElf:
        fs::copy_file("/bin/true", path_);
        break;
      case Format::kScript:
        std::ofstream(path_) << "#!/bin/sh\nexit 0 # this content is signed\n";
        break;
      case Format::kMachO:
        WriteBytes(path_, intel);
        break;
      case Format::kUniversal:
        WriteBytes(
            path_,
            BuildUniversal({intel, BuildMachO({.cpu_type = kCpuTypeArm64})}));
        break;
      case Format::kBundle:
        fs::create_directories(path_ / "Contents/MacOS");
        fs::create_directories(path_ / "Contents/Resources");
        std::ofstream(path_ / "Contents/Info.plist")
            << "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
               "<string>main</string><key>CFBundleIdentifier</key>"
               "<string>com.example.app</string></dict></plist>\n";
        std::ofstream(path_ / "Contents/Resources/text") << "a resource\n";
        WriteBytes(path_ / "Contents/MacOS/main", intel);
        break;
    }
  }
  ~SignedFile() { std::filesystem::remove_all(path_); }
  SignedFile(const SignedFile&) = delete;
  SignedFile& operator=(const SignedFile&) = delete;

  // Without a credential ad-hoc, which ELF files and scripts cannot be.
  void Sign(const Credential* credential,
            const platform::TimestampSource& timestamp = nullptr) const {
    std::string error;
    std::optional<platform::SigningIdentity> identity;
    if (credential != nullptr) {
      identity = platform::SigningIdentity::FromPem(
          credential->key, credential->certificates, error);
      ASSERT_TRUE(identity) << error;
    }
    const platform::SigningIdentity* const signer =
        identity ? &*identity : nullptr;
    platform::SignResult result = platform::SignResult::kFailed;
    switch (format_) {
      case Format::kElf:
      case Format::kScript:
        result = platform::SignFile(
            path_, *signer,
            {.identifier = "com.example.tool", .timestamp = timestamp}, error);
        break;
      case Format::kMachO:
      case Format::kUniversal:
        result = platform::SignMachO(path_,
                                     {.identifier = "com.example.tool",
                                      .identity = signer,
                                      .cms = {.timestamp = timestamp}},
                                     error);
        break;
      case Format::kBundle:
        result = platform::SignBundle(
            path_, {.identity = signer, .cms = {.timestamp = timestamp}},
            error);
        break;
    }
    ASSERT_EQ(result, platform::SignResult::kSigned) << error;
  }

  const char* path() const { return path_.c_str(); }
  std::string code() const {
    return format_ == Format::kBundle ? path_ / "Contents/MacOS/main" : path_;
  }
  bool can_be_ad_hoc() const {
    return format_ != Format::kElf && format_ != Format::kScript;
  }

 private:
  const Format format_;
  const std::filesystem::path path_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SIGNING_SIGNED_FILE_H_

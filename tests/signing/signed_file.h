// Small files of every format that can be signed.
#ifndef ZU_TESTS_SIGNING_SIGNED_FILE_H_
#define ZU_TESTS_SIGNING_SIGNED_FILE_H_

#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "build_values.h"
#include "platform/linux/signing/signer/bundle_signer.h"
#include "platform/linux/signing/signer/macho_signer.h"
#include "tests/support/macho_builder.h"
#include "tests/support/test_authority.h"
#include "tests/support/test_root.h"

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
    std::vector<std::byte> image = BuildMachO({.code_size = 9000});
    if (format_ == Format::kUniversal) {
      image = BuildUniversal({image, BuildMachO({.cpu_type = kCpuTypeArm64})});
    }
    if (format_ == Format::kElf) {
      fs::copy_file("/bin/true", path_);
    } else if (format_ == Format::kScript) {
      std::ofstream(path_) << "#!/bin/sh\nexit 0 # this content is signed\n";
    } else if (format_ == Format::kBundle) {
      const fs::path contents = path_ / "Contents";
      fs::create_directories(contents / "MacOS");
      fs::create_directories(contents / "Resources");
      std::ofstream(contents / "Info.plist")
          << "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
             "<string>main</string><key>CFBundleIdentifier</key>"
             "<string>com.example.app</string></dict></plist>\n";
      std::ofstream(contents / "Resources/a & b") << "a resource\n";
      fs::create_symlink("a & b", contents / "Resources/link");
    }
    if (can_be_ad_hoc()) WriteBytes(code(), image);
  }
  ~SignedFile() { std::filesystem::remove_all(path_); }
  SignedFile(const SignedFile&) = delete;
  SignedFile& operator=(const SignedFile&) = delete;

  // Without a credential ad-hoc, which ELF files and scripts cannot be.
  void Sign(const Credential* credential,
            const platform::TimestampSource& timestamp = nullptr) const {
    std::optional<platform::SigningIdentity> identity;
    if (credential != nullptr) identity = ToIdentity(*credential);
    platform::MachOSignOptions options{
        .identifier = "com.example.\"tool\"",
        .identity = identity ? &*identity : nullptr,
        .replace = true,
        .cms = {.timestamp = timestamp}};
    std::string error;
    platform::SignResult result;
    if (!can_be_ad_hoc()) {
      result = platform::SignFile(
          path_, *identity,
          {.identifier = options.identifier, .timestamp = timestamp}, error);
    } else if (format_ == Format::kBundle) {
      options.identifier = "";  // Its dictionary has one.
      result = platform::SignBundle(path_, options, error);
    } else {
      result = platform::SignMachO(path_, options, error);
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

// What the vendor signed is trusted.
class SignedFileTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (!IsSkipped()) vendor_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  }

  TestAuthority vendor_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SIGNING_SIGNED_FILE_H_

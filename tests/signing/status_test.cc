// What signatures are worth: every kind of damage and of signer, in every
// format.
#include <gtest/gtest.h>
#include <algorithm>
#include <functional>

#include "ZuHelper.h"
#include "build_values.h"
#include "tests/signing/signed_file.h"
#include "tests/support/http_server.h"
#include "tests/support/test_root.h"
#include "tests/support/timestamp_authority.h"

namespace zu::test {
namespace {

namespace fs = std::filesystem;

// What the three ways to ask say: all of a bundle with time and revocation; the
// code only; the code with time, revocation and an anchor.
struct Worth {
  uint32_t whole;
  uint32_t plain;
  uint32_t checked;
  bool operator==(const Worth&) const = default;
};
constexpr Worth kNothing{0, 0, 0};
constexpr Worth kGood{2, 2, 2};
constexpr Worth kBad{1, 1, 1};
std::ostream& operator<<(std::ostream& out, const Worth& worth) {
  return out << worth.whole << worth.plain << worth.checked;
}

Worth Ask(const char* path) {
  return {
      GetBundleSignatureStatus(path),
      GetSignatureStatusForPath(path, 0, nullptr, 0, nullptr, 0, nullptr, 0),
      GetSignatureStatusForPath(path, 1, nullptr, 0, nullptr, 0, nullptr, 0)};
}

// The names as "signer/issuer", whatever the signature is worth.
std::string Names(const char* path) {
  char signer[128] = "?", issuer[128] = "?";
  GetSignatureStatusForPath(path, 0, issuer, sizeof(issuer), signer,
                            sizeof(signer), nullptr, 0);
  return std::string(signer) + "/" + issuer;
}

// Changes one bit of the first, or last, place where `text` stands.
void Damage(const std::string& path, std::string_view text, bool last = false) {
  std::vector<std::byte> bytes = ReadBytes(path);
  const auto pattern = std::as_bytes(std::span(text));
  const auto place = last ? std::find_end(bytes.begin(), bytes.end(),
                                          pattern.begin(), pattern.end())
                          : std::search(bytes.begin(), bytes.end(),
                                        pattern.begin(), pattern.end());
  ASSERT_NE(place, bytes.end()) << text;
  *place ^= std::byte{1};
  WriteBytes(path, bytes);
}

// Where a slice lies, says the universal header.
size_t SliceOffset(const std::vector<std::byte>& file, size_t index) {
  size_t offset = 0;
  for (size_t i = 0; i < 4; ++i) {
    offset = offset << 8 | std::to_integer<size_t>(file[16 + 20 * index + i]);
  }
  return offset;
}

class StatusTest : public RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (!IsSkipped()) vendor_.WriteAnchors(ZU_ANCHORS_DIRECTORY);
  }

  TestAuthority vendor_;
};

TEST_F(StatusTest, DependsOnTheSigner) {
  constexpr int64_t kDay_s = 86400;
  const int64_t now = std::time(nullptr);
  const TestAuthority subordinate("Subordinate", &vendor_);
  const TestAuthority stranger("Stranger");
  const HttpServer responder([this](const HttpServerRequest& request) {
    return vendor_.Answer(request);
  });
  const auto timestamp = [&](const char* usage, int64_t time,
                             const TestAuthority* authority = nullptr) {
    Credential tsa = (authority != nullptr ? *authority : vendor_)
                         .Issue({.common_names = {"Clock"},
                                 .extended_key_usage = usage,
                                 .valid_from_s = -9 * kDay_s});
    if (authority != nullptr) tsa.certificates += authority->certificate();
    return [tsa, time](std::span<const std::byte> value, std::string&) {
      return std::optional(MakeTimestampToken(tsa, value, time));
    };
  };
  const char* const kStamping = "critical,timeStamping";
  const LeafOptions expired{.valid_from_s = -3 * kDay_s,
                            .valid_until_s = -kDay_s};
  const Credential by_ocsp = vendor_.Issue({.ocsp_url = responder.url()});
  const Credential by_list = vendor_.Issue({.crl_url = responder.url()});
  vendor_.Revoke(by_ocsp);
  vendor_.Revoke(by_list);
  Credential own_root = stranger.Issue();
  own_root.certificates += stranger.certificate();
  Credential own_expired = stranger.Issue(expired);
  own_expired.certificates += stranger.certificate();
  Credential unchained = subordinate.Issue();
  unchained.certificates.resize(unchained.certificates.find("-----BEGIN", 1));
  const std::string name = kDeveloperIdName;
  const struct {
    const char* name;
    Credential credential;
    Worth worth;
    std::string names;
    platform::TimestampSource timestamp = nullptr;
  } cases[] = {
      {"vendor", vendor_.Issue(), kGood, name + "/Test Authority"},
      {"subordinate", subordinate.Issue(), kGood, name + "/Subordinate"},
      {"RSA", vendor_.Issue({.rsa_bits = 2048}), kGood,
       name + "/Test Authority"},
      {"issuer is missing", unchained, kBad, name + "/" + name},
      {"no root", stranger.Issue(), kBad, name + "/" + name},
      {"untrusted root", own_root, {2, 2, 1}, name + "/Stranger"},
      {"single certificate", MakeSelfSigned(), {2, 2, 1}, name + "/" + name},
      {"other usage", vendor_.Issue({.extended_key_usage = "serverAuth"}), kBad,
       name + "/Test Authority"},
      {"expired", vendor_.Issue(expired), {1, 2, 1}, name + "/Test Authority"},
      {"expired after its timestamp", vendor_.Issue(expired), kGood,
       name + "/Test Authority", timestamp(kStamping, now - 2 * kDay_s)},
      {"expired before its timestamp", vendor_.Issue(expired), kBad,
       name + "/Test Authority", timestamp(kStamping, now - kDay_s / 2)},
      {"timestamp by nobody", vendor_.Issue(), kBad, name + "/Test Authority",
       timestamp("codeSigning", now)},
      // Anybody's clock proves nothing, but for what is anybody's itself.
      {"expired, says a stranger's clock",
       vendor_.Issue(expired),
       {1, 2, 1},
       name + "/Test Authority",
       timestamp(kStamping, now - 2 * kDay_s, &stranger)},
      {"the stranger's own, expired",
       own_expired,
       {2, 2, 1},
       name + "/Stranger",
       timestamp(kStamping, now - 2 * kDay_s, &stranger)},
      {"revoked, says OCSP", by_ocsp, {1, 2, 1}, name + "/Test Authority"},
      {"revoked, says a list", by_list, {1, 2, 1}, name + "/Test Authority"},
      {"nobody answers", vendor_.Issue({.ocsp_url = "http://127.0.0.1:1"}),
       kGood, name + "/Test Authority"},
  };
  for (const auto& c : cases) {
    for (const Format format : kFormats) {
      SCOPED_TRACE(std::string(c.name) + ", " + NameOf(format));
      const SignedFile file(format);
      file.Sign(&c.credential, c.timestamp);
      EXPECT_EQ(Ask(file.path()), c.worth);
      EXPECT_EQ(Names(file.path()), c.names);
      if (format == Format::kBundle) {
        EXPECT_EQ(Ask(file.code().c_str()), c.worth);
      }
    }
  }
  // A list beside the anchors needs no network.
  const Credential listed = vendor_.Issue();
  vendor_.Revoke(listed);
  const SignedFile file(Format::kMachO);
  file.Sign(&listed);
  // One that has expired still counts.
  for (const int64_t until_s : {3600, -60}) {
    std::ofstream(ZU_ANCHORS_DIRECTORY "/list.pem")
        << vendor_.MakeCrl({.valid_from_s = -7200, .valid_until_s = until_s});
    EXPECT_EQ(Ask(file.path()), (Worth{1, 2, 1}));
  }
}

TEST_F(StatusTest, SeesDamage) {
  const Credential credential = vendor_.Issue();
  for (const Format format : kFormats) {
    SCOPED_TRACE(NameOf(format));
    const std::string names = std::string(kDeveloperIdName) + "/Test Authority";
    {
      const SignedFile file(format);
      EXPECT_EQ(Ask(file.path()), kNothing);
      EXPECT_EQ(Names(file.path()), "/");
      if (file.can_be_ad_hoc()) {
        // Valid, but nobody's.
        file.Sign(nullptr);
        EXPECT_EQ(Ask(file.path()), (Worth{2, 0, 0}));
        EXPECT_EQ(Names(file.path()), "/");
        std::vector<std::byte> bytes = ReadBytes(file.code());
        bytes[bytes.size() / 4] ^= std::byte{1};
        WriteBytes(file.code(), bytes);
        EXPECT_NE(Ask(file.path()).whole, 2u);
      }
    }
    {  // The code, in the middle and at the end; of each slice, its middle.
      const SignedFile file(format);
      const size_t size = ReadBytes(file.code()).size();
      file.Sign(&credential);
      const std::vector<std::byte> good = ReadBytes(file.code());
      std::vector<size_t> places = {size / 2, size - 20};
      if (format == Format::kUniversal) {
        places = {SliceOffset(good, 0) + 4500, SliceOffset(good, 1) + 4500};
      }
      for (const size_t place : places) {
        std::vector<std::byte> bytes = good;
        bytes[place] ^= std::byte{1};
        WriteBytes(file.code(), bytes);
        const Worth worth = Ask(file.path());
        EXPECT_EQ(worth.plain, 1u) << place;
        EXPECT_EQ(worth.checked, 1u) << place;
        EXPECT_EQ(Names(file.path()), names);
      }
    }
    if (!SignedFile(format).can_be_ad_hoc()) continue;
    // Directory and message.
    const SignedFile file(format);
    file.Sign(&credential);
    const std::vector<std::byte> good = ReadBytes(file.code());
    Damage(file.code(), "com.example");
    EXPECT_EQ(Ask(file.path()), kBad);
    EXPECT_EQ(Names(file.path()), names);
    WriteBytes(file.code(), good);
    // The directory's magic number: nothing in it can be read.
    Damage(file.code(), "\xfa\xde\x0c\x02");
    EXPECT_EQ(Ask(file.path()), kBad);
    EXPECT_EQ(Names(file.path()), names);
    WriteBytes(file.code(), good);
    // The object identifier of messageDigest.
    Damage(file.code(), "\x2a\x86\x48\x86\xf7\x0d\x01\x09\x04");
    EXPECT_EQ(Ask(file.path()), kBad);
    EXPECT_EQ(Names(file.path()), names);
    // Cut off inside the signature.
    WriteBytes(file.code(), std::span(good).first(good.size() - 15000));
    EXPECT_NE(Ask(file.path()).plain, 2u);
  }
}

TEST_F(StatusTest, OfBundles) {
  const Credential credential = vendor_.Issue();
  const struct {
    const char* name;
    Worth worth;
    std::function<void(const fs::path& contents)> change;
  } cases[] = {
      {"resource changed",
       {1, 2, 2},
       [](const fs::path& contents) {
         Damage(contents / "Resources/text", "a resource");
       }},
      {"resource added",
       {1, 2, 2},
       [](const fs::path& contents) {
         std::ofstream(contents / "Resources/more") << "more";
       }},
      {"resource missing",
       {1, 2, 2},
       [](const fs::path& contents) {
         fs::remove(contents / "Resources/text");
       }},
      {"seal changed",
       {1, 2, 2},
       [](const fs::path& contents) {
         Damage(contents / "_CodeSignature/CodeResources", "Resources/text");
       }},
      {"seal missing",
       {1, 2, 2},
       [](const fs::path& contents) {
         fs::remove(contents / "_CodeSignature/CodeResources");
       }},
      {"information changed", kBad,
       [](const fs::path& contents) {
         Damage(contents / "Info.plist", "com.example.app");
       }},
      {"nested code changed",
       {1, 2, 2},
       [](const fs::path& contents) {
         std::vector<std::byte> bytes = ReadBytes(contents / "Helpers/tool");
         bytes[5000] ^= std::byte{1};
         WriteBytes(contents / "Helpers/tool", bytes);
       }},
      {"nested code unsigned",
       {1, 2, 2},
       [](const fs::path& contents) {
         WriteBytes(contents / "Helpers/tool", BuildMachO());
       }},
      {"nested code by somebody else",
       {1, 2, 2},
       [](const fs::path& contents) {
         const Credential other = MakeSelfSigned();
         const SignedFile tool(Format::kMachO, contents / "Helpers/other");
         tool.Sign(&other);
         fs::rename(contents / "Helpers/other", contents / "Helpers/tool");
       }},
      {"code added below an omitted name",
       {1, 2, 2},
       [](const fs::path& contents) {
         fs::create_directories(contents / "Resources/.DS_Store/x");
         WriteBytes(contents / "Resources/.DS_Store/x/y", BuildMachO());
       }},
      {"as it was", kGood, [](const fs::path&) {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SignedFile bundle(Format::kBundle);
    const fs::path contents = fs::path(bundle.path()) / "Contents";
    fs::create_directories(contents / "Helpers");
    const SignedFile tool(Format::kMachO, contents / "Helpers/tool");
    tool.Sign(&credential);
    bundle.Sign(&credential);
    c.change(contents);
    EXPECT_EQ(Ask(bundle.path()), c.worth);
  }
}

// Of a universal file with one signed slice only what is native can be good.
TEST_F(StatusTest, OfUniversalFiles) {
  const SignedFile file(Format::kMachO);
  file.Sign(nullptr);
  const std::vector<std::byte> intel = ReadBytes(file.code());
  const std::vector<std::byte> arm = BuildMachO({.cpu_type = kCpuTypeArm64});
  WriteBytes(file.code(), BuildUniversal({arm, intel}));
#if defined(__x86_64__)
  EXPECT_EQ(GetBundleSignatureStatus(file.path()), ZU_SIGNATURE_VALID);
#else
  EXPECT_EQ(GetBundleSignatureStatus(file.path()), ZU_SIGNATURE_NONE);
#endif
  EXPECT_EQ(Ask(file.path()).plain, ZU_SIGNATURE_NONE);
  // 32-bit code is native nowhere: the first slice stands for the file.
  const std::vector<std::byte> old = BuildMachO({.cpu_type = kCpuTypeX86});
  WriteBytes(file.code(), BuildUniversal({old, old}, true));
  EXPECT_EQ(Ask(file.path()), kNothing);
}

}  // namespace
}  // namespace zu::test

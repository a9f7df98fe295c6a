// What signatures are worth: every kind of damage and of signer, in every
// format.
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/signing/signed_file.h"
#include "tests/support/http_server.h"
#include "tests/support/test_tree.h"
#include "tests/support/timestamp_authority.h"

namespace zu::test {
namespace {

using Bytes = std::vector<std::byte>;

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

// With one bit changed.
Bytes Damaged(Bytes bytes, size_t place) {
  bytes.at(place) ^= std::byte{1};
  return bytes;
}

using StatusTest = SignedFileTest;

TEST_F(StatusTest, DependsOnTheSigner) {
  constexpr int64_t kDay_s = 86400;
  const int64_t now = std::time(nullptr);
  const TestAuthority subordinate("Subordinate", &vendor_);
  const TestAuthority stranger("Stranger");
  const HttpServer responder([this](const HttpServerRequest& request) {
    return vendor_.Answer(request);
  });
  const auto with_root = [&](Credential credential) {
    credential.certificates += stranger.certificate();
    return credential;
  };
  const LeafOptions stamping{.extended_key_usage = "critical,timeStamping",
                             .valid_from_s = -9 * kDay_s};
  const auto stamp = [](const Credential& tsa, int64_t time) {
    return [tsa, time](std::span<const std::byte> value, std::string&) {
      return std::optional(MakeTimestampToken(tsa, value, time));
    };
  };
  const auto in_time = stamp(vendor_.Issue(stamping), now - 2 * kDay_s);
  const auto too_late = stamp(vendor_.Issue(stamping), now - kDay_s / 2);
  const auto strangers =
      stamp(with_root(stranger.Issue(stamping)), now - 2 * kDay_s);
  const LeafOptions old{.valid_from_s = -3 * kDay_s, .valid_until_s = -kDay_s};
  const Credential expired = vendor_.Issue(old);
  const Credential server = vendor_.Issue({.extended_key_usage = "serverAuth"});
  const Credential revoked = vendor_.Issue({.ocsp_url = responder.url()});
  vendor_.Revoke(revoked.certificates);
  Credential unchained = subordinate.Issue();
  unchained.certificates.resize(unchained.certificates.find("-----BEGIN", 1));
  const char* const name = kDeveloperIdName;
  const char* const vendor = "Test Authority";
  constexpr Worth kNoAnchor{2, 2, 1};
  constexpr Worth kForNow{1, 2, 1};  // Bad when time and revocation count.
  const struct {
    const char* name;
    Credential credential;
    Worth worth;
    const char* issuer;
    platform::TimestampSource timestamp = nullptr;
  } cases[] = {
      {"vendor", vendor_.Issue(), kGood, vendor},
      {"subordinate", subordinate.Issue(), kGood, "Subordinate"},
      {"issuer is missing", unchained, kBad, name},
      {"untrusted root", with_root(stranger.Issue()), kNoAnchor, "Stranger"},
      {"single certificate", MakeSelfSigned(), kNoAnchor, name},
      {"other usage", server, kBad, vendor},
      {"expired", expired, kForNow, vendor},
      {"expired after its timestamp", expired, kGood, vendor, in_time},
      {"expired before its timestamp", expired, kBad, vendor, too_late},
      // Anybody's clock proves nothing.
      {"stranger's clock", expired, kForNow, vendor, strangers},
      {"revoked", revoked, kForNow, vendor},
  };
  for (const auto& c : cases) {
    for (const Format format : kFormats) {
      SCOPED_TRACE(std::string(c.name) + ", " + NameOf(format));
      const SignedFile file(format);
      file.Sign(&c.credential, c.timestamp);
      EXPECT_EQ(Ask(file.path()), c.worth);
      EXPECT_EQ(Names(file.path()), std::string(name) + "/" + c.issuer);
    }
  }
}

TEST_F(StatusTest, SeesDamage) {
  const Credential credential = vendor_.Issue();
  for (const Format format : kFormats) {
    SCOPED_TRACE(NameOf(format));
    const SignedFile file(format);
    EXPECT_EQ(Ask(file.path()), kNothing);
    EXPECT_EQ(Names(file.path()), "/");
    const size_t size = ReadBytes(file.code()).size();
    if (file.can_be_ad_hoc()) {
      // Valid, but nobody's.
      file.Sign(nullptr);
      EXPECT_EQ(Ask(file.path()), (Worth{2, 0, 0}));
      EXPECT_EQ(Names(file.path()), "/");
    }
    file.Sign(&credential);
    const Bytes good = ReadBytes(file.code());
    std::vector<size_t> places = {size / 2, size - 20};
    if (format == Format::kUniversal) {
      // Behind where the slices lie, says the header.
      places = {LoadBig32(good, 16) + 4500, LoadBig32(good, 36) + 4500};
    }
    for (const size_t place : places) {
      SCOPED_TRACE(place);
      WriteBytes(file.code(), Damaged(good, place));
      Worth worth = Ask(file.path());
      // Only the native slice counts there.
      if (place == places[1] && format == Format::kUniversal) worth.whole = 1;
      EXPECT_EQ(worth, kBad);
      EXPECT_EQ(Names(file.path()),
                std::string(kDeveloperIdName) + "/Test Authority");
    }
  }
}

TEST_F(StatusTest, OfBundles) {
  const Credential credential = vendor_.Issue();
  const Credential other = MakeSelfSigned();
  const SignedFile tool(Format::kMachO, "/tmp/tool");
  const Bytes unsigned_tool = ReadBytes(tool.path());
  tool.Sign(&other);
  const Bytes others_tool = ReadBytes(tool.path());
  tool.Sign(&credential);
  const Bytes good_tool = ReadBytes(tool.path());
  constexpr Worth kCodeOnly{1, 2, 2};
  const struct {
    const char* name;
    Worth worth;
    const char* change = nullptr;
    Bytes tool = {};
  } cases[] = {
      {"as it was", kGood},
      {"resource changed", kCodeOnly, "A.app/Contents/Resources/a & b=other"},
      {"seal missing", kCodeOnly,
       "-A.app/Contents/_CodeSignature/CodeResources"},
      {"information changed", kBad,
       "A.app/Contents/Info.plist=<dict><key>CFBundleExecutable</key>"
       "<string>main</string></dict>"},
      {"nested code changed", kCodeOnly, nullptr, Damaged(good_tool, 5000)},
      {"nested code unsigned", kCodeOnly, nullptr, unsigned_tool},
      {"nested code by somebody else", kCodeOnly, nullptr, others_tool},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TestTree tree;
    const SignedFile bundle(Format::kBundle, tree.Path("A.app"));
    tree.PutAll("A.app/Contents/Helpers/ A.app/Contents/PlugIns/");
    const std::string nested = tree.Path("A.app/Contents/Helpers/tool");
    WriteBytes(nested, good_tool);
    const SignedFile inner(Format::kBundle,
                           tree.Path("A.app/Contents/PlugIns/B.app"));
    inner.Sign(&credential);
    bundle.Sign(&credential);
    if (c.change != nullptr) tree.Put(c.change);
    if (!c.tool.empty()) WriteBytes(nested, c.tool);
    EXPECT_EQ(Ask(bundle.path()), c.worth);
    EXPECT_EQ(Ask(bundle.code().c_str()), c.worth);
  }
}

}  // namespace
}  // namespace zu::test

#include "platform/linux/signing/trust/trust_anchors.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/support/test_authority.h"
#include "tests/support/wait_until.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;
using test::TestAuthority;
using test::ToDer;

class TrustAnchorsTest : public ::testing::Test {
 protected:
  TrustAnchorsTest() {
    char pattern[] = "/tmp/zu_anchors.XXXXXX";
    top_ = ::mkdtemp(pattern);
    Renew();
  }
  void TearDown() override { fs::remove_all(top_); }

  void Renew() {
    fs::remove_all(top_ / "anchors");
    fs::create_directory(top_ / "anchors");
    fs::permissions(top_ / "anchors", fs::perms(0755));
  }

  fs::path Write(const std::string& text, const char* name = "anchors/a") {
    std::ofstream(top_ / name) << text;
    fs::permissions(top_ / name, fs::perms(0644));
    return top_ / name;
  }

  static int Count(TrustAnchors& anchors) {
    const auto trusted = anchors.Current();
    return sk_X509_OBJECT_num(X509_STORE_get0_objects(trusted->store.get()));
  }
  TrustAnchors Make(const char* name = "anchors") const {
    return {context_, top_ / name};
  }

  const std::shared_ptr<const CryptoContext> context_ = CryptoContext::Create();
  fs::path top_;
};

TEST_F(TrustAnchorsTest, ReadsWhatIsSafe) {
  const TestAuthority authority;
  const std::string a = authority.certificate();
  const std::string b = TestAuthority("Second").certificate();
  const std::string list = authority.MakeCrl();
  const struct {
    const char* name;
    int count;
    std::function<void()> prepare;
    bool for_root = false;
    size_t lists = 0;
  } cases[] = {
      {"nothing", 0, [] {}},
      {"PEM", 1, [&] { Write(a); }},
      {"DER", 1, [&] { Write(ToDer(a)); }},
      {"two PEM, among other things", 2,
       [&] {
         Write("comment\n" + a + authority.Issue().key +
               "-----BEGIN CERTIFICATE-----\nbroken\n"
               "-----END CERTIFICATE-----\n" +
               b);
       }},
      {"two DER and rubbish", 2, [&] { Write(ToDer(a) + ToDer(b) + "xx"); }},
      {"two files, one twice", 2,
       [&] {
         Write(a);
         Write(a + b, "anchors/b");
       }},
      {"encrypted block asks nobody", 1,
       [&] {
         std::string encrypted = b;
         encrypted.insert(encrypted.find('\n') + 1,
                          "Proc-Type: 4,ENCRYPTED\nDEK-Info: "
                          "AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
         Write(encrypted + a);
       }},
      {"no certificate", 0, [&] { Write("none"); }},
      {"beside lists, PEM", 1, [&] { Write(list + a + list); }, false, 2},
      {"beside lists, DER", 1,
       [&] {
         Write(ToDer(list) + ToDer(a));
         Write(ToDer(list), "anchors/b");
       },
       false, 2},
      {"beside what is no file", 1,
       [&] {
         Write(a);
         ::mkfifo((top_ / "anchors/fifo").c_str(), 0644);
         fs::create_directory(top_ / "anchors/directory");
       }},
      {"symbolic link", 0,
       [&] { fs::create_symlink(Write(a, "real"), top_ / "anchors/a"); }},
      {"file that its group may write", 0,
       [&] { fs::permissions(Write(a), fs::perms(0664)); }},
      {"directory that all may write", 0,
       [&] {
         Write(a);
         fs::permissions(top_ / "anchors", fs::perms(0757));
       }},
      {"file of somebody else", 0,
       [&] { EXPECT_EQ(::chown(Write(a).c_str(), 12345, 0), 0); }, true},
      {"directory of somebody else", 0,
       [&] {
         Write(a);
         EXPECT_EQ(::chown((top_ / "anchors").c_str(), 12345, 0), 0);
       },
       true},
      {"linked directory", 0,
       [&] {
         Write(a);
         fs::rename(top_ / "anchors", top_ / "real_anchors");
         fs::create_symlink("real_anchors", top_ / "anchors");
       }},
  };
  for (const auto& c : cases) {
    if (c.for_root && ::geteuid() != 0) continue;
    Renew();
    c.prepare();
    TrustAnchors anchors = Make();
    EXPECT_EQ(Count(anchors), c.count) << c.name;
    EXPECT_EQ(anchors.Current()->lists.size(), c.lists) << c.name;
  }
  TrustAnchors missing = Make("missing");
  EXPECT_EQ(Count(missing), 0);
}

// At once, when what changed is new, and when it was kept for a while.
TEST_F(TrustAnchorsTest, FollowsChanges) {
  const std::string a = TestAuthority().certificate();
  const std::string b = TestAuthority("Second").certificate();
  const fs::path file = top_ / "anchors/a";
  const struct {
    const char* name;
    int count;
    std::function<void()> change;
  } changes[] = {
      {"added", 1, [&] { Write(a); }},
      {"written in place", 2, [&] { Write(a + b); }},
      {"made unsafe", 0, [&] { fs::permissions(file, fs::perms(0666)); }},
      {"made safe", 2, [&] { fs::permissions(file, fs::perms(0644)); }},
      {"replaced", 1, [&] { fs::rename(Write(b, "anchors/new"), file); }},
      {"directory made unsafe", 0,
       [&] { fs::permissions(top_ / "anchors", fs::perms(0777)); }},
      {"directory gone", 0, [&] { fs::remove_all(top_ / "anchors"); }},
  };
  TrustAnchors fresh = Make();
  EXPECT_EQ(Count(fresh), 0);
  for (const auto& c : changes) {
    c.change();
    EXPECT_EQ(Count(fresh), c.count) << c.name;
  }

  Renew();
  Write(a);
  TrustAnchors kept = Make();
  ASSERT_TRUE(
      test::WaitUntil([&] { return kept.Current() == kept.Current(); }));
  Write(b + a);
  EXPECT_EQ(Count(kept), 2);
}

}  // namespace
}  // namespace zu::platform

#include "platform/linux/signing/trust/trust_anchors.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/test_authority.h"
#include "tests/support/test_tree.h"
#include "tests/support/wait_until.h"

namespace zu::platform {
namespace {

namespace fs = std::filesystem;
using test::TestAuthority;
using test::ToDer;

class TrustAnchorsTest : public ::testing::Test {
 protected:
  TrustAnchorsTest() { Renew(); }

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
  TrustAnchors Make() const { return {context_, top_ / "anchors"}; }

  const std::shared_ptr<const CryptoContext> context_ = CryptoContext::Create();
  const test::TestTree tree_;
  const fs::path top_ = tree_.root();
};

TEST_F(TrustAnchorsTest, ReadsWhatIsSafe) {
  const TestAuthority authority;
  const std::string a = authority.certificate();
  const std::string b = TestAuthority("Second").certificate();
  const std::string list = authority.MakeCrl();
  const auto expect = [&](const char* name, int count, size_t lists = 0) {
    TrustAnchors anchors = Make();
    EXPECT_EQ(Count(anchors), count) << name;
    EXPECT_EQ(anchors.Current()->lists.size(), lists) << name;
    Renew();
  };
  std::string encrypted = b;
  encrypted.insert(encrypted.find('\n') + 1,
                   "Proc-Type: 4,ENCRYPTED\nDEK-Info: "
                   "AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
  Write("comment\n" + a + authority.Issue().key +
        "-----BEGIN CERTIFICATE-----\nbroken\n-----END CERTIFICATE-----\n" +
        encrypted + b);
  expect("PEM among other things, which asks nobody", 2);
  Write(ToDer(list) + ToDer(a) + ToDer(b) + "xx");
  Write(list + a, "anchors/b");
  ::mkfifo((top_ / "anchors/fifo").c_str(), 0644);
  fs::create_directory(top_ / "anchors/directory");
  expect("several files, one certificate twice", 2, 2);
  fs::create_symlink(Write(a, "real"), top_ / "anchors/a");
  expect("symbolic link", 0);
  fs::permissions(Write(a), fs::perms(0664));
  expect("file that its group may write", 0);
  Write(a);
  fs::permissions(top_ / "anchors", fs::perms(0757));
  expect("directory that all may write", 0);
  if (::chown(Write(a).c_str(), 12345, 0) == 0) {
    expect("file of somebody else", 0);
    Write(a);
    EXPECT_EQ(::chown((top_ / "anchors").c_str(), 12345, 0), 0);
    expect("directory of somebody else", 0);
  }
  Write(a);
  fs::rename(top_ / "anchors", top_ / "real_anchors");
  fs::create_symlink("real_anchors", top_ / "anchors");
  expect("linked directory", 0);
}

// At once, when what changed is new, and when it was kept for a while.
TEST_F(TrustAnchorsTest, FollowsChanges) {
  const std::string a = TestAuthority().certificate();
  const std::string b = TestAuthority("Second").certificate();
  TrustAnchors fresh = Make();
  EXPECT_EQ(Count(fresh), 0);
  Write(a);
  EXPECT_EQ(Count(fresh), 1);
  Write(a + b);
  EXPECT_EQ(Count(fresh), 2);
  fs::permissions(Write(a + b), fs::perms(0666));
  EXPECT_EQ(Count(fresh), 0);
  fs::rename(Write(b, "anchors/new"), top_ / "anchors/a");
  EXPECT_EQ(Count(fresh), 1);
  fs::remove_all(top_ / "anchors");
  EXPECT_EQ(Count(fresh), 0);

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

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
  TrustAnchors Make() const {
    return {CryptoContext::Create(), top_ / "anchors"};
  }

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
  Write("comment\n" + a + authority.Issue().key +
        "-----BEGIN CERTIFICATE-----\nbroken\n-----END CERTIFICATE-----\n" + b);
  expect("PEM among other things", 2);
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
  TrustAnchors anchors = Make();
  EXPECT_EQ(Count(anchors), 0);
  Write(a);
  EXPECT_EQ(Count(anchors), 1);
  ASSERT_TRUE(
      test::WaitUntil([&] { return anchors.Current() == anchors.Current(); }));
  Write(b + a);
  EXPECT_EQ(Count(anchors), 2);
}

}  // namespace
}  // namespace zu::platform

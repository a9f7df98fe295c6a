#include "platform/linux/signing/trust/revocation.h"

#include <gtest/gtest.h>
#include <mutex>

#include "tests/support/http_server.h"
#include "tests/support/test_authority.h"

namespace zu::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::ReadCertificates;
using test::RevocationOptions;
using test::TestAuthority;

// Names are looked up on threads of the C library's own, which the thread
// sanitizer does not know of and stands still in.
#if defined(__SANITIZE_THREAD__)
constexpr char kHost[] = "127.0.0.1";
#else
constexpr char kHost[] = "localhost";
#endif

enum class Online { kSilent, kListOnly, kGarbage, kAuthority, kStranger };

// One body for all: a leaf, its authority and the root, and what is said
// about them from a file, by the responder and at the list's address.
TEST(IsRevokedTest, BelievesWhatIsSignedAndCurrent) {
  const auto context = CryptoContext::Create();
  TestAuthority root;
  TestAuthority authority("Below", &root);
  // Of the same name, with another key.
  TestAuthority stranger("Below", &root);
  std::mutex mutex;  // An old request may be served late.
  Online mode = Online::kAuthority;
  RevocationOptions said;
  const test::HttpServer server(
      [&](const auto& request) -> std::optional<std::string> {
        const std::lock_guard lock(mutex);
        if (mode == Online::kGarbage || request.target != "/ca?x") {
          return "garbage";
        }
        if (mode == Online::kStranger) return stranger.Answer(request, said);
        if (mode == Online::kSilent ||
            (mode == Online::kListOnly && request.method == "POST")) {
          return std::nullopt;
        }
        return authority.Answer(request, said);
      });
  const auto issue = [&](const std::string& ocsp, const std::string& crl) {
    return authority.Issue({.ocsp_url = ocsp, .crl_url = crl});
  };
  const std::string here = server.url(kHost) + "/ca?x";
  const auto good = issue(here, here);
  const auto bad_ocsp = issue(here, "");
  const auto bad_crl = issue("", here);
  const auto bad_unasked = issue("", "");
  const auto bad_both = issue(here, here);
  for (const auto* leaf : {&bad_both, &bad_ocsp, &bad_crl, &bad_unasked}) {
    authority.Revoke(leaf->certificates);
    stranger.Revoke(leaf->certificates);
  }
  root.Revoke(authority.certificate());

  const RevocationOptions expired{.valid_from_s = -9000,
                                  .valid_until_s = -3600};
  const RevocationOptions delegated{
      .responder = authority.Issue({.extended_key_usage = "OCSPSigning"})};
  const RevocationOptions leaf_signed{.responder = authority.Issue()};
  constexpr auto kAuthority = Online::kAuthority;
  constexpr milliseconds kLong{10000};

  const struct {
    const char* name;
    const test::Credential& leaf;
    bool revoked;
    std::string list = "";  // PEM.
    Online online = kAuthority;
    milliseconds time = kLong;
    RevocationOptions said = {};
  } cases[] = {
      {"good", good, false, authority.MakeCrl()},
      {"its authority on the list", good, true, root.MakeCrl()},
      {"stranger's list", bad_unasked, false, stranger.MakeCrl()},
      // Whoever is on it stays revoked.
      {"list of yesterday", bad_unasked, true, authority.MakeCrl(expired)},
      {"delegated responder", bad_ocsp, true, "", kAuthority, kLong, delegated},
      {"signed by a leaf", bad_ocsp, false, "", kAuthority, kLong, leaf_signed},
      {"answer of a stranger", bad_ocsp, false, "", Online::kStranger},
      {"garbage", bad_ocsp, false, "", Online::kGarbage},
      {"expired answer", bad_ocsp, false, "", kAuthority, kLong, expired},
      {"list at its address", bad_crl, true},
      {"silent responder leaves time for the list", bad_both, true, "",
       Online::kListOnly, milliseconds(2000)},
      {"silence", good, false, "", Online::kSilent, milliseconds(200)},
      {"no time left", bad_ocsp, false, "", kAuthority, milliseconds(0)},
  };
  for (const auto& c : cases) {
    {
      const std::lock_guard lock(mutex);
      mode = c.online;
      said = c.said;
    }
    const auto chain =
        ReadCertificates(*context, c.leaf.certificates + root.certificate());
    ASSERT_EQ(chain.size(), 3u);
    std::vector<CrlPtr> lists;
    if (!c.list.empty()) {
      const std::string der = test::ToDer(c.list);
      auto bytes = std::as_bytes(std::span(der));
      lists.push_back(context->TakeCrl(bytes));
    }
    const auto start = steady_clock::now();
    EXPECT_EQ(IsRevoked(*context, chain, lists, start + c.time), c.revoked)
        << c.name;
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5)) << c.name;
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace zu::platform

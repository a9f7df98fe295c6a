// The companion product's request, over the core's own functions.

#include "server/gateway_share.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/notification.h"
#include "platform/property_list_json.h"
#include "server/command_table.h"
#include "server/server.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/system_log.h"
#include "tests/support/test_root.h"

namespace zu::server {
namespace {

namespace fs = std::filesystem;
using test::ReadFile;
using test::WaitUntil;
using test::WriteFile;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

#define ZU_GATEWAY "ZuHelperOSX.GatewaySerialNumberRequest "
#define ZU_REQUEST ZU_PARENT_EPP_PREFIX ".gatewayshare.venueid.request\n"
constexpr char kReceived[] =
    ZU_GATEWAY "Received incoming request, " ZU_REQUEST;
constexpr char kNoTable[] = ZU_GATEWAY "No uiCmdMap for request " ZU_REQUEST;
constexpr char kNoCallback[] =
    ZU_GATEWAY "No callback set for request " ZU_REQUEST;
constexpr char kTooBig[] = ZU_GATEWAY "actual message length too big, 2048\n";
constexpr char kNoUsers[] = ZU_GATEWAY "Error opening the Users directory, 2\n";
constexpr char kJson[] = "{\"serial\":\"Z-1\"}";

fs::path FileOf(const std::string& user) {
  return fs::path("/Users") / user / "Library/Group Containers" /
         ZU_PARENT_GROUP_ID / "Library/VenueId.dat";
}
std::string Saved(const std::string& user) {
  return ZU_GATEWAY "Saved data to file, " + FileOf(user).string() + "\n";
}
auto CountFiles(const std::string& user) {
  return std::distance(fs::directory_iterator(FileOf(user).parent_path()), {});
}

// What the host answers.
std::string g_answer;
int32_t g_length;
uint32_t Answer(char* buffer, uint32_t capacity, uint32_t* length) {
  EXPECT_EQ(capacity, 2048u);
  EXPECT_EQ(*length, 0u);
  g_answer.copy(buffer, capacity);
  *length = static_cast<uint32_t>(g_length);
  return 0;
}

class GatewayShareTest : public test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    fs::remove_all("/Users");
    fs::create_directories(FileOf("ann").parent_path());
    SetAnswer(kJson, sizeof kJson - 1);
  }

  static void SetAnswer(const std::string& answer, int32_t length) {
    g_answer = answer;
    g_length = length;
    uiCmdMap.Set("SERI", &Answer);
  }

  // The lines of one request.
  std::vector<std::string> Request() {
    GatewaySerialNumberRequest();
    return log_.Take();
  }

  test::SystemLog log_;
};

TEST_F(GatewayShareTest, AnswersByTheTable) {
  const std::string longest = "[\"" + std::string(2043, 'x') + "\"]";
  const struct {
    std::string answer;
    int32_t length;
    bool written;
    std::string line = Saved("ann");
  } rows[] = {
      {kJson, 15, false},
      {longest, 2047, true},
      {longest + " ", 2048, false, kTooBig},
      {"[null]", 6, false},
      {kJson, INT32_MIN, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    fs::remove(FileOf("ann"));
    SetAnswer(row.answer, row.length);
    EXPECT_THAT(Request(), ElementsAre(kReceived, row.line));
    EXPECT_EQ(fs::exists(FileOf("ann")), row.written);
  }
  uiCmdMap.Release();
  EXPECT_THAT(Request(), ElementsAre(kReceived, kNoTable));
  uiCmdMap.Create();
  EXPECT_THAT(Request(), ElementsAre(kReceived, kNoCallback));
  uiCmdMap.Set("SERI", nullptr);
  fs::remove_all("/Users");
  EXPECT_THAT(Request(), ElementsAre(kReceived, kNoUsers));
}

// Everybody with a container gets a file of their own, whatever was there.
TEST_F(GatewayShareTest, WritesForEveryUser) {
  for (const char* user : {"Share", "SharedToo", ".dot"}) {
    fs::create_directories(FileOf(user).parent_path());
  }
  fs::create_directories(FileOf("bob"));  // In the file's own place.
  WriteFile("/Users/.secret", "secret");
  fs::create_hard_link("/Users/.secret", FileOf("ann"));
  // Not possible in every test root; then it stays ours.
  [[maybe_unused]] const int owned =
      ::chown(FileOf("Share").parent_path().c_str(), 1234, 2345);
  EXPECT_THAT(Request(), UnorderedElementsAre(kReceived, Saved("ann"),
                                              Saved("bob"), Saved("Share")));
  for (const char* user : {"ann", "Share"}) {
    SCOPED_TRACE(user);
    EXPECT_EQ(ReadFile(FileOf(user)), platform::PropertyListFromJson(kJson));
    struct stat file, directory;
    ::lstat(FileOf(user).c_str(), &file);
    ::stat(FileOf(user).parent_path().c_str(), &directory);
    EXPECT_EQ(file.st_uid, directory.st_uid);
    EXPECT_EQ(file.st_gid, directory.st_gid);
    EXPECT_EQ(file.st_mode, static_cast<mode_t>(S_IFREG | 0600));
    EXPECT_EQ(CountFiles(user), 1);
  }
  EXPECT_EQ(CountFiles("bob"), 1);
  EXPECT_EQ(CountFiles("SharedToo") + CountFiles(".dot"), 0);
  EXPECT_EQ(ReadFile("/Users/.secret"), "secret");
}

// A link in any place of the way ends nowhere but in the log.
TEST_F(GatewayShareTest, FollowsNoLink) {
  const fs::path directory = FileOf("ann").parent_path();
  for (fs::path place = directory; place != "/Users";
       place = place.parent_path()) {
    SCOPED_TRACE(place);
    fs::rename(place, "/real");
    fs::create_symlink("/real", place);
    EXPECT_THAT(Request(), ElementsAre(kReceived, Saved("ann")));
    EXPECT_EQ(CountFiles("ann"), 0);
    fs::remove(place);
    fs::rename("/real", place);
  }
}

// The server's own observer.
const test::ChildScenario kObserves("Observes", [](const test::Arguments&) {
  StartServer();
  uiCmdMap.Set("SERI", nullptr);
  static std::atomic<int> responses = 0;
  int32_t token = 0;
  EXPECT_TRUE(platform::RegisterNotification(kGatewayResponse, token,
                                             [] { ++responses; }));
  platform::PostNotification(kGatewayRequest);
  EXPECT_TRUE(WaitUntil([] { return responses == 1; }));
  // There are no load hooks here that would.
  LeaveServer();
  platform::StopNotifications();
  return 0;
});
TEST_F(GatewayShareTest, IsObservedByTheServer) {
  const test::ChildResult result = test::RunInChild(kObserves);
  EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace zu::server

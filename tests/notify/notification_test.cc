// Posting and observing.

#include "platform/notification.h"

#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "build_values.h"
#include "platform/linux/notification/post_directory.h"
#include "platform/linux/notification/power_supply.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace zu::platform {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using test::Arguments;
using test::WaitUntil;

const fs::path kDirectory = ZU_NOTIFICATION_DIRECTORY;

class Observer {
 public:
  explicit Observer(std::string name) : name_(std::move(name)) {
    EXPECT_TRUE(RegisterNotification(name_.c_str(), token_,
                                     [calls = calls_] { ++*calls; }));
  }
  ~Observer() { CancelNotification(token_); }
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

  int calls() const { return *calls_; }
  // Whether one post is one call or more.
  bool SeesAPost() const {
    const int before = calls();
    return PostNotification(name_.c_str()) == 0 &&
           WaitUntil([&] { return calls() > before; });
  }

 private:
  const std::string name_;
  // The last call may come after the end.
  const std::shared_ptr<std::atomic<int>> calls_ =
      std::make_shared<std::atomic<int>>(0);
  int32_t token_ = kNoNotificationToken;
};

using NotificationTest = test::RootedTest;

TEST_F(NotificationTest, ReachesObserversOfThatNameOnly) {
  const std::string longest(300, '/');
  std::vector<std::unique_ptr<Observer>> observers;
  for (const std::string& name :
       {"com.example"s, "com.Example"s, "com"s, ""s, ".."s, "a/b"s, "a%2Fb"s,
        "a~b"s, "\xC3\xBC\n"s, longest + "a", longest + "b", longest}) {
    observers.push_back(std::make_unique<Observer>(name));
  }
  const Observer twin("com.example");
  for (size_t i = 0; i < observers.size(); ++i) {
    EXPECT_TRUE(observers[i]->SeesAPost()) << i;
  }
  EXPECT_TRUE(Observer("last").SeesAPost());
  for (const auto& observer : observers) EXPECT_EQ(observer->calls(), 1);
  EXPECT_EQ(twin.calls(), 1);
}

// What others do to the directory neither misleads a post nor stops it, and
// posts leave nothing behind.
TEST_F(NotificationTest, GetsThroughWhateverTheDirectoryHolds) {
  const fs::path entry = kDirectory / PostStem("a name");
  test::WriteFile("/run/victim", "text");
  const mode_t umask = ::umask(077);
  const Observer observer("a name");
  EXPECT_TRUE(observer.SeesAPost());
  fs::rename(kDirectory, "/run/moved");
  EXPECT_TRUE(observer.SeesAPost());
  struct stat status {};
  ASSERT_EQ(::stat(kDirectory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFDIR | 01777u);
  fs::create_symlink("/run/victim", entry);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(observer.SeesAPost());
  EXPECT_TRUE(WaitUntil([] {
    return std::distance(fs::directory_iterator(kDirectory), {}) == 1;
  }));
  ::umask(umask);
  EXPECT_EQ(test::ReadFile("/run/victim"), "text");
}

TEST_F(NotificationTest, TellsWhenItCannotPost) {
  EXPECT_EQ(PostNotification(nullptr), 1u);
  fs::remove_all(kDirectory);
  test::WriteFile(kDirectory, "text");
  EXPECT_EQ(PostNotification("a name"), 1000000u);
  EXPECT_EQ(test::ReadFile(kDirectory), "text");
  fs::remove(kDirectory);
}

// Registrations come and go on several threads while others post.
TEST_F(NotificationTest, LosesNothingUnderLoad) {
  std::vector<std::jthread> posters;
  for (const char* name : {"0", "1"}) {
    posters.emplace_back([name](const std::stop_token& over) {
      while (!over.stop_requested()) EXPECT_EQ(PostNotification(name), 0u);
    });
  }
  std::vector<std::jthread> registrars;
  for (int thread = 0; thread < 3; ++thread) {
    registrars.emplace_back([thread] {
      for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(Observer(std::to_string((i + thread) % 3)).SeesAPost());
      }
    });
  }
  registrars.clear();
}

// Once the stop has returned nothing runs or starts; a forked child, which has
// no thread of ours, is told so and ends without waiting for anything.
const test::ChildScenario kStops("Stops", [](const Arguments&) {
  static std::atomic<int> running{0};
  static std::atomic<int> observed{0};
  int32_t token = kNoNotificationToken;
  EXPECT_TRUE(RegisterNotification("a name", token, [] {
    ++running;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    --running;
  }));
  ObserveNotification("a name", [] { ++observed; });
  ObserveNotification("a name", [] { observed = 1000; });
  const pid_t child = ::fork();
  if (child == 0) {
    const bool registered = RegisterNotification("a name", token, [] {});
    CancelNotification(token);
    StopNotifications();
    ::_exit(PostNotification("a name") != 0 || registered ? 1 : 0);
  }
  EXPECT_TRUE(WaitUntil([] { return observed > 0; }));  // The child's post.
  EXPECT_EQ(PostNotification("a name"), 0u);
  EXPECT_TRUE(WaitUntil([] { return running > 0; }));
  StopNotifications();
  EXPECT_EQ(running, 0);
  const int before = observed;
  EXPECT_FALSE(RegisterNotification("a name", token, [] {}));
  EXPECT_EQ(PostNotification("a name"), 0u);
  EXPECT_EQ(observed, before);
  EXPECT_LE(before, 2);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
});

TEST_F(NotificationTest, EndsWhenItIsStopped) {
  const test::ChildResult result = test::RunInChild(kStops);
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(PowerSupply, IsUnlimitedUnlessABatteryIsUsed) {
  const PowerSupply mains{.type = "Mains", .online = "0"};
  const PowerSupply full{.type = "Battery", .status = "Full"};
  const PowerSupply used{.type = "Battery", .status = "Discharging"};
  PowerSupply adapter = mains, mouse = used, empty_bay = used;
  adapter.online = "1";
  mouse.scope = "Device";
  empty_bay.present = "0";
  using Supplies = std::vector<PowerSupply>;
  for (const Supplies& supplies :
       {Supplies{}, {used, adapter}, {mains, full, mouse, empty_bay}}) {
    EXPECT_TRUE(IsPowerUnlimited(supplies)) << supplies.size();
  }
  EXPECT_FALSE(IsPowerUnlimited(Supplies{mains, full, used}));
}

}  // namespace
}  // namespace zu::platform

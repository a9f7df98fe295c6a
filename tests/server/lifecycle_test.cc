// Starting and stopping, in order and out of order.

#include <gmock/gmock.h>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "client/zu_client.hpp"
#include "support/never_destroyed.h"
#include "tests/server/signed_test.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

using testing::ElementsAre;

constexpr int32_t kWait_ms = 20000;

// A gate that a callback waits in until the test opens it.
struct Gate {
  void Open() {
    const std::lock_guard lock(mutex);
    open = true;
    changed.notify_all();
  }
  void Pass() {
    std::unique_lock lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [this] { return open; });
  }
  void WaitForEntry() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return entered; });
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool open = false;
};
Gate g_gate;

uint32_t WaitAtGate(char*, uint32_t, uint32_t*) {
  g_gate.Pass();
  return 0;
}
uint32_t StopInside(char*, uint32_t, uint32_t*) {
  ZuStopServer();
  return 0;
}
uint32_t RestartInside(char*, uint32_t, uint32_t*) {
  ZuStopServer();
  return ZuStartServer();
}
uint32_t ExitInside(char*, uint32_t, uint32_t*) { std::exit(0); }

const ChildScenario kLogs("Logs", [](const Arguments&) {
  SystemLog log;
  ZuStopServer();
  EXPECT_THAT(log.Take(), ElementsAre("> ZuHelperOSX.StopServer",
                                      "< ZuHelperOSX.StopServer: complete"));
  return 0;
});

const ChildScenario kOnce("Once", [](const Arguments&) {
  SystemLog log;
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_NE(gXpcRequestQueue, nullptr);
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_THAT(
      log.Take(),
      ElementsAre("> ZuHelperOSX.StartServer:",
                  "ZuHelperOSX.StartServer: xpc_connection_set_event_handler",
                  "ZuHelperOSX.StartServer: xpc worker thread created",
                  "> ZuHelperOSX.StartServer:"));
  ZuStopServer();
  EXPECT_EQ(gXpcRequestQueue, nullptr);
  EXPECT_THAT(log.Take(),
              ElementsAre("> ZuHelperOSX.StopServer",
                          "ZuHelperOSX.StopServer: release dispatch queue",
                          "ZuHelperOSX.StopServer: cancel connection",
                          "ZuHelperOSX.StopServer: release gRequestQueue",
                          "ZuHelperOSX.StopServer: release uiCmdMap",
                          "ZuHelperOSX.StopServer: release gClientConnections",
                          "< ZuHelperOSX.StopServer: complete"));
  ZuStopServer();
  EXPECT_THAT(log.Take(), ElementsAre("> ZuHelperOSX.StopServer",
                                      "< ZuHelperOSX.StopServer: complete"));
  // Stopped for good: a new server is there and ignores everybody.
  EXPECT_EQ(ZuStartServer(), 0u);
  log.Take();
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_EQ(client.Request("{}", kWait_ms).status(), ZU_CLIENT_DISCONNECTED);
  EXPECT_THAT(
      log.Take(),
      ElementsAre(
          "< ZuHelperOSX.xpc_connection_set_event_handler: gShuttingDown"));
  ZuStopServer();
  return 0;
});

// The request under way gets no answer, is told so, and the stop waits for it.
const ChildScenario kDuringCallback("DuringCallback", [](const Arguments&) {
  ZuSetServerCallbackForCommand("WAIT", &WaitAtGate);
  ZuStartServer();
  Client client;
  client.Connect();
  std::thread requester([&client] {
    EXPECT_EQ(client.Request("{\"CMD_\":\"WAIT\"}", kWait_ms).status(),
              ZU_CLIENT_NO_REPLY);
  });
  g_gate.WaitForEntry();
  SystemLog log;
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 3; ++i) {
    stoppers.emplace_back([] {
      ZuStopServer();
      bool open;
      {
        const std::lock_guard lock(g_gate.mutex);
        open = g_gate.open;
      }
      EXPECT_TRUE(open) << "did not wait";
    });
  }
  EXPECT_TRUE(log.WaitForLine("> ZuHelperOSX.StopServer"));
  EXPECT_TRUE(WaitUntil([] {
    return ZuBroadcastMessageWithNoReply("x", 1) == ZU_SERVER_REFUSED;
  }));
  g_gate.Open();
  for (std::thread& stopper : stoppers) stopper.join();
  requester.join();
  // The connection itself stays open; what comes over it is dropped.
  EXPECT_EQ(client.Request("{}", kWait_ms).status(), ZU_CLIENT_NO_REPLY);
  return 0;
});

const ChildScenario kFromCallback("FromCallback", [](const Arguments& how) {
  ZuSetServerCallbackForCommand(
      "LEAVE", how[0] == "Stop" ? &StopInside : &RestartInside);
  ZuStartServer();
  Client client;
  client.Connect();
  EXPECT_EQ(client.Request("{\"CMD_\":\"LEAVE\"}", kWait_ms).status(),
            ZU_CLIENT_NO_REPLY);
  ZuStopServer();
  return 0;
});

// A host that just leaves: by returning from main, or from a callback.
const ChildScenario kNoStop("NoStop", [](const Arguments& how) {
  ZuSetServerCallbackForCommand("EXIT", &ExitInside);
  ZuStartServer();
  // A call on it is still under way when a callback leaves.
  static NeverDestroyed<Client> never_destroyed;
  Client& client = never_destroyed.value;
  client.Connect();
  if (how[0] == "Return") return client.Request("{}", kWait_ms) ? 0 : 1;
  (void)client.Request("{\"CMD_\":\"EXIT\"}", kWait_ms);
  return 1;
});

// Many starts and stops leave neither threads nor descriptors.
const ChildScenario kManyTimes("ManyTimes", [](const Arguments&) {
  const auto count = [](const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
  };
  const auto descriptors = count("/proc/self/fd");
  const auto threads = count("/proc/self/task");
  for (int i = 0; i < 200; ++i) {
    ZuStartServer();
    ZuStopServer();
  }
  // The last few loops may still be ending; a leak would show 200 times.
  EXPECT_LE(count("/proc/self/fd"), descriptors + 100);
  // One may stay: the observer of notifications outlives the server.
  EXPECT_TRUE(
      WaitUntil([&] { return count("/proc/self/task") <= threads + 1; }));
  return 0;
});

// A service name that cannot be taken is an error event, and nothing else.
const ChildScenario kNoDirectory("NoDirectory", [](const Arguments& mode) {
  SystemLog log;
  std::filesystem::remove_all(ZU_SOCKET_DIRECTORY);
  if (mode[0] == "File") {
    WriteFile(ZU_SOCKET_DIRECTORY, "");
  } else {
    std::filesystem::create_directories(ZU_SOCKET_DIRECTORY);
    std::filesystem::permissions(ZU_SOCKET_DIRECTORY,
                                 std::filesystem::perms::all);
  }
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_TRUE(log.WaitForLine(
      "ZuHelperOSX.xpc_connection_set_event_handler: xpc_get_type(client) "
      "ERROR"));
  ZuStopServer();
  std::filesystem::remove_all(ZU_SOCKET_DIRECTORY);
  return 0;
});

const ChildScenario kSecondServer("SecondServer", [](const Arguments&) {
  SystemLog log;
  ZuStartServer();
  EXPECT_TRUE(log.WaitForLine(
      "ZuHelperOSX.xpc_connection_set_event_handler: xpc_get_type(client) "
      "ERROR"));
  return 0;
});

// A living server keeps its name; a dead one's socket is no obstacle.
const ChildScenario kNameInUse("NameInUse", [](const Arguments&) -> int {
  ZuStartServer();
  const ChildResult second =
      RunInChild(kSecondServer, {}, kDeadline, kSignedProgram);
  EXPECT_EQ(second.status, 0) << second.output;
  Client client;
  client.Connect();
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  ::_exit(testing::UnitTest::GetInstance()->Failed() ? 1 : 0);
});

using ServerLifecycleTest = SignedTest;

TEST_F(ServerLifecycleTest, StopWithoutStartOnlyLogs) { Expect(kLogs); }
TEST_F(ServerLifecycleTest, StartsOnceAndStopsForGood) { Expect(kOnce); }
TEST_F(ServerLifecycleTest, StopWaitsForTheCallback) {
  Expect(kDuringCallback);
}
TEST_F(ServerLifecycleTest, CallbackStops) { Expect(kFromCallback, {"Stop"}); }
TEST_F(ServerLifecycleTest, CallbackRestarts) {
  Expect(kFromCallback, {"Restart"});
}
TEST_F(ServerLifecycleTest, HostReturnsWithoutStop) {
  Expect(kNoStop, {"Return"});
}
TEST_F(ServerLifecycleTest, HostExitsInCallback) { Expect(kNoStop, {"Exit"}); }
TEST_F(ServerLifecycleTest, LeavesNothingBehind) { Expect(kManyTimes); }
TEST_F(ServerLifecycleTest, NeedsADirectoryOfItsOwn) {
  Expect(kNoDirectory, {"File"});
  Expect(kNoDirectory, {"OpenToAll"});
}
TEST_F(ServerLifecycleTest, SharesItsNameWithNobody) {
  Expect(kNameInUse);
  Expect(kOnce);
}

}  // namespace
}  // namespace zu::test

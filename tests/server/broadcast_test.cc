// Broadcasts among clients that do not do what they should.

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "client/zu_client.hpp"
#include "tests/server/raw_client.h"
#include "tests/server/signed_test.h"

namespace zu::test {
namespace {

constexpr int32_t kWait_ms = 20000;

uint32_t Broadcast(const std::string& text) {
  return ZuBroadcastMessageWithNoReply(text.data(),
                                       static_cast<int32_t>(text.size()));
}

// Whoever has an answer is in the list.
Client ConnectToServer() {
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  return client;
}

// One that reads nothing costs the others and new ones no time: it is dropped
// at its bound, and up to there it gets what was sent.
const ChildScenario kSilent("Silent", [](const Arguments&) {
  ZuStartServer();
  RawClient silent;
  EXPECT_TRUE(silent.Send(RawClient::Request("{}")) && silent.Read());
  Client reader = ConnectToServer();
  const auto text = [](char mark) { return std::string(1 << 20, mark); };
  for (char mark = 'a'; mark <= 'x'; ++mark) {
    EXPECT_EQ(Broadcast(text(mark)), 0u);
    EXPECT_TRUE(reader.Receive(kWait_ms).text() == text(mark)) << mark;
    EXPECT_TRUE(ConnectToServer());
  }
  char mark = 'a';
  while (const auto frame = silent.Read()) {
    EXPECT_TRUE(frame->body == text(mark)) << mark;
    ++mark;
  }
  EXPECT_LT(mark, 'x');
  EXPECT_TRUE(silent.IsClosed());
  EXPECT_EQ(Broadcast(std::string(ZU_MESSAGE_MAX, 'x')), 0u);
  EXPECT_EQ(reader.Receive(kWait_ms).text().size(), ZU_MESSAGE_MAX);
  EXPECT_EQ(Broadcast(std::string(ZU_MESSAGE_MAX + 1, 'x')), ZU_SERVER_REFUSED);
  ZuStopServer();
  return 0;
});

// Clients come and go while several threads broadcast and the server stops. So
// few messages overrun no client's bound.
const ChildScenario kCrowd("Crowd", [](const Arguments&) {
  ZuStartServer();
  std::vector<std::thread> threads;
  for (int sender = 0; sender < 3; ++sender) {
    threads.emplace_back([] {
      for (int i = 0; i < 2000; ++i) Broadcast("x");
    });
  }
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(ConnectToServer());
  ZuStopServer();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Broadcast("x"), ZU_SERVER_REFUSED);
  return 0;
});

using ServerBroadcastTest = SignedTest;

TEST_F(ServerBroadcastTest, WaitsForNobody) { Expect(kSilent); }
TEST_F(ServerBroadcastTest, SurvivesACrowd) { Expect(kCrowd); }

}  // namespace
}  // namespace zu::test

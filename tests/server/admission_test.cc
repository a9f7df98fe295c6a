// Who gets in, and what those who got in can do to the server.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <random>

#include "client/zu_client.hpp"
#include "tests/server/raw_client.h"
#include "tests/server/signed_test.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

using testing::Contains;
using testing::MatchesRegex;
using testing::Not;

constexpr int32_t kWait_ms = 20000;
constexpr char kEcho[] = "{\"CMD_\":\"ECHO\"}";

uint32_t Echo(char*, uint32_t, uint32_t*) { return 0; }

void StartEchoServer() {
  ZuSetServerCallbackForCommand("ECHO", &Echo);
  ZuStartServer();
}

bool Answers(RawClient& client) {
  const auto frame =
      client.Send(RawClient::Request(kEcho)) ? client.Read() : std::nullopt;
  return frame && frame->header.kind == platform::FrameKind::kReply &&
         frame->body == kEcho;
}

const ChildScenario kConnect("Connect", [](const Arguments&) {
  Client client;
  if (client.Connect() != ZU_CLIENT_OK) return 50;
  return static_cast<int>(client.Request(kEcho, kWait_ms).status());
});

struct Program {
  const char* path;
  ZuClientStatus status;
  const char* reason;  // What is logged about a refused one.
};

const ChildScenario kPrograms("Programs", [](const Arguments&) {
  SystemLog log;
  StartEchoServer();
  for (const Program& program : std::initializer_list<Program>{
           {kSignedProgram, ZU_CLIENT_OK, nullptr},
           {kUnsignedProgram, ZU_CLIENT_DISCONNECTED,
            "clientIsAllowedToConnect() : failed SecCodeCheckValidity with "
            "status = -67062"},
           {kStrangersProgram, ZU_CLIENT_DISCONNECTED,
            "clientIsAllowedToConnect() : failed SecCodeCheckValidity with "
            "status = -2147409622"}}) {
    SCOPED_TRACE(program.path);
    log.Take();
    const ChildResult result =
        RunInChild(kConnect, {}, kDeadline, program.path);
    EXPECT_EQ(result.status, program.status) << result.output;
    EXPECT_TRUE(
        log.WaitForLine("ZuHelperOSX.xpc_connection_set_event_handler: "
                        "ClientConnectionHandler(client) completed"));
    const bool admitted = program.reason == nullptr;
    EXPECT_TRUE(log.WaitForLine(
        admitted ? "ZuHelperOSX.ClientRequestHandler: XPC error event - "
                   "disconnectFromService"
                 : program.reason));
    EXPECT_THAT(
        log.Take(),
        Contains(MatchesRegex(
            admitted ? "ZuHelperOSX\\.ClientConnectionHandler: Adding client "
                       "<connection: 0x.* pid = [0-9]+.* - ZubrantSigner"
                     : "< ZuHelperOSX\\.ClientConnectionHandler: error, client "
                       "'" ZU_AGENT_SERVICE_NAME
                       "' \\(pid = [0-9]+\\) not authorized - cancel "
                       "connection")));
  }
  EXPECT_EQ(Util_clientIsSignedByZubrant(::getpid()), 1u);
  EXPECT_EQ(Util_clientIsSignedByZubrant(::getppid()), 0u);
  EXPECT_EQ(Util_clientIsSignedByZubrant(0), 0u);
  EXPECT_EQ(Util_clientIsSignedByZubrant(-1), 0u);
  ZuStopServer();
  return 0;
});

// Talks over the connection that the program it replaced had.
const ChildScenario kInherit("Inherit", [](const Arguments& arguments) {
  RawClient client(std::stoi(arguments[0]));
  return client.Send(RawClient::Request(kEcho)) && !client.IsClosed() ? 1 : 0;
});

const ChildScenario kReplace("Replace", [](const Arguments&) {
  RawClient client;
  if (!Answers(client)) return 2;
  ::fcntl(client.get(), F_SETFD, 0);
  ::execl(kUnsignedProgram, kUnsignedProgram, "--zu_child", "Inherit",
          std::to_string(client.get()).c_str(), nullptr);
  return 3;
});

const ChildScenario kImposters("Imposters", [](const Arguments&) {
  StartEchoServer();
  const ChildResult replaced =
      RunInChild(kReplace, {}, kDeadline, kSignedProgram);
  EXPECT_EQ(replaced.status, 0) << replaced.output;

  RawClient client;
  EXPECT_TRUE(Answers(client));
  if (const pid_t child = ::fork(); child == 0) {
    client.Send(RawClient::Request(kEcho));
    ::_exit(0);
  } else {
    ::waitpid(child, nullptr, 0);
  }
  EXPECT_TRUE(client.IsClosed());
  ZuStopServer();
  return 0;
});

FileDescriptor MakeMemory(size_t size, int seals) {
  FileDescriptor memory(
      ::memfd_create("region", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(::ftruncate(memory.get(), static_cast<off_t>(size)), 0);
  EXPECT_EQ(::fcntl(memory.get(), F_ADD_SEALS, seals), 0);
  return memory;
}

// Every misuse of the region ends that client and nobody else.
const ChildScenario kRegions("Regions", [](const Arguments&) {
  StartEchoServer();
  RawClient witness;
  platform::FrameHeader region;
  region.kind = platform::FrameKind::kRegion;
  region.length = platform::kRegionSize;
  const std::string open = RawClient::Encode(region);
  platform::FrameHeader lent;
  lent.kind = platform::FrameKind::kRequest;
  lent.flags = platform::kFrameHasData | platform::kFrameInRegion;
  lent.length = 40000;
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  const FileDescriptor good = MakeMemory(platform::kRegionSize, kSeals);

  struct Case {
    const char* name;
    std::function<void(RawClient&)> act;
  };
  for (const Case& misuse : std::initializer_list<Case>{
           {"NoDescriptor", [&](RawClient& c) { c.Send(open); }},
           {"NotLent", [&](RawClient& c) { c.Send(RawClient::Encode(lent)); }},
           {"Twice",
            [&](RawClient& c) {
              c.SendWith(good.get(), open);
              c.SendWith(good.get(), open);
            }},
           {"Stray",
            [&](RawClient& c) {
              c.SendWith(good.get(), RawClient::Request(kEcho));
            }},
           {"CanShrink",
            [&](RawClient& c) {
              c.SendWith(
                  MakeMemory(platform::kRegionSize, F_SEAL_GROW | F_SEAL_SEAL)
                      .get(),
                  open);
            }},
           {"OtherSize",
            [&](RawClient& c) {
              c.SendWith(MakeMemory(4096, kSeals).get(), open);
            }},
           {"NoMemory", [&](RawClient& c) {
              c.SendWith(FileDescriptor(::open("/dev/null", O_RDWR)).get(),
                         open);
            }}}) {
    SCOPED_TRACE(misuse.name);
    RawClient client;
    misuse.act(client);
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(Answers(witness));
  }
  // The right use: text that the client changes later was copied before.
  RawClient client;
  auto* text = static_cast<char*>(::mmap(nullptr, platform::kRegionSize,
                                         PROT_READ | PROT_WRITE, MAP_SHARED,
                                         good.get(), 0));
  const std::string request =
      "{\"CMD_\":\"ECHO\",\"P\":\"" + std::string(39976, 'x') + "\"}";
  std::memcpy(text, request.data(), request.size());
  lent.length = request.size();
  client.SendWith(good.get(), open);
  client.Send(RawClient::Encode(lent));
  const auto reply = client.Read();
  EXPECT_TRUE(reply && reply->header.length == request.size() &&
              (reply->header.flags & platform::kFrameInRegion) != 0 &&
              std::memcmp(text, request.data(), request.size()) == 0);
  ZuStopServer();
  return 0;
});

size_t OpenDescriptors() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Broken streams, in every way of breaking them.
const ChildScenario kStreams("Streams", [](const Arguments&) {
  StartEchoServer();
  RawClient witness;
  EXPECT_TRUE(Answers(witness));
  const size_t descriptors = OpenDescriptors();
  std::mt19937 random(7);
  const std::string frame = RawClient::Request(kEcho);
  for (int i = 0; i < 500; ++i) {
    RawClient client;
    std::string bytes = frame + frame;
    switch (i % 4) {
      case 0:  // Half a frame, then gone.
        bytes.resize(random() % bytes.size());
        break;
      case 1:  // Noise.
        for (char& byte : bytes) byte = static_cast<char>(random());
        break;
      case 2:  // One wrong byte somewhere.
        bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
        break;
      case 3:  // Gone in the middle of a request.
        break;
    }
    client.Send(bytes);
  }
  platform::FrameHeader header;
  header.kind = platform::FrameKind::kRequest;
  header.flags = platform::kFrameHasData;
  header.length = UINT64_MAX;
  RawClient endless;
  endless.Send(RawClient::Encode(header, std::string(100000, 'x')));
  const auto refusal = endless.Read();
  EXPECT_TRUE(refusal && refusal->body == "{\"RESP\":-2}");
  EXPECT_TRUE(Answers(witness));
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors + 3; }));
  ZuStopServer();
  return 0;
});

const ChildScenario kCrowd("Crowd", [](const Arguments& arguments) {
  const auto clients = static_cast<size_t>(std::stoi(arguments[0]));
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4 * clients + 100);
  ::setrlimit(RLIMIT_NOFILE, &limit);
  StartEchoServer();
  const size_t descriptors = OpenDescriptors();
  {
    std::vector<std::unique_ptr<RawClient>> crowd;
    for (size_t i = 0; i < clients; ++i) {
      crowd.push_back(std::make_unique<RawClient>());
      EXPECT_TRUE(crowd.back()->Send(RawClient::Request(kEcho)));
    }
    for (const auto& client : crowd) EXPECT_TRUE(client->Read());
    // One that does not read is dropped in the end, the others get everything.
    RawClient& deaf = *crowd[0];
    const std::string text(1 << 20, 'b');
    for (int i = 0; i < 12; ++i) {
      EXPECT_EQ(ZuBroadcastMessageWithNoReply(text.data(), 1 << 20), 0u);
      for (size_t k = 1; k < std::min<size_t>(clients, 4); ++k) {
        const auto frame = crowd[k]->Read();
        EXPECT_TRUE(frame && frame->body.size() == text.size());
      }
    }
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(Answers(*crowd[1]));
    while (const auto frame = deaf.Read()) {
    }
    EXPECT_TRUE(deaf.IsClosed());
  }
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= descriptors; }));
  ZuStopServer();
  return 0;
});

// More clients than descriptors: those beyond wait, the others are served.
const ChildScenario kShortage("Shortage", [](const Arguments&) {
  StartEchoServer();
  RawClient first;
  EXPECT_TRUE(Answers(first));
  rlimit limit{64, 64};
  ::setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<std::unique_ptr<RawClient>> crowd;
  while (crowd.empty() || crowd.back()->connected()) {
    crowd.push_back(std::make_unique<RawClient>());
    EXPECT_TRUE(Answers(first));
  }
  crowd.clear();
  EXPECT_TRUE(WaitUntil([] {
    RawClient late;
    return Answers(late);
  }));
  ZuStopServer();
  return 0;
});

const ChildScenario kManyRequests("ManyRequests", [](const Arguments& count) {
  StartEchoServer();
  Client client;
  client.Connect();
  for (int i = std::stoi(count[0]); i > 0; --i) {
    const ClientText reply = client.Request(kEcho, kWait_ms);
    if (reply.text() != kEcho) return 1;
  }
  ZuStopServer();
  return 0;
});

using ServerAdmissionTest = SignedTest;

TEST_F(ServerAdmissionTest, AdmitsTheVendorsProgramsOnly) { Expect(kPrograms); }
TEST_F(ServerAdmissionTest, ClosesWhenSomebodyElseSpeaks) {
  Expect(kImposters);
}
TEST_F(ServerAdmissionTest, TakesOnlySoundRegions) { Expect(kRegions); }
TEST_F(ServerAdmissionTest, OutlivesBrokenStreams) { Expect(kStreams); }
TEST_F(ServerAdmissionTest, ServesACrowd) { Expect(kCrowd, {"1000"}); }
TEST_F(ServerAdmissionTest, RunsOutOfDescriptors) { Expect(kShortage); }
TEST_F(ServerAdmissionTest, AnswersManyRequests) {
  Expect(kManyRequests, {"100000"});
}

}  // namespace
}  // namespace zu::test

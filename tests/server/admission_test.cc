// Who gets in, and what those who got in can do to the server.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "client/zu_client.hpp"
#include "tests/server/signed_test.h"
#include "tests/support/frame_peer.h"
#include "tests/support/process_state.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

using platform::FrameHeader;
using platform::FrameKind;
using platform::kFrameHasData;
using platform::kFrameInRegion;
using platform::kRegionSize;
using testing::Contains;
using testing::MatchesRegex;

constexpr char kEcho[] = "{\"CMD_\":\"ECHO\"}";
const std::string kRequest = Encode({.kind = FrameKind::kRequest,
                                     .flags = kFrameHasData,
                                     .request = 1,
                                     .length = sizeof(kEcho) - 1},
                                    kEcho);

void StartEchoServer() {
  ZuSetServerCallbackForCommand("ECHO",
                                [](char*, uint32_t, uint32_t*) { return 0u; });
  ZuStartServer();
}

FramePeer Connect() {
  FramePeer peer{FileDescriptor(::socket(AF_UNIX, SOCK_STREAM, 0))};
  const sockaddr_un address =
      UnixAddress(ZU_SOCKET_DIRECTORY "/" ZU_AGENT_SERVICE_NAME);
  EXPECT_EQ(
      ::connect(peer.socket.get(), reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)),
      0);
  return peer;
}

bool Answers(FramePeer& peer) {
  const auto frame = peer.Send(kRequest) ? peer.Read() : std::nullopt;
  return frame && frame->header.kind == FrameKind::kReply &&
         frame->body == kEcho;
}

const ChildScenario kConnect("Connect", [](const Arguments&) {
  Client client;
  if (client.Connect() != ZU_CLIENT_OK) return 50;
  return static_cast<int>(client.Request(kEcho, 20000).status());
});

const ChildScenario kPrograms("Programs", [](const Arguments&) {
  constexpr char kRefused[] =
      "< ZuHelperOSX\\.ClientConnectionHandler: error, client "
      "'" ZU_AGENT_SERVICE_NAME
      "' \\(pid = [0-9]+\\) not authorized - cancel connection";
  const struct {
    const char* path;
    ZuClientStatus status;
    const char* line;
    const char* verdict;
  } rows[] = {
      {kSignedProgram, ZU_CLIENT_OK,
       "ZuHelperOSX.ClientRequestHandler: XPC error event - "
       "disconnectFromService",
       "ZuHelperOSX\\.ClientConnectionHandler: Adding client "
       "<connection: 0x.* pid = [0-9]+.* - ZubrantSigner"},
      {kStrangersProgram, ZU_CLIENT_DISCONNECTED,
       "clientIsAllowedToConnect() : failed SecCodeCheckValidity with status = "
       "-2147409622",
       kRefused}};
  SystemLog log;
  StartEchoServer();
  for (const auto& [path, status, line, verdict] : rows) {
    SCOPED_TRACE(path);
    log.Take();
    EXPECT_EQ(RunInChild(kConnect, {}, path).status, status);
    EXPECT_TRUE(
        log.WaitForLine("ZuHelperOSX.xpc_connection_set_event_handler: "
                        "ClientConnectionHandler(client) completed"));
    EXPECT_TRUE(log.WaitForLine(line));
    EXPECT_THAT(log.Take(), Contains(MatchesRegex(verdict)));
  }
  EXPECT_EQ(Util_clientIsSignedByZubrant(::getpid()), 1u);
  EXPECT_EQ(Util_clientIsSignedByZubrant(::getppid()), 0u);
  ZuStopServer();
  return 0;
});

// Talks over the connection that the program it replaced had.
const ChildScenario kInherit("Inherit", [](const Arguments& arguments) {
  const FramePeer peer{FileDescriptor(std::stoi(arguments[0]))};
  return peer.Send(kRequest) && !peer.IsClosed() ? 1 : 0;
});

const ChildScenario kReplace("Replace", [](const Arguments&) {
  FramePeer peer = Connect();
  if (!Answers(peer)) return 2;
  ::execl(kSignedProgram, kSignedProgram, "--zu_child", "Inherit",
          std::to_string(peer.socket.get()).c_str(), nullptr);
  return 3;
});

const ChildScenario kImposters("Imposters", [](const Arguments&) {
  StartEchoServer();
  EXPECT_EQ(RunInChild(kReplace, {}, kSignedProgram).status, 0);
  FramePeer peer = Connect();
  EXPECT_TRUE(Answers(peer));
  if (const pid_t child = ::fork(); child == 0) {
    peer.Send(kRequest);
    ::_exit(0);
  } else {
    ::waitpid(child, nullptr, 0);
  }
  EXPECT_TRUE(peer.IsClosed());
  ZuStopServer();
  return 0;
});

FileDescriptor MakeMemory(off_t size, int seals) {
  FileDescriptor memory(
      ::memfd_create("region", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(::ftruncate(memory.get(), size), 0);
  EXPECT_EQ(::fcntl(memory.get(), F_ADD_SEALS, seals), 0);
  return memory;
}

// Every misuse, of the region above all, ends that client and nobody else.
const ChildScenario kMisuses("Misuses", [](const Arguments&) {
  const std::string open =
      Encode({.kind = FrameKind::kRegion, .length = kRegionSize});
  const std::string lent = Encode({.kind = FrameKind::kRequest,
                                   .flags = kFrameHasData | kFrameInRegion,
                                   .length = 40000});
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  const FileDescriptor good = MakeMemory(kRegionSize, kSeals);
  const FileDescriptor small = MakeMemory(4096, kSeals);
  const FileDescriptor shrinks =
      MakeMemory(kRegionSize, F_SEAL_GROW | F_SEAL_SEAL);
  const struct {
    const char* name;
    std::string bytes;
    int descriptor = -1;
    int times = 1;
  } misuses[] = {{"noise", std::string(100, 'x')},
                 {"no descriptor", open},
                 {"not lent", lent},
                 {"twice", open, good.get(), 2},
                 {"beside a request", kRequest, good.get()},
                 {"can shrink", open, shrinks.get()},
                 {"other size", open, small.get()}};
  StartEchoServer();
  FramePeer witness = Connect();
  for (const auto& misuse : misuses) {
    SCOPED_TRACE(misuse.name);
    const FramePeer peer = Connect();
    for (int i = 0; i < misuse.times; ++i) {
      peer.Send(misuse.bytes, misuse.descriptor);
    }
    EXPECT_TRUE(peer.IsClosed());
    EXPECT_TRUE(Answers(witness));
  }
  ZuStopServer();
  return 0;
});

const ChildScenario kCrowd("Crowd", [](const Arguments&) {
  StartEchoServer();
  const size_t descriptors = CountDescriptors();
  {
    std::vector<FramePeer> crowd;
    for (int i = 0; i < 200; ++i) {
      crowd.push_back(Connect());
      EXPECT_TRUE(crowd.back().Send(kRequest));
    }
    for (FramePeer& peer : crowd) EXPECT_TRUE(peer.Read());
    // One that does not read is dropped in the end, the others get everything.
    const std::string text(1 << 20, 'b');
    for (int i = 0; i < 12; ++i) {
      EXPECT_EQ(ZuBroadcastMessageWithNoReply(text.data(), 1 << 20), 0u);
      for (size_t k = 1; k < 4; ++k) {
        const auto frame = crowd[k].Read();
        EXPECT_TRUE(frame && frame->body == text);
      }
    }
    while (crowd[0].Read()) {
    }
    EXPECT_TRUE(crowd[0].IsClosed());
  }
  EXPECT_TRUE(WaitUntil([=] { return CountDescriptors() <= descriptors; }));
  ZuStopServer();
  return 0;
});

using ServerAdmissionTest = SignedTest;

TEST_F(ServerAdmissionTest, AdmitsTheVendorsProgramsOnly) { Expect(kPrograms); }
TEST_F(ServerAdmissionTest, ClosesWhenSomebodyElseSpeaks) {
  Expect(kImposters);
}
TEST_F(ServerAdmissionTest, EndsWhoeverBreaksARule) { Expect(kMisuses); }
TEST_F(ServerAdmissionTest, ServesACrowd) { Expect(kCrowd); }

}  // namespace
}  // namespace zu::test

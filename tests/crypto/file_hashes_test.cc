// File hashes through the exported names, beside digests of the same bytes in
// memory: the exported one, and libcrypto's SHA-1.

#include <fcntl.h>
#include <openssl/sha.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "ZuHelper.h"
#include "support/hex.h"
#include "tests/support/fake_tool.h"
#include "tests/support/process_state.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace zu::test {
namespace {

constexpr char kFile[] = "/tmp/file";
// Large enough for two threads, and not whole in any unit.
constexpr size_t kLarge = (3u << 20) + 5;

struct Hashes {
  std::string md5;
  std::string sha1;
  bool operator==(const Hashes&) const = default;
};

std::string Message(size_t size) {
  std::string message(size, '\0');
  std::minstd_rand random(static_cast<unsigned>(size));
  for (char& c : message) c = static_cast<char>(random() >> 16);
  return message;
}

Hashes HashesOf(const std::string& message) {
  ZuMD5Context context;
  uint8_t md5[ZU_MD5_OUTPUT_SIZE], sha1[SHA_DIGEST_LENGTH];
  MD5Open(&context);
  MD5Digest(&context, message.data(), static_cast<uint32_t>(message.size()));
  MD5Close(&context, md5);
  ::SHA1(reinterpret_cast<const uint8_t*>(message.data()), message.size(),
         sha1);
  char md5_text[ZU_MD5_TEXT_SIZE], sha1_text[ZU_SHA1_TEXT_SIZE];
  WriteUpperHex(std::as_bytes(std::span(md5).first(ZU_MD5_SIZE)), md5_text);
  WriteUpperHex(std::as_bytes(std::span(sha1)), sha1_text);
  return {md5_text, sha1_text};
}

// Empty texts when the call fails.
Hashes HashFile(const char* path) {
  char md5[ZU_MD5_TEXT_SIZE + 1], sha1[ZU_SHA1_TEXT_SIZE + 1];
  std::memset(md5, '?', sizeof md5);
  std::memset(sha1, '?', sizeof sha1);
  if (GetMd5AndSha1(path, md5, sha1) != 1) return {};
  EXPECT_EQ(md5[ZU_MD5_TEXT_SIZE], '?');
  EXPECT_EQ(sha1[ZU_SHA1_TEXT_SIZE], '?');
  return {md5, sha1};
}

size_t CountDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(open), end(open)));
}

using FileHashesTest = RootedTest;

TEST_F(FileHashesTest, Sha1IsTheStandards) {
  const struct {
    std::string message;
    const char* sha1;
  } kVectors[] = {
      {"", "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709"},
      {"abc", "A9993E364706816ABA3E25717850C26C9CD0D89D"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983E441C3BD26EBAAE4AA1F95129E5E54670F1"},
      {std::string(1'000'000, 'a'), "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F"},
  };
  for (const auto& vector : kVectors) {
    WriteFile(kFile, vector.message);
    EXPECT_EQ(HashFile(kFile).sha1, vector.sha1);
  }
}

TEST_F(FileHashesTest, HashesEverySize) {
  constexpr size_t kBuffer = 65536;
  for (const size_t size :
       {size_t{0}, size_t{1}, kBuffer - 1, kBuffer, kBuffer + 1, 4 * kBuffer,
        4 * kBuffer + 1, 5 * kBuffer, 5 * kBuffer + 1, kLarge}) {
    const std::string message = Message(size);
    WriteFile(kFile, message);
    EXPECT_EQ(HashFile(kFile), HashesOf(message)) << size;
  }
}

// A directory and a read error at once are messages, too.
TEST_F(FileHashesTest, UnreadableIsEmpty) {
  for (const char* path : {"/tmp", "/proc/self/mem"}) {
    EXPECT_EQ(HashFile(path), HashesOf("")) << path;
  }
}

TEST_F(FileHashesTest, WritesNothingUnlessItSucceeds) {
  WriteFile(kFile, "abc");
  const struct {
    const char* path;
    bool md5, sha1;
    uint8_t result, zu_result;
  } kCalls[] = {
      {"/tmp/none", true, true, 0, 0}, {nullptr, true, true, 0, 0},
      {kFile, true, false, 0, 0},      {kFile, false, true, 0, 0},
      {kFile, false, false, 0, 1},     {nullptr, false, false, 0, 1},
      {kFile, true, true, 1, 1},
  };
  for (const auto& call : kCalls) {
    for (const auto hash : {&GetMd5AndSha1, &ZuGetMd5AndSha1HashesOSX}) {
      char md5[ZU_MD5_TEXT_SIZE] = "?", sha1[ZU_SHA1_TEXT_SIZE] = "?";
      EXPECT_EQ(
          hash(call.path, call.md5 ? md5 : nullptr, call.sha1 ? sha1 : nullptr),
          hash == &GetMd5AndSha1 ? call.result : call.zu_result);
      const Hashes expected =
          call.result == 1 ? HashesOf("abc") : Hashes{"?", "?"};
      EXPECT_EQ((Hashes{md5, sha1}), expected);
    }
  }
}

std::atomic<int> g_signals{0};

// Pieces of odd sizes, each after the reader has taken all before it, and a
// signal has ended its wait.
TEST_F(FileHashesTest, ReadsAPipeToItsEnd) {
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) { ++g_signals; };  // No SA_RESTART.
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  ::unlink("/tmp/pipe");
  ASSERT_EQ(::mkfifo("/tmp/pipe", 0600), 0);
  const std::string message = Message(kLarge);
  bool written = false;
  std::vector<std::string> masks;  // Of the library's thread.
  std::thread writer([&, caller = ::pthread_self(), caller_id = ::gettid()] {
    const int pipe = ::open("/tmp/pipe", O_WRONLY | O_CLOEXEC);
    std::minstd_rand random(1);
    size_t done = 0;
    const auto drained = [pipe] {
      int left = -1;
      return ::ioctl(pipe, FIONREAD, &left) == 0 && left == 0;
    };
    while (done < message.size() && WaitUntil(drained)) {
      const int signals = g_signals;
      ::pthread_kill(caller, SIGUSR1);
      if (!WaitUntil([=] { return g_signals != signals; })) break;
      const size_t size =
          std::min<size_t>(message.size() - done, 1 + random() % 65536);
      if (::write(pipe, message.data() + done, size) !=
          static_cast<ssize_t>(size)) {
        break;
      }
      done += size;
    }
    written = done == message.size() && WaitUntil(drained);
    // Nobody ends before the pipe does, so the third thread is the library's.
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/self/task")) {
      const int id = std::stoi(task.path().filename());
      if (id == caller_id || id == ::gettid()) continue;
      std::ifstream status(task.path() / "status");
      for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:")) masks.push_back(line.substr(8));
      }
    }
    ::close(pipe);
  });
  const Hashes hashes = HashFile("/tmp/pipe");
  writer.join();
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_TRUE(written);
  EXPECT_EQ(hashes, HashesOf(message));
  // The host's signals are not for that thread.
  EXPECT_FALSE(masks.empty());
  for (const std::string& mask : masks) {
    EXPECT_NE(std::stoull(mask, nullptr, 16) & 1u << (SIGUSR1 - 1), 0u);
  }
}

TEST_F(FileHashesTest, RunsOnManyThreadsAndKeepsNothing) {
  const std::string message = Message(kLarge);
  WriteFile(kFile, message);
  const Hashes expected = HashesOf(message);
  HashFile(kFile);  // What is made once is there from here on.
  const size_t descriptors = CountDescriptors(), threads = CountThreads();
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      for (int j = 0; j < 3; ++j) EXPECT_EQ(HashFile(kFile), expected);
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == threads; }));
}

TEST_F(FileHashesTest, NeedsNoSecondThread) {
  const std::string message = Message(kLarge);
  WriteFile(kFile, message);
  pthread_attr_t before, impossible;
  ASSERT_EQ(::pthread_getattr_default_np(&before), 0);
  ASSERT_EQ(::pthread_getattr_default_np(&impossible), 0);
  // More than there are addresses.
  ::pthread_attr_setstacksize(&impossible, size_t{1} << 48);
  ASSERT_EQ(::pthread_setattr_default_np(&impossible), 0);
  EXPECT_THROW(std::thread([] {}).join(), std::system_error);
  EXPECT_EQ(HashFile(kFile), HashesOf(message));
  ::pthread_setattr_default_np(&before);
  ::pthread_attr_destroy(&impossible);
  ::pthread_attr_destroy(&before);
}

}  // namespace
}  // namespace zu::test

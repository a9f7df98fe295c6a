// File hashes through the exported names, beside digests of the same bytes in
// memory: the exported one, and libcrypto's SHA-1.

#include <fcntl.h>
#include <openssl/sha.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
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

// Both texts with their NULs, and one character that is nobody's.
constexpr size_t kTexts = ZU_MD5_TEXT_SIZE + ZU_SHA1_TEXT_SIZE + 1;

std::string Message(size_t size) {
  std::string message(size, '\0');
  std::minstd_rand random(static_cast<unsigned>(size));
  for (char& c : message) c = static_cast<char>(random() >> 16);
  return message;
}

std::string HashesOf(const std::string& message) {
  ZuMD5Context context;
  uint8_t md5[ZU_MD5_OUTPUT_SIZE], sha1[SHA_DIGEST_LENGTH];
  MD5Open(&context);
  MD5Digest(&context, message.data(), static_cast<uint32_t>(message.size()));
  MD5Close(&context, md5);
  ::SHA1(reinterpret_cast<const uint8_t*>(message.data()), message.size(),
         sha1);
  std::string texts(kTexts, '#');
  WriteUpperHex(std::as_bytes(std::span(md5).first(ZU_MD5_SIZE)), &texts[0]);
  WriteUpperHex(std::as_bytes(std::span(sha1)), &texts[ZU_MD5_TEXT_SIZE]);
  return texts;
}

std::string HashFile(const char* path) {
  std::string texts(kTexts, '#');
  EXPECT_EQ(GetMd5AndSha1(path, &texts[0], &texts[ZU_MD5_TEXT_SIZE]), 1);
  return texts;
}

using FileHashesTest = RootedTest;

TEST_F(FileHashesTest, HashesEverySize) {
  WriteFile(kFile, "abc");
  EXPECT_EQ(HashFile(kFile).substr(ZU_MD5_TEXT_SIZE, 40),  // FIPS 180
            "A9993E364706816ABA3E25717850C26C9CD0D89D");
  constexpr size_t kBuffer = 65536;
  for (const size_t size :
       {size_t{0}, size_t{1}, kBuffer, kBuffer + 1, 4 * kBuffer,
        4 * kBuffer + 1, 5 * kBuffer, kLarge}) {
    const std::string message = Message(size);
    WriteFile(kFile, message);
    EXPECT_EQ(HashFile(kFile), HashesOf(message)) << size;
  }
}

TEST_F(FileHashesTest, WritesNothingUnlessItSucceeds) {
  WriteFile(kFile, "abc");
  const struct {
    const char* path;
    bool md5, sha1;
    uint8_t result, zu_result;
    const char* message = "";
  } kCalls[] = {
      {"/tmp/none", true, true, 0, 0},
      {nullptr, true, true, 0, 0},
      {kFile, true, false, 0, 0},
      {kFile, false, true, 0, 0},
      {nullptr, false, false, 0, 1},
      {kFile, true, true, 1, 1, "abc"},
      // A directory and a read error at once are messages, too.
      {"/tmp", true, true, 1, 1},
      {"/proc/self/mem", true, true, 1, 1},
  };
  for (const auto& call : kCalls) {
    for (const auto hash : {&GetMd5AndSha1, &ZuGetMd5AndSha1HashesOSX}) {
      std::string texts(kTexts, '#');
      char* const md5 = call.md5 ? &texts[0] : nullptr;
      char* const sha1 = call.sha1 ? &texts[ZU_MD5_TEXT_SIZE] : nullptr;
      EXPECT_EQ(hash(call.path, md5, sha1),
                hash == &GetMd5AndSha1 ? call.result : call.zu_result);
      EXPECT_EQ(texts, call.result == 1 ? HashesOf(call.message)
                                        : std::string(kTexts, '#'));
    }
  }
}

std::atomic<int> g_signals{0};

// Pieces of odd sizes, each after the reader has taken all before it, and a
// signal has ended its wait.
TEST_F(FileHashesTest, ReadsAPipeToItsEnd) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++g_signals; };  // No SA_RESTART.
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
  ::unlink("/tmp/pipe");
  ASSERT_EQ(::mkfifo("/tmp/pipe", 0600), 0);
  const std::string message = Message(kLarge);
  int open_to_signals = 0;  // Threads.
  std::jthread writer([&, caller = ::pthread_self()] {
    const FileDescriptor pipe(::open("/tmp/pipe", O_WRONLY | O_CLOEXEC));
    const auto drained = [&] {
      int left = -1;
      return ::ioctl(pipe.get(), FIONREAD, &left) == 0 && left == 0;
    };
    std::minstd_rand random(1);
    ASSERT_TRUE(WaitUntil(drained));
    for (std::string_view left = message; !left.empty();) {
      const int signals = g_signals;
      ::pthread_kill(caller, SIGUSR1);
      ASSERT_TRUE(WaitUntil([=] { return g_signals != signals; }));
      const auto piece = left.substr(0, 1 + random() % 65536);
      ASSERT_EQ(::write(pipe.get(), piece.data(), piece.size()),
                static_cast<ssize_t>(piece.size()));
      left.remove_prefix(piece.size());
      ASSERT_TRUE(WaitUntil(drained));
    }
    // The library's thread does not end before the pipe does.
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/self/task")) {
      const std::string status = ReadFile(task.path() / "status");
      open_to_signals += status.find("SigBlk:\tffff") == status.npos;
    }
  });
  EXPECT_EQ(HashFile("/tmp/pipe"), HashesOf(message));
  writer.join();
  EXPECT_EQ(open_to_signals, 2);  // The caller and the writer.
}

TEST_F(FileHashesTest, RunsOnManyThreadsAndKeepsNothing) {
  const std::string message = Message(kLarge);
  WriteFile(kFile, message);
  const std::string expected = HashesOf(message);
  HashFile(kFile);  // What is made once is there from here on.
  const auto free_descriptor = [] { return FileDescriptor(::dup(0)).get(); };
  const int descriptor = free_descriptor();
  const size_t threads = CountThreads();
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      for (int j = 0; j < 3; ++j) EXPECT_EQ(HashFile(kFile), expected);
    });
  }
  callers.clear();
  EXPECT_EQ(free_descriptor(), descriptor);
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() == threads; }));
}

TEST_F(FileHashesTest, NeedsNoSecondThread) {
  const std::string message = Message(kLarge);
  WriteFile(kFile, message);
  pthread_attr_t attributes;
  size_t stack_size = 0;
  ::pthread_getattr_default_np(&attributes);
  ::pthread_attr_getstacksize(&attributes, &stack_size);
  // More than there are addresses.
  ::pthread_attr_setstacksize(&attributes, size_t{1} << 48);
  ::pthread_setattr_default_np(&attributes);
  EXPECT_THROW(std::thread([] {}).join(), std::system_error);
  EXPECT_EQ(HashFile(kFile), HashesOf(message));
  ::pthread_attr_setstacksize(&attributes, stack_size);
  ::pthread_setattr_default_np(&attributes);
  ::pthread_attr_destroy(&attributes);
}

}  // namespace
}  // namespace zu::test

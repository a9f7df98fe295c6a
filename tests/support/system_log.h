// The system log's receiving end.
#ifndef ZU_TESTS_SUPPORT_SYSTEM_LOG_H_
#define ZU_TESTS_SUPPORT_SYSTEM_LOG_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/file_descriptor.h"
#include "tests/support/wait_until.h"

namespace zu::test {

// Is /dev/log of the test root while it lives, for this process and its
// children; does nothing outside of a test root. One at a time.
//
// A line is the text behind "program: " of a message with the one priority that
// the library uses (LOG_ERR, "<11>"). A message of any other priority is kept
// whole, so that it differs from what a test expects.
class SystemLog {
 public:
  SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog();

  // False when no such line is there before the deadline. Lines stay.
  [[nodiscard]] bool WaitForLine(
      std::string_view line, std::chrono::milliseconds deadline = kDeadline);

  // Takes all lines that were logged before this call.
  std::vector<std::string> Take();

 private:
  void Receive();
  void Send(std::string_view message);

  FileDescriptor socket_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  int marks_sent_ = 0;
  int marks_received_ = 0;
  std::thread reader_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_SYSTEM_LOG_H_

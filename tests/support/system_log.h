// The system log's receiving end.
#ifndef ZU_TESTS_SUPPORT_SYSTEM_LOG_H_
#define ZU_TESTS_SUPPORT_SYSTEM_LOG_H_

#include <string>
#include <string_view>
#include <vector>

#include "support/file_descriptor.h"

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
  [[nodiscard]] bool WaitForLine(std::string_view line);

  // Takes all lines that were logged before this call.
  std::vector<std::string> Take();

 private:
  struct Sender {
    FileDescriptor socket;
    std::string text;  // Without the lines that are complete.
  };

  void Receive();

  FileDescriptor socket_;
  std::vector<Sender> senders_;
  std::vector<std::string> lines_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_SYSTEM_LOG_H_

// What the kernel says about the calling process.
#ifndef ZU_TESTS_SUPPORT_PROCESS_STATE_H_
#define ZU_TESTS_SUPPORT_PROCESS_STATE_H_

#include <sys/types.h>
#include <sys/wait.h>
#include <cstddef>
#include <filesystem>

namespace zu::test {

// A thread that was joined may still be counted for a moment.
inline size_t CountThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

inline size_t CountDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), {}));
}

// Whether this child, alive or a zombie, is there to be waited for.
inline bool IsOurChild(pid_t child) {
  siginfo_t info;
  return ::waitid(P_PID, static_cast<id_t>(child), &info,
                  WEXITED | WNOHANG | WNOWAIT) == 0;
}

inline bool HasChildren() {
  siginfo_t info;
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_PROCESS_STATE_H_

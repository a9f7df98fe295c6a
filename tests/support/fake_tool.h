// Stand-ins for system tools at their fixed paths.
#ifndef ZU_TESTS_SUPPORT_FAKE_TOOL_H_
#define ZU_TESTS_SUPPORT_FAKE_TOOL_H_

#include <sys/types.h>
#include <filesystem>
#include <string>
#include <string_view>

namespace zu::test {

// Makes the directories that `path` lies in, and the file.
void WriteFile(const std::filesystem::path& path, std::string_view text,
               mode_t mode = 0644);
// All of it; empty when there is no such file.
std::string ReadFile(const std::filesystem::path& path);

// Puts a shell script in the place of `path` while it lives; what was there is
// gone for the rest of the test root. Throws outside of one.
class FakeTool {
 public:
  // `body` is what follows the "#!/bin/sh" line.
  FakeTool(std::filesystem::path path, std::string_view body);
  FakeTool(const FakeTool&) = delete;
  FakeTool& operator=(const FakeTool&) = delete;
  ~FakeTool();

 private:
  const std::filesystem::path path_;
};

// A fake tool that keeps a record of its calls and prints `output`. Calls must
// not overlap.
class RecordingTool {
 public:
  RecordingTool(const std::filesystem::path& path, std::string_view output);

  // The calls so far, oldest first: a bar before each argument, a newline
  // behind each call.
  std::string CommandLines() const;

 private:
  const std::filesystem::path directory_;
  const FakeTool tool_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_FAKE_TOOL_H_

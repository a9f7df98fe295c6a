#include "tests/support/fake_tool.h"

#include <sys/stat.h>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "tests/support/test_root.h"

namespace zu::test {

namespace fs = std::filesystem;

void WriteFile(const fs::path& path, std::string_view text, mode_t mode) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  if (!(file << text << std::flush) || ::chmod(path.c_str(), mode) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

FakeTool::FakeTool(fs::path path, std::string_view body)
    : path_(std::move(path)) {
  if (!InTestRoot()) throw std::runtime_error("fake tools need the test root");
  fs::remove(path_);  // It may be a link.
  WriteFile(path_, "#!/bin/sh\n" + std::string(body) + "\n", 0755);
}

FakeTool::~FakeTool() {
  std::error_code ignored;
  fs::remove(path_, ignored);
}

RecordingTool::RecordingTool(const fs::path& path, std::string_view output)
    : directory_("/tmp/calls_of_" + path.filename().string()),
      tool_(path, "cd '" + directory_.string() +
                      "' && { printf '|%s' \"$@\"; echo; } >>record"
                      " && cat output") {
  fs::remove_all(directory_);
  WriteFile(directory_ / "output", output);
}

std::string RecordingTool::CommandLines() const {
  return ReadFile(directory_ / "record");
}

}  // namespace zu::test

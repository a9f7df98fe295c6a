#include "tests/support/fake_tool.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "tests/support/test_root.h"

namespace zu::test {
namespace {

namespace fs = std::filesystem;

fs::path MakeTemporaryDirectory() {
  std::string pattern = "/tmp/tool.XXXXXX";
  if (!InTestRoot() || ::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("fake tools need the test root");
  }
  return pattern;
}

}  // namespace

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
  const fs::path directory = MakeTemporaryDirectory();
  const std::string script = "#!/bin/sh\n" + std::string(body) + "\n";
  if (!fs::exists(path_)) {
    WriteFile(path_, script, 0755);
    return;
  }
  script_ = directory / "script";
  WriteFile(script_, script, 0755);
  if (::mount(script_.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), path_);
  }
}

FakeTool::~FakeTool() {
  std::error_code ignored;
  if (script_.empty()) {
    fs::remove(path_, ignored);
  } else {
    ::umount2(path_.c_str(), MNT_DETACH);
  }
}

// A record is the number of arguments and the arguments, each ended by a NUL.
RecordingTool::RecordingTool(const fs::path& path, std::string_view output)
    : directory_(MakeTemporaryDirectory()),
      tool_(path, "cd '" + directory_.string() +
                      "' && printf '%s\\0' \"$#\" \"$@\" >>record"
                      " && cat output") {
  WriteFile(directory_ / "output", output);
}

std::vector<RecordingTool::Call> RecordingTool::Calls() const {
  const std::string record = ReadFile(directory_ / "record");
  std::string_view rest = record;
  const auto next = [&rest] {
    const size_t end = rest.find('\0');
    std::string text(rest.substr(0, end));
    rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    return text;
  };
  std::vector<Call> calls;
  while (!rest.empty()) {
    Call& call = calls.emplace_back();
    for (int left = std::stoi(next()); left > 0; --left) {
      call.arguments.push_back(next());
    }
  }
  return calls;
}

std::string RecordingTool::CommandLines() const {
  std::string lines;
  for (const Call& call : Calls()) {
    for (const std::string& argument : call.arguments) lines += "|" + argument;
    lines += '\n';
  }
  return lines;
}

}  // namespace zu::test

// zuctl request: one request and its reply.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "request_text.h"
#include "zuctl.h"

namespace zu::ctl {
namespace {

constexpr int32_t kDefaultTimeoutMs = 30000;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Reads to the end; false with errno when that fails.
bool ReadAll(std::FILE* file, std::string& text) {
  char piece[65536];
  while (const size_t count = std::fread(piece, 1, sizeof(piece), file)) {
    text.append(piece, count);
  }
  return std::ferror(file) == 0;
}

// What the argument stands for: itself, standard input or a file.
bool ReadMembers(std::string_view argument, std::string& text) {
  if (argument == "-") return ReadAll(stdin, text);
  if (!argument.starts_with('@')) {
    text = argument;
    return true;
  }
  const std::string path(argument.substr(1));
  const std::unique_ptr<std::FILE, CloseFile> file(
      std::fopen(path.c_str(), "rbe"));
  return file != nullptr && ReadAll(file.get(), text);
}

}  // namespace

Exit RunRequest(const Options& given) {
  Options options = given;
  if (!options.has_timeout) options.timeout_ms = kDefaultTimeoutMs;
  std::string members = "{}";
  if (options.arguments.size() == 2) {
    members.clear();
    if (!ReadMembers(options.arguments[1], members)) {
      return Fail(Exit::kFailed, options.arguments[1], std::strerror(errno));
    }
  }
  std::string why;
  const std::optional<std::string> text =
      MakeRequestText(options.arguments[0], members, why);
  if (!text) return Fail(Exit::kUsage, "request", why);

  Client client;
  const Exit connected = Connect(options, client);
  if (connected != Exit::kDone) return connected;
  const ClientText reply = client.Request(*text, options.timeout_ms);
  if (!reply) return Fail(options.arguments[0], reply.status());
  return PrintLine(reply.text());
}

}  // namespace zu::ctl

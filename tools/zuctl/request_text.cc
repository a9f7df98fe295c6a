#include "request_text.h"

#include "platform/json.h"
#include "text.h"

namespace zu::ctl {
namespace {

constexpr char kSpace[] = " \t\r\n";
constexpr char kCommand[] = "CMD_";

bool Parse(platform::JsonReader& reader, std::string_view text) {
  return reader.Parse(text.data(), text.size(), text.size());
}

}  // namespace

std::optional<std::string> MakeRequestText(std::string_view command,
                                           std::string_view members,
                                           std::string& why) {
  platform::JsonReader reader;
  // The parser vouches for all of the text, so its first brace is the object's.
  const size_t brace = members.find_first_not_of(kSpace);
  if (!Parse(reader, members) || members[brace] != '{') {
    why = "not one JSON object";
    return std::nullopt;
  }
  if (reader.StringMember(kCommand)) {
    why = "holds a \"CMD_\" of its own";
    return std::nullopt;
  }
  members.remove_prefix(brace + 1);
  members.remove_prefix(members.find_first_not_of(kSpace));
  std::string text = "{\"" + std::string(kCommand) + "\":" + QuoteJson(command);
  if (members.front() != '}') text.push_back(',');
  text.append(members);
  // The server's own reader must find the command.
  if (!Parse(reader, text) || reader.StringMember(kCommand) != command) {
    why = "the command is not UTF-8, or \"CMD_\" is given twice";
    return std::nullopt;
  }
  return text;
}

}  // namespace zu::ctl

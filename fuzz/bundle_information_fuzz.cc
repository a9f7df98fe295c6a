// An information dictionary in either form, told in JSON.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/json.h"
#include "platform/linux/json_writer.h"
#include "platform/linux/property_list.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void Convert(std::span<const std::byte> input) {
  const std::optional<PropertyList> list = PropertyList::Parse(input);
  if (!list) return;
  JsonObjectWriter writer;
  if (!writer.Add("list", list->root())) return;
  const std::string json = std::move(writer).Finish();
  Require(IsValidUtf8(json));
  JsonReader reader;
  Require(reader.Parse(json.data(), json.size(), json.size()));
  // Escapes are read back as what they stand for.
  if (const auto text = list->root().AsString()) {
    Require(reader.StringMember("list") == *text);
  }
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Convert(std::as_bytes(std::span(data, size)));
  return 0;
}

// The property list that seals a bundle's resources, in either form.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/linux/property_list.h"
#include "platform/linux/signing/bundle/resource_seal.h"
#include "support/utf8.h"

namespace zu::platform {
namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

// Visits all values, as far as the number of visits stays small, and holds the
// list to what it promises.
void Visit(PropertyList::Value value, size_t depth, size_t& visits) {
  Require(depth <= PropertyList::kMaxDepth);
  if (++visits > 10000) return;
  if (const auto text = value.AsString()) Require(IsValidUtf8(*text));
  if (const auto data = value.AsData()) {
    Require(data->size() <= PropertyList::kMaxSize);
  }
  for (size_t i = 0; i < value.size(); ++i) {
    if (value.type() == PropertyList::Type::kArray) {
      Visit(value.ItemAt(i), depth + 1, visits);
    } else {
      Require(value.Find(value.KeyAt(i)).has_value());
      Visit(value.EntryAt(i), depth + 1, visits);
    }
    if (visits > 10000) return;
  }
}

void Parse(std::span<const std::byte> input) {
  const std::optional<PropertyList> list = PropertyList::Parse(input);
  if (list) {
    size_t visits = 0;
    Visit(list->root(), 1, visits);
  }
  const auto seal = ResourceSeal::Parse(input);
  Require(list.has_value() || seal == nullptr);
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Parse(std::as_bytes(std::span(data, size)));
  return 0;
}

// Text of the requirement language, parsed and evaluated.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/linux/signing/requirement.h"

namespace zu::platform {
namespace {

void Check(const uint8_t* data, size_t size) {
  static const SignatureFacts facts = [] {
    SignatureFacts made;
    made.certificates.resize(3);
    made.certificates[0].fields = {{"subject.CN", "leaf"},
                                   {"subject.OU", std::nullopt},
                                   {"field.1.2.3", "text"}};
    made.certificates[2].fields = {{"subject.CN", "root"}};
    made.certificates[2].sha1.resize(20);
    made.cdhashes.emplace_back(20);
    made.identifier = "id";
    made.anchor_trusted = true;
    return made;
  }();
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto rule = ParseRequirement(text);
  if (!rule) return;
  // Evaluates the same way when negated.
  const auto negated = ParseRequirement("!(" + text + ")");
  if (negated && Satisfies(facts, *rule) == Satisfies(facts, *negated)) {
    std::abort();
  }
  Satisfies({}, *rule);
}

}  // namespace
}  // namespace zu::platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zu::platform::Check(data, size);
  return 0;
}

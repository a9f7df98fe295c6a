// The language in which a rule for signed code is written, as far as it is
// supported:
//
//   rule     := and_rule { "or" and_rule }
//   and_rule := factor { "and" factor }
//   factor   := "!" factor | "(" rule ")" | test
//   test     := "anchor" "trusted"
//             | "identifier" string
//             | "certificate" position "[" field "]" "=" string
//   position := "leaf" | "root" | number    0 is the leaf, -1 the root,
//                                           -2 what the root issued, ...
//   field    := "subject.CN" | "subject.OU" | "subject.O"
//   string   := '"' { character | "\" character } '"'
//
// White space is free between the words. Pure: nothing here reads files or
// certificates.
#ifndef ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_
#define ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zu::platform {

enum class SubjectField { kCommonName, kOrganizationalUnit, kOrganization };
inline constexpr size_t kSubjectFieldCount = 3;

// What a certificate says about its subject, in UTF-8. Absent: the name has no
// such attribute, or has it more than once.
struct CertificateFacts {
  std::array<std::optional<std::string>, kSubjectFieldCount> subject;
};

// What is known about signed code. A rule looks at nothing else.
struct SignatureFacts {
  std::vector<CertificateFacts> certificates;  // Leaf first, root last.
  std::optional<std::string> identifier;
  bool anchor_trusted = false;
};

// A rule as a tree.
struct Expression {
  enum class Kind {
    kAnchorTrusted,
    kIdentifier,   // `value`
    kCertificate,  // `position`, `field`, `value`
    kAnd,          // two or more operands, as kOr
    kOr,
    kNot,  // one operand
  };
  Kind kind = Kind::kAnchorTrusted;
  int32_t position = 0;
  SubjectField field = SubjectField::kCommonName;
  std::string value = {};
  std::vector<Expression> operands = {};
};

// How deep "!" and parentheses may nest.
inline constexpr int kMaxExpressionDepth = 64;

// Absent when the text does not follow the language or nests too deep.
std::optional<Expression> ParseRequirement(std::string_view text);

// Values are equal when all their bytes are, embedded NULs included. A value
// that is not there, in a certificate or by position, equals nothing.
bool Satisfies(const SignatureFacts& facts, const Expression& expression);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_

// The language in which a rule for signed code is written, as far as it is
// supported:
//
//   rule     := and_rule { "or" and_rule }
//   and_rule := factor { "and" factor }
//   factor   := "!" factor | "(" rule ")" | test
//   test     := "always" | "true" | "never" | "false"
//             | "identifier" [ "=" ] string
//             | "cdhash" hash                 of any directory of the code
//             | "anchor" "apple"              Apple's own software
//             | "anchor" "apple" "generic"    a chain to a root of Apple's
//             | "anchor" "trusted"            a chain to a trust anchor
//             | certificate "trusted"         is itself that anchor
//             | certificate "=" hash          SHA-1 of the certificate
//             | certificate "[" field "]" match
//   certificate := "anchor" | ( "certificate" | "cert" ) position
//   position := "leaf" | "root" | "anchor" | [ "-" ] number
//               0 is the leaf, -1 the root (or anchor), -2 what it issued, ...
//   field    := "subject.C" and so on (kSubjectAttributes)
//             | "field." extension's object identifier, in dotted numbers
//   match    := [ "exists" ] | "=" [ "*" ] string [ "*" ]
//               A star stands for any text before, or behind, the string's.
//   string   := '"' { character | "\" character } '"' | word
//   word     := letters, digits and periods that are no keyword
//   hash     := 'H"' 40 hexadecimal digits '"'
//
// White space is free between the words, as are comments: from "/*" to "*/",
// and from "//" or "#" to the line's end. Pure: nothing here reads files or
// certificates.
#ifndef ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_
#define ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zu::platform {

// The attributes of a certificate's subject that a rule may ask for.
struct SubjectAttribute {
  std::string_view field;  // As the language calls it.
  std::string_view oid;
};
inline constexpr SubjectAttribute kSubjectAttributes[] = {
    {"subject.C", "2.5.4.6"},
    {"subject.CN", "2.5.4.3"},
    {"subject.D", "2.5.4.13"},
    {"subject.L", "2.5.4.7"},
    {"subject.O", "2.5.4.10"},
    {"subject.OU", "2.5.4.11"},
    {"subject.ST", "2.5.4.8"},
    {"subject.STREET", "2.5.4.9"},
    {"subject.UID", "0.9.2342.19200300.100.1.1"},
    {"subject.emailAddress", "1.2.840.113549.1.9.1"},
};

struct CertificateFacts {
  // What the certificate has, under the names that rules use: attributes of
  // the subject in UTF-8, and extensions. Without a value: it has that several
  // times, or as text that cannot be read.
  std::map<std::string, std::optional<std::string>, std::less<>> fields;
  std::vector<std::byte> sha1;  // Digests of the whole certificate.
  std::vector<std::byte> sha256;
};

// What is known about signed code. A rule looks at nothing else.
struct SignatureFacts {
  // Leaf first, root last: a chain in which each has signed the one before.
  std::vector<CertificateFacts> certificates;
  std::optional<std::string> identifier;
  // Of all directories of the code, 20 bytes each; none where the format has
  // no directories.
  std::vector<std::vector<std::byte>> cdhashes;
  // The last certificate is one of the trust anchors.
  bool anchor_trusted = false;
};

// What a field's value must be like.
struct ValuePattern {
  bool any_before = false;
  std::string text = {};
  bool any_behind = false;
};

// A rule as a tree.
struct Expression {
  enum class Kind {
    kConstant,    // `constant`
    kIdentifier,  // `text`
    kCodeDigest,  // `digest`
    kAnchorApple,
    kAnchorAppleGeneric,
    kAnchorTrusted,
    kCertificateTrusted,  // `position`
    kCertificateDigest,   // `position`, `digest`
    kCertificateField,    // `position`, `text` is the field, which must be
                          // there, and like `pattern` if there is one
    kAnd,                 // two or more operands, as kOr
    kOr,
    kNot,  // one operand
  };
  Kind kind = Kind::kConstant;
  bool constant = false;
  int32_t position = 0;
  std::string text = {};
  std::vector<std::byte> digest = {};
  std::optional<ValuePattern> pattern = std::nullopt;
  std::vector<Expression> operands = {};
};

// How deep "!" and parentheses may nest, and how long a rule's text may be.
inline constexpr int kMaxExpressionDepth = 64;
inline constexpr size_t kMaxRequirementSize = 64 * 1024;

// Absent when the text does not follow the language, nests too deep or is too
// long.
std::optional<Expression> ParseRequirement(std::string_view text);

// Apple's roots are known by their SHA-256, whether they are trust anchors
// here or not.
bool IsRootOfApple(const CertificateFacts& certificate);

// Values are equal when all their bytes are, embedded NULs included. A value
// that is not there, in a certificate or by position, equals nothing.
//
// Apple's own software is what its "Apple Code Signing Certification Authority"
// vouches for, directly below one of its roots.
bool Satisfies(const SignatureFacts& facts, const Expression& expression);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_LINUX_SIGNING_REQUIREMENT_H_

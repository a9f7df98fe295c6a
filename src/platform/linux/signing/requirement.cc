#include "platform/linux/signing/requirement.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>
#include <utility>

namespace zu::platform {
namespace {

using Kind = Expression::Kind;

constexpr size_t kDigestSize = 20;
constexpr uint32_t kMaxPosition = std::numeric_limits<int32_t>::max();

// The character classes are ASCII's, whatever the host's locale.
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) ||
         c == '.';
}

// Words that are strings only between quotes.
bool IsKeyword(std::string_view word) {
  static constexpr std::string_view kKeywords[] = {
      "always",      "anchor", "and",   "apple",   "cdhash",     "cert",
      "certificate", "exists", "false", "generic", "identifier", "leaf",
      "never",       "or",     "root",  "trusted", "true"};
  return std::find(std::begin(kKeywords), std::end(kKeywords), word) !=
         std::end(kKeywords);
}

bool IsField(std::string_view name) {
  if (std::any_of(std::begin(kSubjectAttributes), std::end(kSubjectAttributes),
                  [&](const auto& row) { return row.field == name; })) {
    return true;
  }
  constexpr std::string_view kPrefix = "field.";
  if (!name.starts_with(kPrefix)) return false;
  name.remove_prefix(kPrefix.size());
  return !name.empty() && name.front() != '.' && name.back() != '.' &&
         name.find("..") == name.npos &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return IsDigit(c) || c == '.'; });
}

std::optional<std::vector<std::byte>> ParseHex(std::string_view digits) {
  std::vector<std::byte> bytes;
  if (digits.size() % 2 != 0) return std::nullopt;
  for (; !digits.empty(); digits.remove_prefix(2)) {
    uint8_t byte = 0;
    const char* const end = digits.data() + 2;
    const auto [stop, error] = std::from_chars(digits.data(), end, byte, 16);
    if (error != std::errc() || stop != end) return std::nullopt;
    bytes.push_back(std::byte{byte});
  }
  return bytes;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text) {}

  std::optional<Expression> Parse() {
    std::optional<Expression> rule = ParseRule(0);
    SkipSpace();
    if (!rest_.empty()) return std::nullopt;
    return rule;
  }

 private:
  std::optional<Expression> ParseRule(int depth) {
    return ParseSequence(Kind::kOr, "or", [&] {
      return ParseSequence(Kind::kAnd, "and",
                           [&] { return ParseFactor(depth); });
    });
  }

  // Operands with `word` between them. One alone stands for itself.
  template <typename ParseOperand>
  std::optional<Expression> ParseSequence(Kind kind, std::string_view word,
                                          ParseOperand parse_operand) {
    std::optional<Expression> first = parse_operand();
    if (!first || PeekWord() != word) return first;
    Expression sequence{.kind = kind};
    sequence.operands.push_back(*std::move(first));
    while (TakeWord(word)) {
      std::optional<Expression> next = parse_operand();
      if (!next) return std::nullopt;
      sequence.operands.push_back(*std::move(next));
    }
    return sequence;
  }

  std::optional<Expression> ParseFactor(int depth) {
    if (depth > kMaxExpressionDepth) return std::nullopt;
    if (Take('!')) {
      std::optional<Expression> operand = ParseFactor(depth + 1);
      if (!operand) return std::nullopt;
      Expression negation{.kind = Kind::kNot};
      negation.operands.push_back(*std::move(operand));
      return negation;
    }
    if (Take('(')) {
      std::optional<Expression> rule = ParseRule(depth + 1);
      if (!rule || !Take(')')) return std::nullopt;
      return rule;
    }
    Expression test;
    if (!ParseTest(test)) return std::nullopt;
    return test;
  }

  bool ParseTest(Expression& test) {
    if (TakeWord("always") || TakeWord("true")) {
      test.constant = true;
      return true;
    }
    if (TakeWord("never") || TakeWord("false")) return true;
    if (TakeWord("identifier")) {
      test.kind = Kind::kIdentifier;
      Take('=');
      return TakeString(test.text);
    }
    if (TakeWord("cdhash")) {
      test.kind = Kind::kCodeDigest;
      return TakeDigest(test.digest);
    }
    if (TakeWord("anchor")) {
      test.position = -1;
      if (TakeWord("apple")) {
        test.kind = TakeWord("generic") ? Kind::kAnchorAppleGeneric
                                        : Kind::kAnchorApple;
        return true;
      }
      if (TakeWord("trusted")) {
        test.kind = Kind::kAnchorTrusted;
        return true;
      }
      return ParseCertificateTest(test);
    }
    if (TakeWord("certificate") || TakeWord("cert")) {
      return TakePosition(test.position) && ParseCertificateTest(test);
    }
    return false;
  }

  // What is asked of the certificate at `test.position`.
  bool ParseCertificateTest(Expression& test) {
    if (TakeWord("trusted")) {
      test.kind = Kind::kCertificateTrusted;
      return true;
    }
    if (Take('=')) {
      test.kind = Kind::kCertificateDigest;
      return TakeDigest(test.digest);
    }
    test.kind = Kind::kCertificateField;
    if (!Take('[')) return false;
    test.text = PeekWord();
    if (!IsField(test.text) || !TakeWord(test.text) || !Take(']')) return false;
    if (TakeWord("exists") || !Take('=')) return true;
    ValuePattern& pattern = test.pattern.emplace();
    pattern.any_before = Take('*');
    if (!TakeString(pattern.text)) return false;
    pattern.any_behind = Take('*');
    return true;
  }

  bool TakePosition(int32_t& position) {
    if (TakeWord("leaf")) {
      position = 0;
      return true;
    }
    if (TakeWord("root") || TakeWord("anchor")) {
      position = -1;
      return true;
    }
    const bool negative = Take('-');
    const std::string_view word = PeekWord();
    uint32_t number = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stop != end || number > kMaxPosition)
      return false;
    position = static_cast<int32_t>(number);
    if (negative) position = -position;
    return TakeWord(word);
  }

  bool TakeDigest(std::vector<std::byte>& digest) {
    // The quote follows its letter at once.
    if (!TakeWord("H") || !rest_.starts_with('"')) return false;
    const size_t end = rest_.find('"', 1);
    if (end == rest_.npos) return false;
    std::optional<std::vector<std::byte>> bytes =
        ParseHex(rest_.substr(1, end - 1));
    if (!bytes || bytes->size() != kDigestSize) return false;
    digest = *std::move(bytes);
    rest_.remove_prefix(end + 1);
    return true;
  }

  bool TakeString(std::string& value) {
    if (!Take('"')) {
      value = PeekWord();
      return !value.empty() && !IsKeyword(value) && TakeWord(value);
    }
    for (size_t i = 0; i < rest_.size(); ++i) {
      if (rest_[i] == '"') {
        rest_.remove_prefix(i + 1);
        return true;
      }
      if (rest_[i] == '\\' && ++i == rest_.size()) return false;
      value.push_back(rest_[i]);
    }
    return false;
  }

  bool Take(char c) {
    SkipSpace();
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view PeekWord() {
    SkipSpace();
    const auto end =
        std::find_if_not(rest_.begin(), rest_.end(), &IsWordCharacter);
    return rest_.substr(0, static_cast<size_t>(end - rest_.begin()));
  }

  bool TakeWord(std::string_view word) {
    if (PeekWord() != word) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  // A comment without its end is left for the caller, who cannot use it.
  void SkipSpace() {
    for (;;) {
      const auto end = std::find_if_not(rest_.begin(), rest_.end(), &IsSpace);
      rest_.remove_prefix(static_cast<size_t>(end - rest_.begin()));
      if (rest_.starts_with('#') || rest_.starts_with("//")) {
        rest_.remove_prefix(std::min(rest_.find('\n'), rest_.size()));
      } else if (rest_.starts_with("/*")) {
        const size_t stop = rest_.find("*/", 2);
        if (stop == rest_.npos) return;
        rest_.remove_prefix(stop + 2);
      } else {
        return;
      }
    }
  }

  std::string_view rest_;
};

// Null when the chain has no such position.
const CertificateFacts* At(const SignatureFacts& facts, int32_t position) {
  const auto count = static_cast<int64_t>(facts.certificates.size());
  const int64_t index = position >= 0 ? position : count + position;
  if (index < 0 || index >= count) return nullptr;
  return &facts.certificates[static_cast<size_t>(index)];
}

bool Matches(const std::string& value, const ValuePattern& pattern) {
  if (pattern.any_before && pattern.any_behind) {
    return value.find(pattern.text) != value.npos;
  }
  if (pattern.any_before) return value.ends_with(pattern.text);
  if (pattern.any_behind) return value.starts_with(pattern.text);
  return value == pattern.text;
}

// The field's value; null when the certificate or the field is not there.
const std::optional<std::string>* FindField(const CertificateFacts* certificate,
                                            std::string_view name) {
  if (certificate == nullptr) return nullptr;
  const auto field = certificate->fields.find(name);
  return field == certificate->fields.end() ? nullptr : &field->second;
}

bool EndsInRootOfApple(const SignatureFacts& facts) {
  const CertificateFacts* const root = At(facts, -1);
  return root != nullptr && IsRootOfApple(*root);
}

bool IsAppleSoftware(const SignatureFacts& facts) {
  const auto* const issuer = FindField(At(facts, 1), "subject.CN");
  return EndsInRootOfApple(facts) && facts.certificates.size() == 3 &&
         issuer != nullptr &&
         *issuer == "Apple Code Signing Certification Authority";
}

}  // namespace

std::optional<Expression> ParseRequirement(std::string_view text) {
  if (text.size() > kMaxRequirementSize) return std::nullopt;
  return Parser(text).Parse();
}

bool IsRootOfApple(const CertificateFacts& certificate) {
  // SHA-256 of "Apple Root CA", "Apple Root CA - G2" and "Apple Root CA - G3".
  static constexpr std::string_view kRoots[] = {
      "b0b1730ecbc7ff4505142c49f1295e6eda6bcaed7e2c68c5be91b5a11001f024",
      "c2b9b042dd57830e7d117dac55ac8ae19407d38e41d88f3215bc3a890444a050",
      "63343abfb89a6a03ebb57e9b3f5fa7be7c4f5c756f3017b3a8c488c3653e9179"};
  return std::any_of(std::begin(kRoots), std::end(kRoots), [&](auto digits) {
    return ParseHex(digits) == certificate.sha256;
  });
}

bool Satisfies(const SignatureFacts& facts, const Expression& expression) {
  const auto satisfied = [&facts](const Expression& operand) {
    return Satisfies(facts, operand);
  };
  const std::vector<Expression>& operands = expression.operands;
  const CertificateFacts* const certificate = At(facts, expression.position);
  switch (expression.kind) {
    case Kind::kConstant:
      return expression.constant;
    case Kind::kIdentifier:
      return facts.identifier == expression.text;
    case Kind::kCodeDigest:
      return std::find(facts.cdhashes.begin(), facts.cdhashes.end(),
                       expression.digest) != facts.cdhashes.end();
    case Kind::kAnchorApple:
      return IsAppleSoftware(facts);
    case Kind::kAnchorAppleGeneric:
      return EndsInRootOfApple(facts);
    case Kind::kAnchorTrusted:
      return facts.anchor_trusted;
    case Kind::kCertificateTrusted:
      return facts.anchor_trusted && certificate != nullptr &&
             certificate == &facts.certificates.back();
    case Kind::kCertificateDigest:
      return certificate != nullptr && certificate->sha1 == expression.digest;
    case Kind::kCertificateField: {
      const auto* const value = FindField(certificate, expression.text);
      return value != nullptr &&
             (!expression.pattern ||
              (*value && Matches(**value, *expression.pattern)));
    }
    case Kind::kAnd:
      return std::all_of(operands.begin(), operands.end(), satisfied);
    case Kind::kOr:
      return std::any_of(operands.begin(), operands.end(), satisfied);
    case Kind::kNot:
      return !satisfied(operands.front());
  }
  return false;
}

}  // namespace zu::platform

#include "platform/linux/signing/requirement.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace zu::platform {
namespace {

using Kind = Expression::Kind;

// The character classes are ASCII's, whatever the host's locale.
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool IsWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || c == '.' || c == '-';
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
    return ParseTest();
  }

  std::optional<Expression> ParseTest() {
    Expression test;
    if (TakeWord("anchor")) {
      test.kind = Kind::kAnchorTrusted;
      if (!TakeWord("trusted")) return std::nullopt;
    } else if (TakeWord("identifier")) {
      test.kind = Kind::kIdentifier;
      if (!TakeString(test.value)) return std::nullopt;
    } else if (TakeWord("certificate")) {
      test.kind = Kind::kCertificate;
      if (!TakePosition(test.position) || !Take('[') ||
          !TakeField(test.field) || !Take(']') || !Take('=') ||
          !TakeString(test.value)) {
        return std::nullopt;
      }
    } else {
      return std::nullopt;
    }
    return test;
  }

  bool TakePosition(int32_t& position) {
    const std::string_view word = PeekWord();
    if (word == "leaf") {
      position = 0;
    } else if (word == "root") {
      position = -1;
    } else {
      const char* const end = word.data() + word.size();
      const auto [stop, error] = std::from_chars(word.data(), end, position);
      if (error != std::errc() || stop != end) return false;
    }
    return TakeWord(word);
  }

  bool TakeField(SubjectField& field) {
    static constexpr std::pair<std::string_view, SubjectField> kFields[] = {
        {"subject.CN", SubjectField::kCommonName},
        {"subject.OU", SubjectField::kOrganizationalUnit},
        {"subject.O", SubjectField::kOrganization},
    };
    for (const auto& [name, value] : kFields) {
      if (TakeWord(name)) {
        field = value;
        return true;
      }
    }
    return false;
  }

  bool TakeString(std::string& value) {
    if (!Take('"')) return false;
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

  void SkipSpace() {
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), &IsSpace);
    rest_.remove_prefix(static_cast<size_t>(end - rest_.begin()));
  }

  std::string_view rest_;
};

const std::optional<std::string>* FindField(const SignatureFacts& facts,
                                            const Expression& test) {
  const auto count = static_cast<int64_t>(facts.certificates.size());
  const int64_t index =
      test.position >= 0 ? test.position : count + test.position;
  if (index < 0 || index >= count) return nullptr;
  return &facts.certificates[static_cast<size_t>(index)]
              .subject[static_cast<size_t>(test.field)];
}

}  // namespace

std::optional<Expression> ParseRequirement(std::string_view text) {
  return Parser(text).Parse();
}

bool Satisfies(const SignatureFacts& facts, const Expression& expression) {
  const auto satisfied = [&facts](const Expression& operand) {
    return Satisfies(facts, operand);
  };
  const std::vector<Expression>& operands = expression.operands;
  switch (expression.kind) {
    case Kind::kAnchorTrusted:
      return facts.anchor_trusted;
    case Kind::kIdentifier:
      return facts.identifier == expression.value;
    case Kind::kCertificate: {
      const auto* const value = FindField(facts, expression);
      return value != nullptr && *value == expression.value;
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

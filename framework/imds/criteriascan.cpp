#include "framework/imds/criteriascan.h"

#include "framework/imds/criteriatree.h"

namespace tarn {
namespace {

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

class CriteriaScanner {
 public:
  explicit CriteriaScanner(std::string_view input) : input_(input) {}

  std::vector<CriteriaToken> Run() {
    while (position_ < input_.size()) {
      const char c = input_[position_];
      if (c == ' ' || c == '\t') {
        ++position_;
      } else if (IsLetter(c)) {
        ScanWord();
      } else if (IsDigit(c)) {
        ScanNumber();
      } else if (c == '\'') {
        ScanQuoted();
      } else {
        ScanPunctuation(c);
      }
    }
    return std::move(tokens_);
  }

 private:
  char PeekAt(std::size_t offset) const {
    return position_ + offset < input_.size() ? input_[position_ + offset] : '\0';
  }

  void Emit(CriteriaTokenKind kind, std::size_t length, int op = 0) {
    tokens_.push_back({kind, std::string(input_.substr(position_, length)), op});
    position_ += length;
  }

  void ScanWord() {
    std::size_t length = 1;
    while (IsLetter(PeekAt(length)) || IsDigit(PeekAt(length)) || PeekAt(length) == '_') {
      ++length;
    }
    const std::string_view word = input_.substr(position_, length);
    if (word == "and") {
      Emit(CriteriaTokenKind::kAnd, length);
    } else if (word == "or") {
      Emit(CriteriaTokenKind::kOr, length);
    } else {
      Emit(CriteriaTokenKind::kName, length);
    }
  }

  void ScanNumber() {
    std::size_t length = 1;
    while (IsDigit(PeekAt(length))) {
      ++length;
    }
    if (PeekAt(length) == '.' && IsDigit(PeekAt(length + 1))) {
      length += 2;
      while (IsDigit(PeekAt(length))) {
        ++length;
      }
    }
    Emit(CriteriaTokenKind::kValue, length);
  }

  void ScanQuoted() {
    const std::size_t close = input_.find('\'', position_ + 1);
    if (close == std::string_view::npos) {
      Emit(CriteriaTokenKind::kInvalid, 1);
      return;
    }
    Emit(CriteriaTokenKind::kValue, close - position_ + 1);
  }

  void ScanPunctuation(char c) {
    const bool equalsFollows = PeekAt(1) == '=';
    switch (c) {
      case '<':
        Emit(CriteriaTokenKind::kRelational, equalsFollows ? 2 : 1,
             equalsFollows ? kOpLessOrEqual : kOpLess);
        return;
      case '>':
        Emit(CriteriaTokenKind::kRelational, equalsFollows ? 2 : 1,
             equalsFollows ? kOpGreaterOrEqual : kOpGreater);
        return;
      case '=':
        Emit(CriteriaTokenKind::kRelational, 1, kOpEqual);
        return;
      case '!':
        if (equalsFollows) {
          Emit(CriteriaTokenKind::kRelational, 2, kOpNotEqual);
          return;
        }
        break;
      case '(':
        Emit(CriteriaTokenKind::kOpenParen, 1);
        return;
      case ')':
        Emit(CriteriaTokenKind::kCloseParen, 1);
        return;
      case '\n':
        Emit(CriteriaTokenKind::kLineFeed, 1);
        return;
      default:
        break;
    }
    Emit(CriteriaTokenKind::kInvalid, 1);
  }

  std::string_view input_;
  std::size_t position_ = 0;
  std::vector<CriteriaToken> tokens_;
};

}  // namespace

std::vector<CriteriaToken> ScanCriteria(std::string_view input) {
  return CriteriaScanner(input).Run();
}

}  // namespace tarn

#include "framework/imds/criteriaparser.h"

#include <algorithm>
#include <string>
#include <vector>

#include "framework/imds/criteriascan.h"

namespace tarn {
namespace {

// Stack entries an LALR parser of this grammar holds: its start state and the
// state after "input", one per open parenthesis, two per criterion waiting for
// the right side of "and"/"or", and three while a comparison is shifted.
constexpr int kBaseStackEntries = 2;
constexpr int kParenEntries = 1;
constexpr int kPendingEntries = 2;
constexpr int kComparisonEntries = 3;

class CriteriaGrammar {
 public:
  explicit CriteriaGrammar(std::vector<CriteriaToken> tokens) : tokens_(std::move(tokens)) {}

  // The tree of the last criterion of the input, or null on a syntax error.
  CriteriaTree ParseInput() {
    CriteriaTree last;
    do {
      last = ParseCriterion();
      if (!last || !Accept(CriteriaTokenKind::kLineFeed)) {
        return nullptr;
      }
    } while (position_ < tokens_.size());
    return last;
  }

 private:
  // A criterion waiting for the right side of "and"/"or", or an open parenthesis.
  struct Frame {
    bool isParen;
    std::uint8_t op;
    CriteriaTree left;
  };

  bool At(CriteriaTokenKind kind) const {
    return position_ < tokens_.size() && tokens_[position_].kind == kind;
  }

  bool Accept(CriteriaTokenKind kind) {
    if (!At(kind)) {
      return false;
    }
    ++position_;
    return true;
  }

  // NAME relop VALUE or VALUE relop NAME; both give the leaf (name, op, literal).
  CriteriaTree ParseComparison() {
    if (position_ + 3 > tokens_.size()) {
      return nullptr;
    }
    const CriteriaToken& first = tokens_[position_];
    const CriteriaToken& relation = tokens_[position_ + 1];
    const CriteriaToken& second = tokens_[position_ + 2];
    if (relation.kind != CriteriaTokenKind::kRelational) {
      return nullptr;
    }
    const auto op = static_cast<std::uint8_t>(relation.op);
    position_ += 3;
    if (first.kind == CriteriaTokenKind::kName && second.kind == CriteriaTokenKind::kValue) {
      return MakeCriteriaLeaf(first.text, op, second.text);
    }
    if (first.kind == CriteriaTokenKind::kValue && second.kind == CriteriaTokenKind::kName) {
      return MakeCriteriaLeaf(second.text, op, first.text);
    }
    return nullptr;
  }

  bool StackOverflows(int extraEntries) const {
    return kBaseStackEntries + stackEntries_ + extraEntries > kCriteriaMaxStackDepth;
  }

  void Push(Frame frame) {
    stackEntries_ += frame.isParen ? kParenEntries : kPendingEntries;
    frames_.push_back(std::move(frame));
  }

  Frame Pop() {
    Frame frame = std::move(frames_.back());
    frames_.pop_back();
    stackEntries_ -= frame.isParen ? kParenEntries : kPendingEntries;
    return frame;
  }

  // Folds the waiting "and"/"or" frames above the innermost parenthesis into
  // current, innermost first: this makes both operators group to the right.
  CriteriaTree ReducePending(CriteriaTree current) {
    while (!frames_.empty() && !frames_.back().isParen) {
      Frame frame = Pop();
      current = MakeCriteriaNode(frame.op, std::move(frame.left), std::move(current));
    }
    return current;
  }

  // One criterion, iteratively, so that deep nesting cannot exhaust the call stack.
  CriteriaTree ParseCriterion() {
    frames_.clear();
    stackEntries_ = 0;
    while (true) {
      while (At(CriteriaTokenKind::kOpenParen)) {
        if (StackOverflows(kParenEntries)) {
          return nullptr;
        }
        ++position_;
        Push({true, 0, nullptr});
      }
      if (StackOverflows(kComparisonEntries)) {
        return nullptr;
      }
      CriteriaTree current = ParseComparison();
      if (!current) {
        return nullptr;
      }
      while (true) {
        if (At(CriteriaTokenKind::kAnd) || At(CriteriaTokenKind::kOr)) {
          const auto op = At(CriteriaTokenKind::kAnd) ? kOpAnd : kOpOr;
          ++position_;
          Push({false, op, std::move(current)});
          break;
        }
        current = ReducePending(std::move(current));
        if (At(CriteriaTokenKind::kCloseParen)) {
          if (frames_.empty()) {
            return nullptr;
          }
          ++position_;
          Pop();
          continue;
        }
        return frames_.empty() ? std::move(current) : nullptr;
      }
    }
  }

  std::vector<CriteriaToken> tokens_;
  std::size_t position_ = 0;
  std::vector<Frame> frames_;
  int stackEntries_ = 0;
};

bool HasInvalidToken(const std::vector<CriteriaToken>& tokens) {
  return std::any_of(tokens.begin(), tokens.end(), [](const CriteriaToken& token) {
    return token.kind == CriteriaTokenKind::kInvalid;
  });
}

}  // namespace

CriteriaTree CriteriaParser(const char* criteria) {
  if (criteria == nullptr) {
    return nullptr;
  }
  std::vector<CriteriaToken> tokens = ScanCriteria(std::string(criteria) + "\n");
  if (HasInvalidToken(tokens)) {
    return nullptr;
  }
  return CriteriaGrammar(std::move(tokens)).ParseInput();
}

}  // namespace tarn

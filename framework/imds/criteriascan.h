// Lexical scanner of the criteria language.
//
// Tokens, longest match first: "and" and "or" (lower case only); NAME, a
// letter followed by letters, digits and underscores; VALUE, decimal digits
// with an optional "." and digits, or a single-quoted text without quotes
// inside (quotes kept); the operators "<" ">" "<=" ">=" "=" "!="; "(" and
// ")"; a line feed ending one criterion. Blanks and tabs are skipped; any
// other character is invalid.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

enum class CriteriaTokenKind {
  kName,
  kValue,
  kAnd,
  kOr,
  kRelational,  // op holds the operator code 1 to 6
  kOpenParen,
  kCloseParen,
  kLineFeed,
  kInvalid,
};

struct CriteriaToken {
  CriteriaTokenKind kind;
  std::string text;  // the lexeme of a NAME or VALUE
  int op = 0;
};

// The tokens of input in order. An invalid character yields one kInvalid token
// and scanning goes on after it.
std::vector<CriteriaToken> ScanCriteria(std::string_view input);

}  // namespace tarn

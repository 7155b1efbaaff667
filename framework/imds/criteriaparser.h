// Parser of the criteria language (see criteriascan.h for its tokens):
//
//   input     := (criterion LF)*
//   criterion := NAME relop VALUE | VALUE relop NAME
//              | criterion "and" criterion | criterion "or" criterion
//              | "(" criterion ")"
//
// "and" and "or" have equal precedence and group to the right: a=1 and b=2
// or c=3 is a=1 and (b=2 or c=3). VALUE relop NAME builds the same leaf as
// NAME relop VALUE, operator not mirrored: 5 < a selects rows where a < 5.
#pragma once

#include "framework/imds/criteriatree.h"

namespace tarn {

// Depth of the parser stack beyond which a criterion is refused.
inline constexpr int kCriteriaMaxStackDepth = 10000;

// Parses one criterion (a line feed is appended to the text). Returns the
// tree, or null for a null text, a syntax error, nesting beyond the stack
// limit, or any invalid character. With several line-feed separated criteria
// the last one is returned.
CriteriaTree CriteriaParser(const char* criteria);

}  // namespace tarn

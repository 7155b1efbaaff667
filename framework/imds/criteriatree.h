// The criteria tree built by CriteriaParser: leaves compare one column with a
// literal, inner nodes combine two criteria with "and" or "or".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "framework/persistent/datadict.h"
#include "framework/utils/ownedblock.h"

namespace tarn {

struct RowObject;

// Operator codes shared by parser and evaluator.
enum CriteriaOperator : std::uint8_t {
  kOpLess = 1,
  kOpGreater = 2,
  kOpLessOrEqual = 3,
  kOpGreaterOrEqual = 4,
  kOpEqual = 5,
  kOpNotEqual = 6,
  kOpAnd = 7,
  kOpOr = 8,
};

struct CriteriaNode {
  std::string columnName;  // leaf only
  std::string literal;     // leaf only, exactly as written (quotes kept)
  std::uint8_t op = 0;
  // Filled by FillCriteriaTreeWithIndex; 0 until bound or when no column matches.
  std::int32_t columnPosition = 0;
  int columnType = kTypeNotSupported;
  // The literal in the form the bound column is compared in (32-bit integer,
  // float, or the text between the first and last character); set by binding.
  std::optional<OwnedBlock> boundLiteral;
  std::unique_ptr<CriteriaNode> left;   // inner node only
  std::unique_ptr<CriteriaNode> right;  // inner node only
  CriteriaNode* parent = nullptr;       // non-owning

  bool isLeaf() const { return !left && !right; }
};

using CriteriaTree = std::unique_ptr<CriteriaNode>;

// A leaf comparing column name with literal.
CriteriaTree MakeCriteriaLeaf(std::string columnName, std::uint8_t op, std::string literal);
// An inner node (kOpAnd or kOpOr) owning both subtrees.
CriteriaTree MakeCriteriaNode(std::uint8_t op, CriteriaTree left, CriteriaTree right);

// Binds every leaf to the first column whose name equals the leaf's name
// ignoring letter case: its position and type code. A name matching no
// column stays at position 0 and type 0 (and so never matches).
void FillCriteriaTreeWithIndex(const TableDefn& definition, CriteriaNode* tree);

// True when the row satisfies the tree; an empty tree is true. Both subtrees
// are always evaluated. A null slot never matches; comparisons on types other
// than the signed and unsigned integers, FLOAT and CHAR/NCHAR are never true.
bool EvaluateCriteriaTree(const RowObject& row, const CriteriaNode* tree);

// Frees the tree (kept for callers that release explicitly).
void FreeCriteriaTree(CriteriaTree tree);

// Hook for a debug dump of the tree; writes nothing.
void PrintCriteriaTree(const CriteriaNode* tree);

}  // namespace tarn

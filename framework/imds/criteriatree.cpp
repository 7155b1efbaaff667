#include "framework/imds/criteriatree.h"

#include <cmath>
#include <cstdint>
#include <string_view>

#include "framework/imds/dataset.h"
#include "framework/utils/agentutils.h"

namespace tarn {
namespace {

bool IsSignedIntegerType(int type) {
  return type == kTypeTinyInt || type == kTypeSmallInt || type == kTypeInt;
}

bool IsUnsignedIntegerType(int type) {
  return type == kTypeUnsignedTinyInt || type == kTypeUnsignedSmallInt || type == kTypeUnsignedInt;
}

bool IsComparedAsText(int type) { return type == kTypeSqlChar || type == kTypeChar; }

// The literal without its first and last character: the quotes of a quoted
// literal, or the outer characters of an unquoted one.
std::string_view StripOuterCharacters(std::string_view literal) {
  return literal.size() < 2 ? std::string_view() : literal.substr(1, literal.size() - 2);
}

std::optional<OwnedBlock> BindLiteral(const std::string& literal, int type) {
  if (IsSignedIntegerType(type) || IsUnsignedIntegerType(type)) {
    return OwnedBlock::Of(AlphaToInt(literal.c_str()));
  }
  if (type == kTypeFloat) {
    return OwnedBlock::Of(static_cast<float>(AlphaToDouble(literal.c_str())));
  }
  if (IsComparedAsText(type)) {
    const std::string_view text = StripOuterCharacters(literal);
    return OwnedBlock::Copy(text.data(), text.size());
  }
  return std::nullopt;
}

template <typename T>
bool Relate(std::uint8_t op, T value, T literal) {
  switch (op) {
    case kOpLess:
      return value < literal;
    case kOpGreater:
      return value > literal;
    case kOpLessOrEqual:
      return value <= literal;
    case kOpGreaterOrEqual:
      return value >= literal;
    case kOpEqual:
      return value == literal;
    case kOpNotEqual:
      return value != literal;
    default:
      return false;
  }
}

// Byte-wise comparison up to the first difference, the difference taken
// between the two bytes read as signed 8-bit numbers.
int EvaluateRelStringExprDifference(const char* value, const char* literal) {
  std::size_t i = 0;
  while (value[i] == literal[i] && value[i] != '\0') {
    ++i;
  }
  return static_cast<int>(static_cast<std::int8_t>(value[i])) -
         static_cast<int>(static_cast<std::int8_t>(literal[i]));
}

bool EvaluateLeaf(const RowObject& row, const CriteriaNode& leaf) {
  if (!leaf.boundLiteral || leaf.columnPosition < 0 ||
      static_cast<std::size_t>(leaf.columnPosition) >= row.values.size()) {
    return false;
  }
  const auto& slot = row.values[static_cast<std::size_t>(leaf.columnPosition)];
  if (!slot) {
    return false;
  }
  const int type = leaf.columnType;
  if (IsSignedIntegerType(type)) {
    return Relate(leaf.op, slot->Read<std::int32_t>(), leaf.boundLiteral->Read<std::int32_t>());
  }
  if (IsUnsignedIntegerType(type)) {
    return Relate(leaf.op, slot->Read<std::uint32_t>(), leaf.boundLiteral->Read<std::uint32_t>());
  }
  if (type == kTypeFloat) {
    return Relate(leaf.op, slot->Read<float>(), leaf.boundLiteral->Read<float>());
  }
  if (IsComparedAsText(type)) {
    return Relate(leaf.op,
                  EvaluateRelStringExprDifference(slot->c_str(), leaf.boundLiteral->c_str()), 0);
  }
  return false;
}

}  // namespace

CriteriaTree MakeCriteriaLeaf(std::string columnName, std::uint8_t op, std::string literal) {
  auto leaf = std::make_unique<CriteriaNode>();
  leaf->columnName = std::move(columnName);
  leaf->op = op;
  leaf->literal = std::move(literal);
  return leaf;
}

CriteriaTree MakeCriteriaNode(std::uint8_t op, CriteriaTree left, CriteriaTree right) {
  auto node = std::make_unique<CriteriaNode>();
  node->op = op;
  left->parent = node.get();
  right->parent = node.get();
  node->left = std::move(left);
  node->right = std::move(right);
  return node;
}

void FillCriteriaTreeWithIndex(const TableDefn& definition, CriteriaNode* tree) {
  if (tree == nullptr) {
    return;
  }
  FillCriteriaTreeWithIndex(definition, tree->left.get());
  if (tree->isLeaf()) {
    const int position = definition.FindColumnIgnoringCase(tree->columnName);
    if (position >= 0) {
      tree->columnPosition = position;
      tree->columnType = definition.columns()[static_cast<std::size_t>(position)].type;
      tree->boundLiteral = BindLiteral(tree->literal, tree->columnType);
    }
  }
  FillCriteriaTreeWithIndex(definition, tree->right.get());
}

bool EvaluateCriteriaTree(const RowObject& row, const CriteriaNode* tree) {
  if (tree == nullptr) {
    return true;
  }
  if (tree->isLeaf()) {
    return EvaluateLeaf(row, *tree);
  }
  const bool left = EvaluateCriteriaTree(row, tree->left.get());
  const bool right = EvaluateCriteriaTree(row, tree->right.get());
  return tree->op == kOpAnd ? (left && right) : (left || right);
}

void FreeCriteriaTree(CriteriaTree tree) { tree.reset(); }

void PrintCriteriaTree(const CriteriaNode* /*tree*/) {}

}  // namespace tarn

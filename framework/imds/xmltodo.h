// The XML reader of the store: every element below the root of a document is
// one row of the table named by the element, its attributes the column values
// (attribute names compared without regard to letter case).
//
// An element naming no definable table is a grouping element when its name
// contains "List" (its children are still read); any other such element fails
// the import. Elements are read depth first, parent before children, and a
// column without attribute takes its dictionary default, or the value an
// enclosing element carries for the column a foreign key references, or for
// the same primary-key column.
//
// Values of the form table:column:value are references: text columns keep
// what follows the second ":", numeric columns receive an identifier that is
// the same for the same reference text throughout one import (from the
// referenced column's generator; the value as written when no generator
// owns the column). FLOAT values are stored as 4-byte floats, like every other
// FLOAT value of the store.
//
// Documents are parsed without entity substitution or network access; a
// document whose DOCTYPE declares entities or names an external DTD is
// treated as one that does not parse.
#pragma once

#include <cstddef>

namespace tarn {

// Loads the rows of the document in filePath. Returns 1 when every element
// was processed, else 0; rows added before a failure stay in their tables.
int CreateDOFromXMLFile(const char* filePath);

// As CreateDOFromXMLFile for the length bytes of buffer.
int CreateDOFromXMLBuffer(const char* buffer, std::size_t length);

}  // namespace tarn

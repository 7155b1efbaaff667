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
#include <string>
#include <vector>

namespace tarn {

// Loads the rows of the document in filePath. Returns 1 when every element
// was processed, else 0; rows added before a failure stay in their tables.
int CreateDOFromXMLFile(const char* filePath);

// As CreateDOFromXMLFile for the length bytes of buffer.
int CreateDOFromXMLBuffer(const char* buffer, std::size_t length);

// What a document from the network may be and do.
struct UntrustedXmlRules {
  // Longest document accepted, in bytes.
  std::size_t maxBytes = 1024 * 1024;
  // Most attributes one element may carry.
  std::size_t maxAttributesPerElement = 256;
  // The only tables the document may add rows to (names compared without letter case).
  // Any other element must be a grouping element: a name containing "List" that names no
  // table of the data dictionary.
  std::vector<std::string> rowTables;
  // When true, rows of other tables the data dictionary defines are skipped (one log line per
  // table) instead of failing the import.
  bool skipOtherKnownTables = false;
  // Most namespace declarations the whole document may hold.
  std::size_t maxNamespaceDeclarations = 16;
};

// As CreateDOFromXMLBuffer for a document from the network, checked against the rules: a
// document that is too long, not UTF-8, has a document type declaration, or may hold too many
// attributes on one element or too many namespace declarations (see CountXmlMarkup) is
// refused before it is parsed, and is read as UTF-8 whatever it declares; an element that
// is neither a row of an allowed table, a grouping element nor (when the rules say so) a row
// of another known table fails the import (with the
// rows added before it left in place, as for any failed import). 1 or 0 as the other
// readers.
int CreateDOFromUntrustedXMLBuffer(const char* buffer, std::size_t length,
                                   const UntrustedXmlRules& rules);

}  // namespace tarn

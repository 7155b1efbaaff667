// The query parameters of the pages: searching and sorting the computer list, and
// filtering and paging a class on a computer's page; and the links that carry them.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/refserver/inventory.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

using QueryParameters = std::multimap<std::string, std::string>;
using QueryList = std::vector<std::pair<std::string, std::string>>;

// The first value of name, or "" when there is none.
std::string QueryValue(const QueryParameters& parameters, const std::string& name);
// Percent-encodes everything but unreserved characters (RFC 3986).
std::string UrlEncode(std::string_view text);
// path?name=value&... (just path when the list is empty), encoded but not HTML-escaped.
std::string Link(const std::string& path, const QueryList& query);
// True when text contains part, ignoring ASCII letter case; an empty part is in every text.
bool ContainsIgnoringCase(std::string_view text, std::string_view part);

// GET /?q=<text>&sort=<column>&order=desc
struct ListQuery {
  std::string search;
  std::string sort = "id";  // one of kListColumns
  bool descending = false;
};

inline constexpr const char* kListColumns[] = {"id",        "name",    "domain", "customer",
                                               "classes",   "instances", "uploads", "last"};

ListQuery ReadListQuery(const QueryParameters& parameters);
// The computers that match the search (name, domain or customer id, without letter
// case), in the query's order; ties in id order.
std::vector<ComputerSummary> SelectComputers(std::vector<ComputerSummary> computers,
                                             const ListQuery& query);

// One class on a computer's page: ?filter-<class>=<text>&page-<class>=<n>
inline constexpr std::size_t kRowsPerPage = 100;

struct ClassView {
  std::string filter;
  std::size_t page = 1;   // 1-based, within 1 .. pages
  std::size_t pages = 1;
  std::size_t matching = 0;  // instances that match the filter
  std::vector<const std::pair<const int, Instance>*> rows;  // this page's instances
};

std::string FilterParameter(int classId);
std::string PageParameter(int classId);
ClassView ViewClass(int classId, const ClassInstances& instances,
                    const QueryParameters& parameters);
// The filter and page parameters of the other classes, in name order.
QueryList OtherClassParameters(int classId, const QueryParameters& parameters);

}  // namespace tarn::refserver

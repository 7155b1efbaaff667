#include "tools/refserver/page_query.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace tarn::refserver {

namespace {

char AsciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// -1, 0 or 1 as a compares to b without ASCII letter case.
int CompareIgnoringCase(std::string_view a, std::string_view b) {
  const auto [left, right] = std::mismatch(
      a.begin(), a.end(), b.begin(), b.end(),
      [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
  if (left == a.end()) return right == b.end() ? 0 : -1;
  if (right == b.end()) return 1;
  return static_cast<unsigned char>(AsciiLower(*left)) <
                 static_cast<unsigned char>(AsciiLower(*right))
             ? -1
             : 1;
}

template <typename T>
int Compare(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int CompareBy(const std::string& column, const ComputerSummary& a, const ComputerSummary& b) {
  if (column == "name") return CompareIgnoringCase(a.name, b.name);
  if (column == "domain") return CompareIgnoringCase(a.domain, b.domain);
  if (column == "customer") return CompareIgnoringCase(a.customerId, b.customerId);
  if (column == "classes") return Compare(a.classes, b.classes);
  if (column == "instances") return Compare(a.instances, b.instances);
  if (column == "uploads") return Compare(a.uploads, b.uploads);
  if (column == "last") return Compare(a.lastUpload, b.lastUpload);
  return Compare(a.id, b.id);
}

bool Matches(const Instance& instance, std::string_view filter) {
  return std::any_of(instance.begin(), instance.end(), [&](const auto& value) {
    return ContainsIgnoringCase(value.second, filter);
  });
}

}  // namespace

std::string QueryValue(const QueryParameters& parameters, const std::string& name) {
  const auto found = parameters.find(name);
  return found == parameters.end() ? "" : found->second;
}

std::string UrlEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
        (byte >= '0' && byte <= '9') || c == '-' || c == '.' || c == '_' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    }
  }
  return out;
}

std::string Link(const std::string& path, const QueryList& query) {
  std::string link = path;
  char separator = '?';
  for (const auto& [name, value] : query) {
    link += separator + UrlEncode(name) + '=' + UrlEncode(value);
    separator = '&';
  }
  return link;
}

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(), [](char x, char y) {
           return AsciiLower(x) == AsciiLower(y);
         }) != text.end() ||
         part.empty();
}

ListQuery ReadListQuery(const QueryParameters& parameters) {
  ListQuery query;
  query.search = QueryValue(parameters, "q");
  const std::string sort = QueryValue(parameters, "sort");
  if (std::find(std::begin(kListColumns), std::end(kListColumns), sort) !=
      std::end(kListColumns)) {
    query.sort = sort;
  }
  query.descending = QueryValue(parameters, "order") == "desc";
  return query;
}

std::vector<ComputerSummary> SelectComputers(std::vector<ComputerSummary> computers,
                                             const ListQuery& query) {
  std::erase_if(computers, [&](const ComputerSummary& computer) {
    return !ContainsIgnoringCase(computer.name, query.search) &&
           !ContainsIgnoringCase(computer.domain, query.search) &&
           !ContainsIgnoringCase(computer.customerId, query.search);
  });
  std::sort(computers.begin(), computers.end(),
            [&](const ComputerSummary& a, const ComputerSummary& b) {
              const int order = CompareBy(query.sort, a, b);
              if (order != 0) return query.descending ? order > 0 : order < 0;
              return a.id < b.id;
            });
  return computers;
}

std::string FilterParameter(int classId) { return "filter-" + std::to_string(classId); }
std::string PageParameter(int classId) { return "page-" + std::to_string(classId); }

ClassView ViewClass(int classId, const ClassInstances& instances,
                    const QueryParameters& parameters) {
  ClassView view;
  view.filter = QueryValue(parameters, FilterParameter(classId));
  std::vector<const std::pair<const int, Instance>*> matching;
  for (const auto& entry : instances) {
    if (Matches(entry.second, view.filter)) matching.push_back(&entry);
  }
  view.matching = matching.size();
  view.pages = std::max<std::size_t>(1, (matching.size() + kRowsPerPage - 1) / kRowsPerPage);
  const std::string page = QueryValue(parameters, PageParameter(classId));
  std::size_t wanted = 1;
  const auto [end, error] = std::from_chars(page.data(), page.data() + page.size(), wanted);
  if (error != std::errc() || end != page.data() + page.size()) wanted = 1;
  view.page = std::clamp<std::size_t>(wanted, 1, view.pages);
  const std::size_t first = (view.page - 1) * kRowsPerPage;
  const std::size_t last = std::min(matching.size(), first + kRowsPerPage);
  view.rows.assign(matching.begin() + static_cast<std::ptrdiff_t>(first),
                   matching.begin() + static_cast<std::ptrdiff_t>(last));
  return view;
}

QueryList OtherClassParameters(int classId, const QueryParameters& parameters) {
  QueryList others;
  for (const auto& [name, value] : parameters) {
    const bool classParameter = name.rfind("filter-", 0) == 0 || name.rfind("page-", 0) == 0;
    if (!classParameter || name == FilterParameter(classId) || name == PageParameter(classId)) {
      continue;
    }
    others.emplace_back(name, value);
  }
  return others;
}

}  // namespace tarn::refserver

// What the server shows: HTML pages for people and JSON for programs. Every text that
// came from an upload is escaped.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/page_query.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

std::string HtmlEscape(std::string_view text);
// Seconds since 1970 as an ISO 8601 UTC time ("2026-11-25T13:52:27Z"); "" for 0 or
// less and for times gmtime cannot represent.
std::string IsoTime(std::int64_t seconds);
// The properties any of the instances has, in id order: the columns of a class.
std::vector<int> PropertyColumns(const ClassInstances& instances);

// GET /: the computers with their last upload, searched and sorted as the query says
// (see ListQuery).
std::string ComputerListPage(const std::vector<ComputerSummary>& computers,
                             const QueryParameters& query = {});
// GET /computers/<id>: volumes, memory slots, class counts, the changes of each
// difference upload (a chart, then the lists), upload history, then every class's
// instances with the catalogue's property names, each class filtered and paged as the
// query says (see ClassView) and with a link to its CSV.
std::string ComputerPage(const ComputerDetails& computer, const Catalogue& catalogue,
                         const QueryParameters& query = {});
// GET /computers/<id>.json: the same facts. Times are numbers of seconds with an ISO
// twin ("scanTime" and "scanTimeUtc"), both absent when there is no such time; ids
// come with the catalogue's names.
std::string ComputerJson(const ComputerDetails& computer, const Catalogue& catalogue);
// GET /api/computers.
std::string ComputerListJson(const std::vector<ComputerSummary>& computers);
// Plain text for a terminal: counts per class with names, then the changes of each
// difference upload (newest first).
std::string ComputerReport(const ComputerDetails& computer, const Catalogue& catalogue);
// A small page for an error answer (404 and the like).
std::string MessagePage(const std::string& title, const std::string& message);

}  // namespace tarn::refserver

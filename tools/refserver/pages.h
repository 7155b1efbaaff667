// What the server shows: HTML pages for people and JSON for programs. Every text that
// came from an upload is escaped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

std::string HtmlEscape(std::string_view text);

// GET /: the computers with their last upload.
std::string ComputerListPage(const std::vector<ComputerSummary>& computers);
// GET /computers/<id>: class counts, changes of each difference upload, upload
// history, then every class's instances with the catalogue's property names.
std::string ComputerPage(const ComputerDetails& computer, const Catalogue& catalogue);
// GET /computers/<id>.json: the same facts.
std::string ComputerJson(const ComputerDetails& computer, const Catalogue& catalogue);
// GET /api/computers.
std::string ComputerListJson(const std::vector<ComputerSummary>& computers);
// Plain text for a terminal: counts per class with names, then the changes of each
// difference upload (newest first).
std::string ComputerReport(const ComputerDetails& computer, const Catalogue& catalogue);
// A small page for an error answer (404 and the like).
std::string MessagePage(const std::string& title, const std::string& message);

}  // namespace tarn::refserver

#include "tools/refserver/json.h"

#include <optional>
#include <set>
#include <vector>

namespace tarn::refserver {

namespace {

// What the parser has open: per object the keys met so far, nothing per array.
class Limits {
 public:
  bool Check(int depth, JsonValue::parse_event_t event, const JsonValue& parsed) {
    using Event = JsonValue::parse_event_t;
    switch (event) {
      case Event::object_start:
      case Event::array_start:
        // depth counts the containers around the one starting.
        if (static_cast<std::size_t>(depth) + 1 > kMaxJsonDepth) {
          throw JsonError("invalid JSON: nesting deeper than " + std::to_string(kMaxJsonDepth) +
                          " levels");
        }
        open_.emplace_back(event == Event::object_start ? std::optional<std::set<std::string>>(
                                                              std::in_place)
                                                        : std::nullopt);
        break;
      case Event::object_end:
      case Event::array_end:
        open_.pop_back();
        break;
      case Event::key:
        if (!open_.back()->insert(parsed.get<std::string>()).second) {
          throw JsonError("invalid JSON: duplicate key \"" + parsed.get<std::string>() + "\"");
        }
        break;
      case Event::value:
        break;
    }
    return true;
  }

 private:
  std::vector<std::optional<std::set<std::string>>> open_;
};

// The parser's message without its "[json.exception...] parse error at line L, column C: "
// prefix (the byte offset is given instead).
std::string Reason(const std::string& what) {
  const auto at = what.find(": ");
  return at == std::string::npos ? what : what.substr(at + 2);
}

}  // namespace

JsonValue ParseJson(std::string_view text) {
  Limits limits;
  try {
    return JsonValue::parse(
        text.begin(), text.end(),
        [&limits](int depth, JsonValue::parse_event_t event, JsonValue& parsed) {
          return limits.Check(depth, event, parsed);
        });
  } catch (const JsonValue::parse_error& error) {
    throw JsonError("invalid JSON at byte " + std::to_string(error.byte) + ": " +
                    Reason(error.what()));
  }
}

void AppendJsonString(std::string& out, std::string_view text) {
  out += JsonValue(std::string(text)).dump(-1, ' ', false, JsonValue::error_handler_t::replace);
}

}  // namespace tarn::refserver

// Text cleaning for values recorded in the inventory tables.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarn {

// Writes "&", "<", ">" and the double quote as their XML escapes and ends the
// text at its first control character (1 to 31 or 127), which is dropped with
// everything after it. The apostrophe and bytes of 128 and above are kept.
// A null text gives nothing.
std::optional<std::string> alterChars(const char* text);
// False when alterChars would give the text back unchanged: no control character (nor NUL)
// and none of the four markup characters.
bool NeedsAlteration(std::string_view text);

// A value from outside the agent's own files (host facts, the server, tools) made safe for an
// upload row: bytes that are not UTF-8 become U+FFFD, then alterChars cleans it, so the
// value cannot change the shape of the document. Absent stays absent; a plain value comes
// back unchanged.
std::optional<std::string> UploadText(const std::optional<std::string>& value);

// The pieces of text between the occurrences of separator, empty pieces kept
// ("a,,b" gives "a", "", "b"; "" gives one empty piece). An empty separator
// gives the whole text.
std::vector<std::string> SplitText(const std::string& text, const std::string& separator);

}  // namespace tarn

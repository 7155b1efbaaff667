// Text of log lines. Values that reach a log line come from tools, files and the server; a
// line feed or terminal escape in one of them must not start a line of its own or rewrite
// what a reader sees, so control characters of inserted values are written "\xNN". The tab
// is kept: it is blank space within a line (the program's own table dumps separate columns
// with it) and can neither end a line nor move back over one.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

namespace tarn {

// Receives a formatted message piece by piece, so that a large value (a whole document in a
// debug line) reaches its file without being copied into a message first.
class TextSink {
 public:
  virtual void Append(std::string_view piece) = 0;

 protected:
  ~TextSink() = default;
};

// A sink that appends to a string.
class StringSink final : public TextSink {
 public:
  explicit StringSink(std::string& text) : text_(text) {}
  void Append(std::string_view piece) override { text_.append(piece); }

 private:
  std::string& text_;
};

// True for the C0 control characters but the tab, and DEL (0x00-0x08, 0x0A-0x1F, 0x7F).
constexpr bool IsControlCharacter(unsigned char c) {
  return (c < 0x20 && c != '\t') || c == 0x7F;
}

// The text with every control character written as "\x" and two upper-case hex digits
// ("\x0A" for a line feed); other bytes, UTF-8 sequences included, are kept.
std::string EscapeControlCharacters(std::string_view text);

// The same text handed to a sink: runs of plain bytes as they stand, escapes between them.
void AppendEscaped(std::string_view text, TextSink& sink);

// printf formatting in which the text of every %s and %c conversion is passed through
// EscapeControlCharacters (after width and precision are applied); the format's own text,
// its line ends included, and numeric conversions are written as printf writes them. A null
// %s argument prints "(null)". %n writes nothing and stores nothing; a format using numbered
// arguments ("%1$s") is not supported and is written as it stands from there on.
std::string FormatEscapingValues(const char* format, std::va_list arguments);

// The same formatting handed to a sink piece by piece.
void FormatEscapingValuesTo(TextSink& sink, const char* format, std::va_list arguments);

}  // namespace tarn

#include "platform/text/log_text.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tarn {
namespace {

__attribute__((format(printf, 1, 2))) std::string Escaped(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = FormatEscapingValues(format, arguments);
  va_end(arguments);
  return text;
}

// What printf itself writes, for the clean cases.
__attribute__((format(printf, 1, 2))) std::string Plain(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char buffer[512];
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

TEST(LogText, ControlCharactersOfValuesAreEscapedTheFormatIsNot) {
  struct Case {
    std::string formatted;
    std::string expected;
  };
  const char* volatile none = nullptr;  // hidden from the compiler's own format check
  const Case cases[] = {
      // A forged log line inside a value stays on the line it was inserted in.
      {Escaped("id %s\n", "42\n[ 2024-01-01 00:00:00 ] [ERROR] forged"),
       "id 42\\x0A[ 2024-01-01 00:00:00 ] [ERROR] forged\n"},
      {Escaped("\n%s\n failure", "a\tb\rc\x1B[2Jd\x7F\b"),
       "\na\tb\\x0Dc\\x1B[2Jd\\x7F\\x08\n failure"},
      {Escaped("[%c][%c]", 'x', '\n'), "[x][\\x0A]"},
      // Width and precision count the value as given.
      {Escaped("[%5s][%-4s][%.2s]", "a\n", "b", "c\nd"), "[   a\\x0A][b   ][c\\x0A]"},
      {Escaped("[%*s][%.*s]", 4, "ab", 1, "\x01z"), "[  ab][\\x01]"},
      {Escaped("%s", none), "(null)"},
      // UTF-8 and the percent sign pass unchanged.
      {Escaped("%s 100%%", "Alice\xE2\x80\x99s"), "Alice\xE2\x80\x99s 100%"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.formatted, c.expected);
}

TEST(LogText, CleanValuesAndNumbersComeOutAsPrintfWritesThem) {
  const std::int64_t big = -9000000000;
  const std::size_t size = 42;
  EXPECT_EQ(Escaped("%d|%5i|%-3u|%lu|%lld|%zu|%jd|%x|%08X|%o|%%|%ul\n", -7, 12, 3u, 4ul,
                    static_cast<long long>(big), size, static_cast<std::intmax_t>(big), 255u,
                    48879u, 8u, 12345u),
            Plain("%d|%5i|%-3u|%lu|%lld|%zu|%jd|%x|%08X|%o|%%|%ul\n", -7, 12, 3u, 4ul,
                  static_cast<long long>(big), size, static_cast<std::intmax_t>(big), 255u, 48879u,
                  8u, 12345u));
  EXPECT_EQ(Escaped("%.2f %e %g %Lf %hhd %hd", 3.14159, 1e10, 0.5, 2.5L, 300, 70000),
            Plain("%.2f %e %g %Lf %hhd %hd", 3.14159, 1e10, 0.5, 2.5L, 300, 70000));
  EXPECT_EQ(Escaped("[ %s ] %s %s", "2024-01-02 03:04:05", "[INFO]", "plain text\n"),
            "[ 2024-01-02 03:04:05 ] [INFO] plain text\\x0A");
  EXPECT_EQ(Escaped("no conversions\n"), "no conversions\n");
}

TEST(LogText, EscapeLeavesEverythingButControlCharactersOtherThanTheTab) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  const std::string escaped = EscapeControlCharacters(all);
  std::string expected;
  for (int c = 1; c < 256; ++c) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\x%02X", c);
    const bool control = (c < 0x20 && c != '\t') || c == 0x7F;
    expected += control ? std::string(hex) : std::string(1, static_cast<char>(c));
  }
  EXPECT_EQ(escaped, expected);
  EXPECT_EQ(EscapeControlCharacters(std::string("a\0b", 3)), "a\\x00b");
  // Control characters at every position of a word, next to high bytes and tabs.
  for (std::size_t at = 0; at < 17; ++at) {
    const std::string lead(at, 'a');
    EXPECT_EQ(EscapeControlCharacters(lead + "\x1F\t\xC3\xA9" + lead + "\x7F~" + lead + "\n"),
              lead + "\\x1F\t\xC3\xA9" + lead + "\\x7F~" + lead + "\\x0A");
  }
}

}  // namespace
}  // namespace tarn

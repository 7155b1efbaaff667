#include "platform/text/log_text.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <type_traits>

#include "platform/text/byte_words.h"

namespace tarn {
namespace {

// One conversion of a format, ready to be handed to snprintf on its own: "%", flags, width
// and precision (a "*" replaced by its argument), the length modifier and the conversion.
struct Conversion {
  std::string spec = "%";
  std::string length;
  char conversion = '\0';
};

// snprintf of one conversion; the conversion text is built at run time from a format the
// compiler has already checked against its arguments.
template <typename Value>
std::string FormatOne(const std::string& spec, Value value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int length = std::snprintf(nullptr, 0, spec.c_str(), value);
  if (length <= 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), spec.c_str(), value);
#pragma GCC diagnostic pop
  text.resize(static_cast<std::size_t>(length));
  return text;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void TakeDigits(const char*& p, std::string& into) {
  while (IsDigit(*p)) into += *p++;
}

// Reads the conversion that starts after a "%"; false for numbered arguments ("%1$s").
bool ParseConversion(const char*& p, std::va_list* arguments, Conversion& out) {
  const char* digits = p;
  while (IsDigit(*digits)) ++digits;
  if (digits != p && *digits == '$') return false;
  while (*p != '\0' && std::strchr("-+ #0'", *p) != nullptr) out.spec += *p++;
  if (*p == '*') {
    ++p;
    out.spec += std::to_string(va_arg(*arguments, int));
  } else {
    TakeDigits(p, out.spec);
  }
  if (*p == '.') {
    ++p;
    if (*p == '*') {
      ++p;
      const int precision = va_arg(*arguments, int);
      if (precision >= 0) out.spec += "." + std::to_string(precision);  // negative: none
    } else {
      out.spec += '.';
      TakeDigits(p, out.spec);
    }
  }
  while (*p != '\0' && std::strchr("hlLjztq", *p) != nullptr) out.length += *p++;
  out.spec += out.length;
  out.conversion = *p;
  if (*p != '\0') out.spec += *p++;
  return true;
}

std::string FormatSigned(const Conversion& c, std::va_list* arguments) {
  if (c.length == "l") return FormatOne(c.spec, va_arg(*arguments, long));
  if (c.length == "ll" || c.length == "q") return FormatOne(c.spec, va_arg(*arguments, long long));
  if (c.length == "j") return FormatOne(c.spec, va_arg(*arguments, std::intmax_t));
  if (c.length == "z") {
    return FormatOne(c.spec, va_arg(*arguments, std::make_signed_t<std::size_t>));
  }
  if (c.length == "t") return FormatOne(c.spec, va_arg(*arguments, std::ptrdiff_t));
  return FormatOne(c.spec, va_arg(*arguments, int));
}

std::string FormatUnsigned(const Conversion& c, std::va_list* arguments) {
  if (c.length == "l") return FormatOne(c.spec, va_arg(*arguments, unsigned long));
  if (c.length == "ll" || c.length == "q") {
    return FormatOne(c.spec, va_arg(*arguments, unsigned long long));
  }
  if (c.length == "j") return FormatOne(c.spec, va_arg(*arguments, std::uintmax_t));
  if (c.length == "z") return FormatOne(c.spec, va_arg(*arguments, std::size_t));
  if (c.length == "t") {
    return FormatOne(c.spec, va_arg(*arguments, std::make_unsigned_t<std::ptrdiff_t>));
  }
  return FormatOne(c.spec, va_arg(*arguments, unsigned int));
}

// A %s or %ls value: a plain "%s" goes to the sink as it stands (escaped, never copied);
// width and precision go through snprintf first.
void FormatText(const Conversion& c, std::va_list* arguments, TextSink& sink) {
  if (c.length == "l") {
    const wchar_t* wide = va_arg(*arguments, const wchar_t*);
    AppendEscaped(FormatOne(c.spec, wide != nullptr ? wide : L"(null)"), sink);
    return;
  }
  const char* text = va_arg(*arguments, const char*);
  if (text == nullptr) text = "(null)";
  if (c.spec == "%s") {
    AppendEscaped(text, sink);
  } else {
    AppendEscaped(FormatOne(c.spec, text), sink);
  }
}

// The text of one conversion, its arguments taken from the list, handed to the sink.
void FormatConversion(const Conversion& c, std::va_list* arguments, TextSink& sink) {
  switch (c.conversion) {
    case '%':
      sink.Append("%");
      return;
    case 'd':
    case 'i':
      sink.Append(FormatSigned(c, arguments));
      return;
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      sink.Append(FormatUnsigned(c, arguments));
      return;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      sink.Append(c.length == "L" ? FormatOne(c.spec, va_arg(*arguments, long double))
                                  : FormatOne(c.spec, va_arg(*arguments, double)));
      return;
    case 'c':
      AppendEscaped(c.length == "l" ? FormatOne(c.spec, va_arg(*arguments, std::wint_t))
                                    : FormatOne(c.spec, va_arg(*arguments, int)),
                    sink);
      return;
    case 's':
      FormatText(c, arguments, sink);
      return;
    case 'p':
      sink.Append(FormatOne(c.spec, va_arg(*arguments, void*)));
      return;
    case 'n':
      (void)va_arg(*arguments, void*);
      return;
    default:
      sink.Append(c.spec);  // not a conversion: written as it stands
      return;
  }
}

// True when one of the eight bytes of the word may be a control character: a byte below
// 0x20 (the tab included, the caller looks closer) or DEL.
bool MayHoldControl(std::uint64_t word) { return HasByteBelow(word, 0x20) || HasByte(word, 0x7F); }

}  // namespace

void AppendEscaped(std::string_view text, TextSink& sink) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const char* runStart = begin;
  const char* p = begin;
  while (p != end) {
    // Plain text passes a word at a time.
    if (end - p >= 8) {
      if (!MayHoldControl(LoadWord(p))) {
        p += 8;
        continue;
      }
    }
    const auto byte = static_cast<unsigned char>(*p);
    if (IsControlCharacter(byte)) {
      sink.Append(std::string_view(runStart, static_cast<std::size_t>(p - runStart)));
      const char escape[4] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0x0F]};
      sink.Append(std::string_view(escape, sizeof escape));
      runStart = p + 1;
    }
    ++p;
  }
  sink.Append(std::string_view(runStart, static_cast<std::size_t>(end - runStart)));
}

std::string EscapeControlCharacters(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  StringSink sink(escaped);
  AppendEscaped(text, sink);
  return escaped;
}

void FormatEscapingValuesTo(TextSink& sink, const char* format, std::va_list arguments) {
  if (format == nullptr) return;
  std::va_list own;
  va_copy(own, arguments);
  const char* p = format;
  while (*p != '\0') {
    const char* percent = std::strchr(p, '%');
    if (percent == nullptr) {
      sink.Append(p);
      break;
    }
    sink.Append(std::string_view(p, static_cast<std::size_t>(percent - p)));
    p = percent + 1;
    Conversion conversion;
    if (!ParseConversion(p, &own, conversion)) {
      sink.Append(percent);
      break;
    }
    FormatConversion(conversion, &own, sink);
  }
  va_end(own);
}

std::string FormatEscapingValues(const char* format, std::va_list arguments) {
  std::string out;
  StringSink sink(out);
  FormatEscapingValuesTo(sink, format, arguments);
  return out;
}

}  // namespace tarn

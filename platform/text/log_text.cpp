#include "platform/text/log_text.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <type_traits>

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

std::string FormatText(const Conversion& c, std::va_list* arguments) {
  if (c.length == "l") {
    const wchar_t* wide = va_arg(*arguments, const wchar_t*);
    return EscapeControlCharacters(FormatOne(c.spec, wide != nullptr ? wide : L"(null)"));
  }
  const char* text = va_arg(*arguments, const char*);
  return EscapeControlCharacters(FormatOne(c.spec, text != nullptr ? text : "(null)"));
}

// The text of one conversion, its arguments taken from the list.
std::string FormatConversion(const Conversion& c, std::va_list* arguments) {
  switch (c.conversion) {
    case '%':
      return "%";
    case 'd':
    case 'i':
      return FormatSigned(c, arguments);
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      return FormatUnsigned(c, arguments);
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      return c.length == "L" ? FormatOne(c.spec, va_arg(*arguments, long double))
                             : FormatOne(c.spec, va_arg(*arguments, double));
    case 'c':
      return EscapeControlCharacters(c.length == "l"
                                         ? FormatOne(c.spec, va_arg(*arguments, std::wint_t))
                                         : FormatOne(c.spec, va_arg(*arguments, int)));
    case 's':
      return FormatText(c, arguments);
    case 'p':
      return FormatOne(c.spec, va_arg(*arguments, void*));
    case 'n':
      (void)va_arg(*arguments, void*);
      return {};
    default:
      return c.spec;  // not a conversion: written as it stands
  }
}

}  // namespace

bool IsControlCharacter(unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; }

std::string EscapeControlCharacters(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (!IsControlCharacter(byte)) {
      escaped += c;
      continue;
    }
    escaped += "\\x";
    escaped += kHex[byte >> 4];
    escaped += kHex[byte & 0x0F];
  }
  return escaped;
}

std::string FormatEscapingValues(const char* format, std::va_list arguments) {
  std::string out;
  if (format == nullptr) return out;
  std::va_list own;
  va_copy(own, arguments);
  const char* p = format;
  while (*p != '\0') {
    const char* percent = std::strchr(p, '%');
    if (percent == nullptr) {
      out += p;
      break;
    }
    out.append(p, static_cast<std::size_t>(percent - p));
    p = percent + 1;
    Conversion conversion;
    if (!ParseConversion(p, &own, conversion)) {
      out += percent;
      break;
    }
    out += FormatConversion(conversion, &own);
  }
  va_end(own);
  return out;
}

}  // namespace tarn

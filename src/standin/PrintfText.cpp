#include "standin/PrintfText.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace standin {
namespace {

// Compilers warn unless a format is a literal. These are prefixes of one that its call has checked.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string formatted(const std::string& format, va_list arguments) {
  va_list measured;
  va_list written;
  va_copy(measured, arguments);
  va_copy(written, arguments);
  const int length = std::max(std::vsnprintf(nullptr, 0, format.c_str(), measured), 0);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format.c_str(), written);
  text.pop_back();
  va_end(written);
  va_end(measured);
  return text;
}
#pragma GCC diagnostic pop

// The position after the conversion that begins at `percent`.
std::size_t endOfConversion(const std::string& format, std::size_t percent) {
  const std::size_t letter = format.find_first_not_of(" #+-'.*0123456789hljztLq", percent + 1);
  return letter == format.npos ? format.size() : letter + 1;
}

}  // namespace

// Formats up to the beginning and to the end of each conversion: the difference is its argument.
PrintfText printfText(const char* format, va_list arguments) {
  const std::string whole = format;
  PrintfText result{formatted(whole, arguments), {}};
  std::size_t end = 0;
  for (std::size_t begin = whole.find('%'); begin != whole.npos; begin = whole.find('%', end)) {
    end = endOfConversion(whole, begin);
    if (whole[end - 1] == '%') continue;
    const std::size_t size = formatted(whole.substr(0, begin), arguments).size();
    result.arguments.push_back(formatted(whole.substr(0, end), arguments).erase(0, size));
  }
  return result;
}

}  // namespace standin

#include "tools/top/Text.h"

#include <fmt/format.h>
#include <fmt/xchar.h>
#include <langinfo.h>

#include <algorithm>
#include <array>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <iterator>

namespace top {
namespace {

bool isUtf8() {
  return std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

// As the C library reads it.
std::string_view localeOfEnvironment() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return "";
}

// A user whose terminal is UTF-8 often comes to a machine that doesn't have the user's locale.
bool asksForUtf8(std::string_view locale) {
  return locale.ends_with(".UTF-8") || locale.ends_with(".utf8");
}

bool isDrawingMark(wchar_t c) {
  struct Span {
    wchar_t first;
    wchar_t last;
  };
  constexpr std::array<Span, 6> marks{{{0xad, 0xad},
                                       {0x200b, 0x200f},
                                       {0x202a, 0x202e},
                                       {0x2060, 0x206f},
                                       {0xfe00, 0xfe0f},
                                       {0xfeff, 0xfeff}}};
  return std::any_of(marks.begin(), marks.end(),
                     [&](const Span& span) { return span.first <= c && c <= span.last; });
}

bool canBeShown(wchar_t c) {
  return c != L'\\' && std::iswprint(static_cast<std::wint_t>(c)) != 0 && wcwidth(c) >= 0 &&
         !isDrawingMark(c);
}

// The start of the text that fits in `width` columns.
Text beginningOf(const Text& text, int width) {
  std::size_t length = 0;
  for (int used = 0; length < text.size(); ++length) {
    used += wcwidth(text[length]);
    if (used > width) break;
  }
  return text.substr(0, length);
}

Text shortened(const Text& text, int width) {
  if (widthOf(text) <= width || width <= 0) return beginningOf(text, width);
  return beginningOf(text, width - 1) + (hasBlocks() ? L'\u2026' : L'~');
}

Text blanksFor(const Text& text, int width) {
  return Text(static_cast<std::size_t>(std::max(0, width - widthOf(text))), L' ');
}

}  // namespace

void followLocale() {
  const bool isKnown = std::setlocale(LC_CTYPE, "") != nullptr;
  if (isKnown && isUtf8()) return;
  if (!isKnown && asksForUtf8(localeOfEnvironment())) return useUtf8();
  std::setlocale(LC_CTYPE, "C");
}

void useUtf8() {
  std::setlocale(LC_CTYPE, "C.UTF-8");
}

bool hasBlocks() {
  return isUtf8();
}

Text textOf(std::string_view bytes) {
  Text text;
  while (!bytes.empty()) {
    std::mbstate_t state{};
    wchar_t c = 0;
    std::size_t size = std::mbrtowc(&c, bytes.data(), bytes.size(), &state);
    const bool isCharacter = size != 0 && size <= bytes.size();
    if (!isCharacter) size = 1;
    if (isCharacter && canBeShown(c)) {
      text += c;
    } else {
      for (const char byte : bytes.substr(0, size)) {
        fmt::format_to(std::back_inserter(text), L"\\x{:02x}", static_cast<unsigned char>(byte));
      }
    }
    bytes.remove_prefix(size);
  }
  return text;
}

int widthOf(const Text& text) {
  int width = 0;
  for (const wchar_t c : text) width += wcwidth(c);
  return width;
}

Text fitted(const Text& text, int width) {
  const Text cut = shortened(text, width);
  return cut + blanksFor(cut, width);
}

Text fittedRight(const Text& text, int width) {
  const Text cut = shortened(text, width);
  return blanksFor(cut, width) + cut;
}

std::string bytesOf(const Text& text) {
  std::string bytes;
  std::mbstate_t state{};
  std::array<char, MB_LEN_MAX> encoded{};
  for (const wchar_t c : text) {
    const std::size_t size = std::wcrtomb(encoded.data(), c, &state);
    if (size <= encoded.size()) bytes.append(encoded.data(), size);
  }
  return bytes;
}

}  // namespace top

#include "tools/check/Text.h"

#include <fmt/format.h>
#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <iterator>

namespace check {
namespace {

// The code point of a valid character.
std::uint32_t codeOf(std::string_view character) {
  constexpr std::array<unsigned char, 5> leadBits = {0, 0x7F, 0x1F, 0x0F, 0x07};
  std::uint32_t code = 0;
  for (const char byte : character) code = code << 6 | (static_cast<unsigned char>(byte) & 0x3Fu);
  const unsigned shift = 6 * (static_cast<unsigned>(character.size()) - 1);
  const auto lead = static_cast<unsigned char>(character.front());
  const std::uint32_t afterLead = code & ((1u << shift) - 1);
  return afterLead | static_cast<std::uint32_t>(lead & leadBits[character.size()]) << shift;
}

bool isUnseen(std::string_view character) {
  struct Range {
    std::uint32_t first, last;
  };
  // Without the joiners U+200C and U+200D, which some languages need.
  constexpr std::array<Range, 9> unseen = {{{0x00, 0x1F},
                                            {0x7F, 0xA0},
                                            {0xAD, 0xAD},
                                            {0x2000, 0x200B},
                                            {0x200E, 0x200F},
                                            {0x2028, 0x202F},
                                            {0x2060, 0x206F},
                                            {0x3000, 0x3000},
                                            {0xFEFF, 0xFEFF}}};
  const std::uint32_t code = codeOf(character);
  return std::any_of(unseen.begin(), unseen.end(),
                     [&](const Range& range) { return code >= range.first && code <= range.last; });
}

// The first byte of the character at `position`.
std::size_t characterBegin(std::string_view text, std::size_t position) {
  while (position > 0 && position < text.size() && (text[position] & 0xC0) == 0x80) --position;
  return position;
}

// Whether all characters are visible ASCII. Most texts are, and need no closer look.
bool isPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return byte >= ' ' && byte <= '~'; });
}

}  // namespace

std::size_t characterSize(std::string_view text) {
  struct Lead {
    unsigned char first, last;  // of the first byte
    std::size_t size;
    unsigned char secondFirst, secondLast;
  };
  constexpr std::array<Lead, 9> leads = {{{0x00, 0x7F, 1, 0, 0},
                                          {0xC2, 0xDF, 2, 0x80, 0xBF},
                                          {0xE0, 0xE0, 3, 0xA0, 0xBF},
                                          {0xE1, 0xEC, 3, 0x80, 0xBF},
                                          {0xED, 0xED, 3, 0x80, 0x9F},
                                          {0xEE, 0xEF, 3, 0x80, 0xBF},
                                          {0xF0, 0xF0, 4, 0x90, 0xBF},
                                          {0xF1, 0xF3, 4, 0x80, 0xBF},
                                          {0xF4, 0xF4, 4, 0x80, 0x8F}}};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (const Lead& lead : leads) {
    if (byte(0) < lead.first || byte(0) > lead.last) continue;
    if (text.size() < lead.size) return 0;
    if (lead.size > 1 && (byte(1) < lead.secondFirst || byte(1) > lead.secondLast)) return 0;
    for (std::size_t i = 2; i < lead.size; ++i) {
      if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    return lead.size;
  }
  return 0;
}

bool isUtf8(std::string_view text) {
  if (isPlain(text)) return true;
  bool whole = true;
  eachCharacter(text, [&](std::string_view, bool isWhole) { whole = whole && isWhole; });
  return whole;
}

bool hasUnseenCharacter(std::string_view text) {
  if (isPlain(text)) return false;
  bool unseen = false;
  eachCharacter(text, [&](std::string_view character, bool isWhole) {
    unseen = unseen || (isWhole && isUnseen(character));
  });
  return unseen;
}

std::size_t badBytesIn(std::string_view text) {
  std::size_t bad = 0;
  std::size_t left = text.size();
  eachCharacter(text, [&](std::string_view character, bool isWhole) {
    constexpr std::size_t longest = 4;
    const auto byte = static_cast<unsigned char>(character.front());
    const bool isControl = byte < ' ' && std::isspace(byte) == 0;
    if (isControl || (!isWhole && left >= longest)) ++bad;
    left -= character.size();
  });
  return bad;
}

bool beginsUnseen(std::string_view text) {
  const std::size_t size = text.empty() ? 0 : characterSize(text);
  return size > 0 && isUnseen(text.substr(0, size));
}

std::string visible(std::string_view text) {
  std::string shown;
  eachCharacter(text, [&](std::string_view character, bool isWhole) {
    if (isWhole && !isUnseen(character)) {
      shown += character;
      return;
    }
    for (const char byte : character) {
      fmt::format_to(std::back_inserter(shown), "\\x{:02x}", static_cast<unsigned char>(byte));
    }
  });
  return shown;
}

std::string visibleLines(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t size = std::min(text.find_first_of("\t\n"), text.size());
    const bool isCrlf = size > 0 && text.substr(size - 1, 2) == "\r\n";
    const std::size_t end = isCrlf ? size - 1 : size;
    shown += visible(text.substr(0, end));
    shown += text.substr(end, size + 1 - end);
    text.remove_prefix(std::min(size + 1, text.size()));
  }
  return shown;
}

std::string inQuotes(std::string_view text) {
  constexpr std::size_t longest = 72;
  constexpr std::size_t kept = 32;
  if (text.size() <= longest) return "\"" + visible(text) + "\"";
  const std::size_t tail = characterBegin(text, text.size() - kept);
  return "\"" + visible(text.substr(0, characterBegin(text, kept))) + "..." +
         visible(text.substr(tail)) + "\"";
}

std::size_t columnsOf(std::string_view text) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = uselocale(utf8);
  std::size_t columns = 0;
  eachCharacter(text, [&](std::string_view character, bool isWhole) {
    const int width = isWhole ? wcwidth(static_cast<wchar_t>(codeOf(character))) : 1;
    columns += static_cast<std::size_t>(std::max(width, 0));
  });
  uselocale(before);
  return columns;
}

Excerpt excerptOf(std::string_view line, std::size_t begin, std::size_t size) {
  constexpr std::size_t widest = 110;
  constexpr std::size_t lead = 40;
  constexpr std::string_view dots = "...";
  if (line.ends_with('\r')) line.remove_suffix(1);  // of a CRLF line end
  begin = std::min(begin, line.size());
  const bool fits = line.size() <= widest;
  const std::size_t from = fits || begin <= lead ? 0 : characterBegin(line, begin - lead);
  const std::size_t to =
      fits ? line.size() : characterBegin(line, std::min(from + widest, line.size()));
  Excerpt excerpt{.text = std::string(from > 0 ? dots : ""), .marker = {}};
  excerpt.marker.assign(excerpt.text.size(), ' ');
  std::size_t at = from;
  eachCharacter(line.substr(from, to - from), [&](std::string_view character, bool isWhole) {
    const bool shown = isWhole && !isUnseen(character);
    excerpt.text += shown ? character : character == "\t" ? " " : "?";
    const std::size_t columns = shown ? columnsOf(character) : 1;
    const bool isMarked = at + character.size() > begin && (at <= begin || at < begin + size);
    const std::size_t first = excerpt.marker.size();
    if (isMarked || at <= begin) excerpt.marker.append(columns, isMarked ? '~' : ' ');
    if (isMarked && at <= begin && columns > 0) excerpt.marker[first] = '^';
    at += character.size();
  });
  if (begin >= at) excerpt.marker += '^';
  if (to < line.size()) excerpt.text += dots;
  return excerpt;
}

std::string_view trimmed(std::string_view text) {
  const auto isSpace = [](unsigned char byte) { return std::isspace(byte) != 0; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view unquoted(std::string_view text) {
  const bool isQuoted = text.size() > 1 && (text.front() == '"' || text.front() == '\'') &&
                        text.back() == text.front();
  return isQuoted ? text.substr(1, text.size() - 2) : text;
}

std::string counted(std::size_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace check

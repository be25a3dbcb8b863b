#include "tools/common/EntryText.h"

#include <algorithm>

namespace tools {
namespace {

using namespace std::string_view_literals;

// What the INI reader takes for white space. After one of these a ";" begins a comment, even in
// quotes.
constexpr std::string_view blanks = " \t\v\f\r";

// Some of these bytes don't need quotes, but with quotes nobody has to wonder.
bool needsQuotes(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char byte) {
    return static_cast<unsigned char>(byte) <= ' ' ||
           "\"'\\`$#;\x7f"sv.find(byte) != std::string_view::npos;
  });
}

}  // namespace

std::string entryTextOf(std::string_view text) {
  if (!needsQuotes(text)) return std::string(text);
  std::string result = "\"";
  char last = '"';
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') result += '\\';
    // A pair of quotes in between keeps the ";" from beginning a comment.
    if (byte == ';' && blanks.find(last) != blanks.npos) result += "\"\"";
    result += byte;
    last = byte;
  }
  return result + '"';
}

}  // namespace tools

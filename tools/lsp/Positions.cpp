#include "tools/lsp/Positions.h"

#include <algorithm>

#include "tools/check/Text.h"

namespace lsp {
namespace {

// How many bytes the first character of the text has. A byte that is not UTF-8 is one by itself.
std::size_t characterSize(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (size == 1 || size > text.size()) return 1;
  return check::isUtf8(text.substr(0, size)) ? size : 1;
}

std::size_t unitsOf(std::size_t size, Encoding encoding) {
  constexpr std::size_t beyondPlane = 4;  // bytes of a character above U+FFFF
  if (encoding == Encoding::Utf8) return size;
  return size == beyondPlane ? 2 : 1;
}

// The size of the beginning of the line that has at most this many units, up to a whole character.
std::size_t bytesOf(std::string_view line, std::size_t units, Encoding encoding) {
  std::size_t at = 0;
  while (at < line.size()) {
    const std::size_t size = characterSize(line.substr(at));
    const std::size_t needed = unitsOf(size, encoding);
    if (needed > units) break;
    units -= needed;
    at += size;
  }
  return at;
}

}  // namespace

Places::Places(std::string_view text, Encoding encoding)
    : text_(text), encoding_(encoding), starts_{0} {
  replace(0, 0, text, text.size());
}

void Places::replace(std::size_t begin, std::size_t end, std::string_view text, std::size_t size) {
  const std::string_view added = text.substr(begin, size);
  const auto first = std::upper_bound(starts_.begin(), starts_.end(), begin);
  const auto last = std::upper_bound(first, starts_.end(), end);
  std::for_each(last, starts_.end(),
                [&](std::size_t& start) { start = start - end + begin + size; });
  const auto count = std::count(added.begin(), added.end(), '\n');
  auto start = starts_.insert(starts_.erase(first, last), static_cast<std::size_t>(count), 0);
  for (std::size_t at = added.find('\n'); at != added.npos; at = added.find('\n', at + 1)) {
    *start++ = begin + at + 1;
  }
  text_ = text;
}

std::size_t Places::startOf(std::size_t number) const {
  return number < starts_.size() ? starts_[number] : text_.size();
}

std::string_view Places::line(std::size_t number) const {
  const std::size_t begin = startOf(number);
  std::string_view line = text_.substr(begin, startOf(number + 1) - begin);
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

std::size_t Places::offsetOf(Position position) const {
  return startOf(position.line) + bytesOf(line(position.line), position.character, encoding_);
}

Position Places::positionOf(std::size_t offset) const {
  offset = std::min(offset, text_.size());
  const auto next = std::upper_bound(starts_.begin(), starts_.end(), offset);
  const auto number = static_cast<std::size_t>(next - starts_.begin()) - 1;
  const std::string_view whole = line(number);
  const std::size_t end = std::min(offset - starts_[number], whole.size());
  std::size_t units = 0;
  for (std::size_t at = 0; at < end;) {
    const std::size_t size = characterSize(whole.substr(at));
    if (at + size > end) break;  // within a character
    units += unitsOf(size, encoding_);
    at += size;
  }
  return {number, units};
}

}  // namespace lsp

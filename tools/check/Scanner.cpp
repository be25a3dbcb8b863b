#include "tools/check/Scanner.h"

#include <algorithm>
#include <cctype>

namespace check {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

Span trim(std::string_view text, Span span) {
  while (span.size > 0 && isBlank(text[span.end() - 1])) --span.size;
  while (span.size > 0 && isBlank(text[span.begin])) {
    ++span.begin;
    --span.size;
  }
  return span;
}

// The part before an inline comment. A ";" begins a comment if white space in the part precedes it.
Span beforeComment(std::string_view text, Span span) {
  for (std::size_t i = span.begin + 1; i < span.end(); ++i) {
    if (text[i] == ';' && isBlank(text[i - 1])) return {span.begin, i - span.begin};
  }
  return span;
}

}  // namespace

bool isBlank(char character) {
  return std::isspace(static_cast<unsigned char>(character)) != 0;
}

// Ensures that a whole chunk is in the buffer, unless the file ends before.
void Scanner::fillBuffer() {
  constexpr std::size_t room = 16 * chunkSize;
  if (unread_.size() >= chunkSize) return;
  buffer_.resize(room);
  std::copy(unread_.begin(), unread_.end(), buffer_.begin());
  const std::size_t kept = unread_.size();
  const std::size_t got = std::fread(buffer_.data() + kept, 1, room - kept, file_);
  unread_ = {buffer_.data(), kept + got};
}

bool Scanner::readChunk() {
  fillBuffer();
  chunk_ = unread_.substr(0, chunkSize);
  if (chunk_.empty()) return false;
  chunk_ = chunk_.substr(0, std::min(chunk_.find('\n'), chunk_.size() - 1) + 1);
  unread_.remove_prefix(chunk_.size());
  return true;
}

void Scanner::beginLine() {
  lineBytes_ = 0;
  lineUnits_ = {};
}

bool Scanner::next() {
  const bool isTail = lineIsOpen_;
  if (!isTail) beginLine();
  if (!readChunk()) return false;
  line_ = {.number = line_.number + (isTail ? 0 : 1),
           .chunk = line_.chunk + 1,
           .offset = lineBytes_,
           .before = lineUnits_,
           .isTail = isTail};
  std::string_view text = chunk_;
  lineBytes_ += text.size();
  lineIsOpen_ = !text.ends_with('\n');
  if (!lineIsOpen_) text.remove_suffix(1);
  if (line_.chunk == 1 && text.starts_with(byteOrderMark)) {
    text.remove_prefix(byteOrderMark.size());
    line_.offset += byteOrderMark.size();
  }
  if (lineIsOpen_) lineUnits_.add(text);
  const std::size_t nul = text.find('\0');
  line_.hasNul = nul != text.npos;
  text = text.substr(0, nul);
  line_.text = text;
  classify();
  return true;
}

void Scanner::classify() {
  line_.body = trim(line_.text, {0, line_.text.size()});
  const std::string_view body = line_.body.of(line_.text);
  if (body.empty()) {
    line_.kind = LineKind::Blank;
  } else if (body.front() == ';' || body.front() == '#') {
    line_.kind = LineKind::Comment;
  } else if (line_.body.begin > 0 && !pendingName_.empty()) {
    line_.kind = LineKind::Continuation;
    line_.value = line_.body;
  } else if (body.front() == '[') {
    takeHeader();
  } else {
    takePair();
  }
}

void Scanner::takeHeader() {
  const Span searched = beforeComment(line_.text, line_.body);
  const std::size_t close = searched.of(line_.text).find(']');
  line_.kind = close == std::string_view::npos ? LineKind::BadHeader : LineKind::Header;
  if (line_.kind == LineKind::BadHeader) {
    line_.name = trim(line_.text, {searched.begin + 1, searched.size - 1});
    return;
  }
  line_.name = {line_.body.begin + 1, close - 1};
  const std::size_t after = line_.body.begin + close + 1;
  line_.rest = trim(line_.text, {after, line_.body.end() - after});
  section_ = line_.name.of(line_.text).substr(0, keptName);
  pendingName_.clear();
}

void Scanner::takePair() {
  const std::string_view searched = beforeComment(line_.text, line_.body).of(line_.text);
  const std::size_t equals = searched.find('=');
  const std::size_t separator = equals != searched.npos ? equals : searched.find(':');
  line_.kind = separator == searched.npos ? LineKind::BadPair : LineKind::Pair;
  if (line_.kind == LineKind::BadPair) return;
  line_.name = trim(line_.text, {line_.body.begin, separator});
  const std::size_t after = line_.body.begin + separator + 1;
  const Span whole = trim(line_.text, {after, line_.body.end() - after});
  const Span kept = beforeComment(line_.text, whole);
  line_.value = trim(line_.text, kept);
  line_.rest = {kept.end(), whole.size - kept.size};
  pendingName_ = line_.name.of(line_.text).substr(0, keptName);
}

}  // namespace check

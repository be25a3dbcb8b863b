#include "tools/lsp/Framing.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace lsp {
namespace {

constexpr std::string_view lengthName = "Content-Length:";
constexpr std::string_view headerEnd = "\r\n\r\n";

std::string_view trimmed(std::string_view text) {
  while (text.starts_with(' ') || text.starts_with('\t')) text.remove_prefix(1);
  while (text.ends_with(' ') || text.ends_with('\t')) text.remove_suffix(1);
  return text;
}

// The value of a header line with this name, if it is one. The names ignore case.
std::optional<std::string_view> valueOf(std::string_view line, std::string_view name) {
  if (line.size() < name.size()) return std::nullopt;
  if (strncasecmp(line.data(), name.data(), name.size()) != 0) return std::nullopt;
  return trimmed(line.substr(name.size()));
}

// Nothing if the header gives no length, or something else than a length.
std::optional<std::size_t> lengthIn(std::string_view header) {
  while (!header.empty()) {
    const std::string_view line = header.substr(0, header.find("\r\n"));
    header.remove_prefix(std::min(line.size() + 2, header.size()));
    const auto value = valueOf(line, lengthName);
    if (!value) continue;
    std::size_t length = 0;
    const auto [end, error] = std::from_chars(value->data(), value->data() + value->size(), length);
    if (error != std::errc() || end != value->data() + value->size()) return std::nullopt;
    return length;
  }
  return std::nullopt;
}

}  // namespace

std::string framed(std::string_view content) {
  return fmt::format("Content-Length: {}\r\n\r\n{}", content.size(), content);
}

// Drops the bad header, and all that follows it up to the next header.
Frame FrameReader::badHeader(std::size_t size) {
  const std::size_t next = buffer_.find(lengthName, 1);
  // The beginning of a header may be at the end of what has come so far.
  const std::size_t kept = std::min(buffer_.size(), lengthName.size() - 1);
  buffer_.erase(0, next != std::string::npos ? next : std::max(size, buffer_.size() - kept));
  return {.problem = "a header without a valid Content-Length"};
}

std::optional<Frame> FrameReader::takeHeader() {
  const std::size_t end = buffer_.find(headerEnd);
  if (end == std::string::npos) {
    if (buffer_.size() <= headerLimit) return std::nullopt;
    return badHeader(0);
  }
  length_ = lengthIn(std::string_view(buffer_).substr(0, end));
  if (!length_) return badHeader(end + headerEnd.size());
  buffer_.erase(0, end + headerEnd.size());
  if (*length_ <= limit_) return std::nullopt;
  skipped_ = *std::exchange(length_, {});
  return Frame{.problem = fmt::format("a message of {} bytes, which is more than the {} allowed",
                                      skipped_, limit_)};
}

std::optional<Frame> FrameReader::next() {
  const std::size_t useless = std::min(skipped_, buffer_.size());
  buffer_.erase(0, useless);
  skipped_ -= useless;
  if (skipped_ > 0) return std::nullopt;
  if (!length_) {
    if (auto problem = takeHeader()) return problem;
  }
  if (!length_ || buffer_.size() < *length_) return std::nullopt;
  Frame frame{.content = buffer_.substr(0, *length_)};
  buffer_.erase(0, *std::exchange(length_, {}));
  return frame;
}

}  // namespace lsp

// The frames of the language server protocol: a header with the length of the content, an empty
// line, and the content.
//
// Threads: one at a time. Memory: at most one header and one content of the permitted size.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace lsp {

// The content in its frame.
std::string framed(std::string_view content);

// A content, or why there is none. After a problem, the next frame is read as usual.
struct Frame {
  std::string content = {};
  std::string problem = {};
};

// Cuts a stream of bytes into contents.
class FrameReader {
 public:
  static constexpr std::size_t headerLimit = 4096;  // bytes of all header lines of a frame

  // Skips contents of more than `limit` bytes.
  explicit FrameReader(std::size_t limit) : limit_(limit) {}

  void add(std::string_view bytes) { buffer_ += bytes; }

  // The next complete frame, if there is one. Where the bytes are no frame, it goes on at the next
  // "Content-Length:".
  std::optional<Frame> next();

 private:
  std::optional<Frame> takeHeader();
  Frame badHeader(std::size_t size);

  std::size_t limit_;
  std::string buffer_;
  std::optional<std::size_t> length_;  // of the content that follows, after its header
  std::size_t skipped_ = 0;            // how much of the following bytes is of no use
};

}  // namespace lsp

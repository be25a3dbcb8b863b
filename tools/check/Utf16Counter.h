// Counts UTF-16 code units. Editors, SARIF and the language server protocol give columns in this
// unit, while the checker counts bytes. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace check {

// Each sequence of bytes that is not UTF-8 counts as one unit, because decoders show one
// replacement character for it.
class Utf16Counter {
 public:
  // Counts the next piece of a text. A character may span several pieces.
  void add(std::string_view piece);

  // The units of the characters that are complete.
  std::size_t count() const { return count_; }
  // The same if the text ends here, where an incomplete character counts as one unit.
  std::size_t countToEnd() const { return count_ + (missing_ > 0 ? 1 : 0); }

 private:
  void add(unsigned char byte);
  void begin(unsigned char byte);

  std::size_t count_ = 0;
  unsigned char size_ = 0;     // of the unfinished character, in bytes
  unsigned char missing_ = 0;  // how many of them are still to come
  unsigned char first_ = 0;    // the range of the next byte
  unsigned char last_ = 0;
};

}  // namespace check

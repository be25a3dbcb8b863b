#include "tools/check/Utf16Counter.h"

namespace check {

void Utf16Counter::add(std::string_view piece) {
  for (const char byte : piece) add(static_cast<unsigned char>(byte));
}

void Utf16Counter::add(unsigned char byte) {
  if (missing_ > 0 && (byte < first_ || byte > last_)) {
    ++count_;  // for the incomplete character
    missing_ = 0;
  }
  if (missing_ == 0) return begin(byte);
  first_ = 0x80;
  last_ = 0xBF;
  if (--missing_ == 0) count_ += size_ == 4 ? 2 : 1;
}

// The ranges exclude overlong forms, surrogates and what lies above U+10FFFF.
void Utf16Counter::begin(unsigned char byte) {
  if (byte < 0xC2 || byte > 0xF4) {
    ++count_;
    return;
  }
  size_ = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
  missing_ = size_ - 1;
  first_ = byte == 0xE0 ? 0xA0 : byte == 0xF0 ? 0x90 : 0x80;
  last_ = byte == 0xED ? 0x9F : byte == 0xF4 ? 0x8F : 0xBF;
}

}  // namespace check

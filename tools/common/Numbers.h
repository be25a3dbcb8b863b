// Numbers that users write. Any thread.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace tools {

// The number that the whole text is, without blanks around it. Nothing if the text is no number, or
// one that a Number can't hold.
template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// Nothing if the text is a number from `least` to `most`; otherwise a message that says so.
std::string checkNumber(std::string_view text, double least, double most);

}  // namespace tools

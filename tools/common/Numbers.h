// Numbers that users write. Any thread.
#pragma once

#include <fmt/format.h>

#include <charconv>
#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace tools {

// The number that the whole text spells, with no blanks around it. Nothing if the text isn't a
// number, or is one that a Number can't hold.
template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// Whether the whole text spells a number, but one that a Number can't hold.
template <class Number>
bool isOutOfRange(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc::result_out_of_range && stop == end;
}

// A check of an option's value for CLI11: a function that returns an error message, or nothing if
// the text is a number from `least` to `most`. An integral Number demands whole numbers.
template <typename Number>
auto numbersFrom(Number least, Number most) {
  return [=](const std::string& text) -> std::string {
    const auto number = numberIn<Number>(text);
    if (number && *number >= least && *number <= most) return {};
    if constexpr (std::integral<Number>) {
      return fmt::format("\"{}\" is not a whole number from {} to {}", text, least, most);
    } else {
      return fmt::format("\"{}\" is not a number from {:.10} to {:.10}", text, least, most);
    }
  };
}

}  // namespace tools

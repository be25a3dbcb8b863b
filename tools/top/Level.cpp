#include "tools/top/Level.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <variant>

namespace top {
namespace {

// The next of 1, 2, 5, 10, 20, 50 ... that is not smaller, except for the rounding of a float.
double roundedUp(double value) {
  const double power = std::pow(10, std::floor(std::log10(value)));
  for (const double step : {1, 2, 5}) {
    if (step >= value / power * (1 - 1e-6)) return step * power;
  }
  return 10 * power;
}

// The upper end of a scale. It is at least 1, for ratios, unless all values so far are far below.
double endAbove(double high) {
  if (high <= 0) return 1;
  return high < 1e-3 ? roundedUp(high) : std::max(1.0, roundedUp(high));
}

}  // namespace

void Seen::add(const standin::SlotValue& value) {
  const double number = numberOf(value);
  if (!std::isfinite(number)) return;
  values_.low = hasAny_ ? std::min(values_.low, number) : number;
  values_.high = hasAny_ ? std::max(values_.high, number) : number;
  hasAny_ = true;
}

Range Seen::scale(bool isParameter) const {
  const auto [low, high] = values_;
  if (isParameter && low >= -60 && high <= 12) return {-60, 12};
  if (low >= -60 && high <= 0) return {-60, 0};
  if (low >= 0) return {0, endAbove(high)};
  if (low >= -60 && high <= 12 && low < -1) return {-60, 12};
  const double size = roundedUp(std::max(-low, high));
  return {-size, high <= 0 ? 0 : size};
}

double numberOf(const standin::SlotValue& value) {
  return std::visit(
      []<class T>(const T& held) -> double {
        if constexpr (std::is_same_v<T, std::string>) {
          return std::numeric_limits<double>::quiet_NaN();
        } else {
          return held;
        }
      },
      value);
}

Text barOf(double value, const Range& scale, int width) {
  const auto columns = static_cast<std::size_t>(std::max(0, width));
  if (std::isnan(value)) return Text(columns, L' ');
  const double place = std::clamp((value - scale.low) / (scale.high - scale.low), 0.0, 1.0);
  constexpr std::size_t parts = 8;
  const auto filled =
      static_cast<std::size_t>(std::lround(place * static_cast<double>(parts * columns)));
  if (!hasBlocks()) {
    Text bar((filled + parts / 2) / parts, L'#');
    bar.resize(columns, L'-');
    return bar;
  }
  Text bar(filled / parts, L'\u2588');
  // A block of one to seven eighths.
  if (filled % parts > 0) bar += static_cast<wchar_t>(L'\u2590' - filled % parts);
  bar.resize(columns, L' ');
  return bar;
}

}  // namespace top

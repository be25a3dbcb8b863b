// How a number is drawn as a bar: on the scale that the live page uses for it. Any thread.
#pragma once

#include "tools/host/SlotBoard.h"
#include "tools/top/Text.h"

namespace top {

struct Range {
  double low = 0;
  double high = 0;

  bool operator==(const Range&) const = default;
};

// The values that a slot has had.
class Seen {
 public:
  // Ignores texts and numbers that are not finite.
  void add(const standin::SlotValue& value);

  // A scale that holds all of them: decibels where they fit.
  Range scale(bool isParameter) const;

 private:
  bool hasAny_ = false;
  Range values_;
};

// The number in a value; NaN for a text.
double numberOf(const standin::SlotValue& value);

// A bar in exactly `width` columns, as long as the value's place on the scale. It is blank for a
// value that is not a number.
Text barOf(double value, const Range& scale, int width);

}  // namespace top

// What a screen shows, apart from how a terminal draws it. Plain values.
#pragma once

#include <vector>

#include "tools/top/Text.h"

namespace top {

enum class Tone { Plain, Strong, Dim, Good, Warning, Bad };

struct Span {
  Text text;
  Tone tone = Tone::Plain;
};

struct Line {
  std::vector<Span> spans;
  bool isChosen = false;

  Text text() const;
};

using Picture = std::vector<Line>;

struct Size {
  int rows = 0;
  int columns = 0;

  bool operator==(const Size&) const = default;
};

}  // namespace top

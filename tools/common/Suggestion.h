// What somebody who mistyped a word probably meant. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tools {

// The candidate that is closest to `word`, or nothing if none is close: at most a third of the
// word's bytes (at least one) are wrong, where a wrong, missing, surplus or swapped byte and a
// difference of case count alike. Of equally close ones the first.
std::string closestTo(std::string_view word, const std::vector<std::string>& candidates);

// The end of a message about `word`, to be put behind it: ", did you mean \"out_gain\"?", or
// nothing.
std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tools

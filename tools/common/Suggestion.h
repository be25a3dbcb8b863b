// Suggestions for mistyped words. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tools {

// The candidate closest to `word`, or nothing if none is close. A close candidate differs in at
// most a third of the word's bytes (at least one). A wrong, missing, extra or swapped byte and a
// difference in case each count as one. Of equally close candidates, the first.
std::string closestTo(std::string_view word, const std::vector<std::string>& candidates);

// The end of a message about `word`: ", did you mean \"out_gain\"?", or nothing.
std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tools

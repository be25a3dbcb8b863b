// Rules about the default value of a meter. Any thread.
#pragma once

#include <vector>

#include "tools/check/EntryFacts.h"

namespace check {

// Judges the word DefaultValue, and adds what is wrong to `findings`.
void judgeDefault(const WordFacts& word, std::vector<Finding>& findings);

}  // namespace check

// Rules about the words of an entry that the module ignores or refuses. Any thread.
//
// Several such words may have been meant as one, so the words are grouped first, and each rule
// judges one group.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "tools/check/EntryFacts.h"

namespace check {

// Words that belong together, and what the module makes of them.
struct Group {
  enum class Kind {
    Known,    // a word of the entry
    Refused,  // a word that the entry does not accept
    Spaced,   // "Key = a": several words where one was meant
    Ignored,  // words that the module ignores
    Comment,  // from here on the words were meant as a comment
  };
  Kind kind = Kind::Known;
  std::size_t first = 0;
  std::size_t size = 1;

  std::size_t last() const { return first + size - 1; }
};

// The groups of the value. A comment covers the rest of the value, but the module still reads the
// words in it, so these form groups as well. Words in a comment that it ignores form none.
std::vector<Group> groupsOf(const EntryFacts& facts);

using GroupRule = MaybeFinding (*)(const EntryFacts& facts, const Group& group);
std::span<const GroupRule> groupRules();

}  // namespace check

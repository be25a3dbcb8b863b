// Bytes of a file as people can read them. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace check {

// Whether the text is UTF-8, as messages on the wire have to be.
bool isUtf8(std::string_view text);

// Control characters, and others that nobody sees or takes for what they are: blanks that are no
// blanks to the module, marks of the direction or of the byte order.
bool hasUnseenCharacter(std::string_view text);
bool beginsUnseen(std::string_view text);

// The text in double quotes, for a message: bytes that can't be shown as \xNN, a long one shortened
// in the middle.
std::string inQuotes(std::string_view text);

// A line, or the part of a long one around a place, with one column for each character.
struct Excerpt {
  std::string text;    // unseen characters and bytes that are not UTF-8 shown as "?"
  std::string marker;  // blanks and a caret below the place
};
Excerpt excerptOf(std::string_view line, std::size_t begin, std::size_t size);

// "1 error", "2 errors".
std::string counted(std::size_t count, std::string_view noun);

}  // namespace check

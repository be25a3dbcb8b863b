// Text for a terminal: characters of known width, and nothing that a terminal would take as a
// command.
//
// What counts as a character follows the locale's LC_CTYPE. Any thread, but not while setlocale
// runs.
#pragma once

#include <string>
#include <string_view>

namespace top {

using Text = std::wstring;

// Takes LC_CTYPE from the environment if that is UTF-8, and otherwise sets "C", in which everything
// beyond ASCII is escaped. Call it before any other thread runs.
void followLocale();
// Sets UTF-8 whatever the environment says, for output that programs read.
void useUtf8();

// Whether block characters can be shown.
bool hasBlocks();

// Escapes, as \x and two digits, each byte of control characters, invalid UTF-8, the backslash, and
// characters that only change how others are drawn. Terminals disagree about the width of the last
// kind, and a text can use some of them to look like another text.
Text textOf(std::string_view bytes);

// In columns: a character takes none, one or two.
int widthOf(const Text& text);

// The text in exactly `width` columns: padded with blanks, or cut, with a mark at its end.
Text fitted(const Text& text, int width);
// The same, padded on its left.
Text fittedRight(const Text& text, int width);

// In the locale's encoding.
std::string bytesOf(const Text& text);

}  // namespace top

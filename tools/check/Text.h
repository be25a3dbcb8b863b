// Shows the bytes of a file so that people can read them. Any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace check {

// Whether the text is valid UTF-8, which gRPC messages require.
bool isUtf8(std::string_view text);

// How many bytes do not belong in a text: control characters other than white space, and bytes that
// are not UTF-8. An incomplete character at the end does not count.
std::size_t badBytesIn(std::string_view text);

// Invisible characters: control characters, spaces that the module does not treat as white space,
// direction marks and byte order marks.
bool hasUnseenCharacter(std::string_view text);
bool beginsUnseen(std::string_view text);

// The text in double quotes, for a message. Bytes that can't be shown become \xNN. A long text is
// shortened in the middle.
std::string inQuotes(std::string_view text);

// The size of the first UTF-8 character of `text` in bytes, or 0 if it is invalid. A receiver of
// messages accepts only shortest forms, no surrogates, and nothing above U+10FFFF.
std::size_t characterSize(std::string_view text);

// The text with \xNN for each byte of an invisible character and each invalid byte. It can't
// control a terminal.
std::string visible(std::string_view text);

// The same for a text of several lines: keeps their ends, also CRLF, and tabs.
std::string visibleLines(std::string_view text);

// Calls `use` with each valid character and each invalid byte, and with whether it is valid.
template <class Use>
void eachCharacter(std::string_view text, Use use) {
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    use(text.substr(0, std::max<std::size_t>(size, 1)), size > 0);
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
}

// How many columns of a terminal the text takes: wide characters take two, combining ones none.
std::size_t columnsOf(std::string_view text);

// A line, or the part of a long line around a place.
struct Excerpt {
  std::string text;    // with "?" for invisible characters and invalid bytes
  std::string marker;  // spaces, and a caret below the place
};
Excerpt excerptOf(std::string_view line, std::size_t begin, std::size_t size);

// The text without the white space around it.
std::string_view trimmed(std::string_view text);

// The text without the quotes around it, if there are any.
std::string_view unquoted(std::string_view text);

// "1 error", "2 errors".
std::string counted(std::size_t count, std::string_view noun);

}  // namespace check

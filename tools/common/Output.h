// Output to the terminal, or to whatever replaces it. It may fail: a full disk, a closed pipe.
// Nothing throws, because threads and callbacks that must not throw write lines, too.
//
// Any thread; each text is written in one piece.
#pragma once

#include <cstddef>
#include <string_view>

namespace tools {

// Writes to standard output, unbuffered. Text that can't be written is lost, and from then on
// outputFailed() returns true.
void writeOut(std::string_view text) noexcept;
bool outputFailed() noexcept;

// The same at the end of a program, for all that it has written to stdout and std::cout.
bool outputIsLost() noexcept;

// Writes to standard error. Text that can't be written is lost.
void writeError(std::string_view text) noexcept;

// Writes a message to standard error: "gatewayctl SUBCOMMAND: TEXT", or "gatewayctl: TEXT" if
// `subcommand` is empty.
void say(std::string_view subcommand, std::string_view text);

// Whether output to `descriptor` may use colours: it is a terminal that is not "dumb", and NO_COLOR
// is unset or empty.
bool showsColours(int descriptor);

// How many columns a line of output to `descriptor` may have: what COLUMNS says, or else the width
// of the terminal, or 80 if it is not a terminal.
std::size_t columnsOf(int descriptor);

}  // namespace tools

// Writing to the terminal, or to whatever stands in its place and may have gone: a full disk, a
// closed pipe. Nothing is thrown, since lines are also written on threads and in callbacks that
// nothing may be thrown through.
//
// Any thread; each text is written whole and at once.
#pragma once

#include <string_view>

namespace tools {

// To standard output, at once. What can't be written is lost, and `outputFailed` from then on.
void writeOut(std::string_view text) noexcept;
bool outputFailed() noexcept;

// To standard error. What can't be written is lost.
void writeError(std::string_view text) noexcept;

// Whether what is written there may be coloured: it is a terminal, and NO_COLOR is not set, or
// empty.
bool showsColours(int descriptor);

}  // namespace tools

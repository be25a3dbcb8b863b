// What kind of terminal the program runs in.
#pragma once

namespace top {

// Throws std::runtime_error, with the reason, unless standard input and output are a terminal that
// can place its cursor.
void requireScreen();

}  // namespace top

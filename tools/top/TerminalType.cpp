// This is a source file of its own, since term.h defines hundreds of macros such as `lines` and
// `tone`.
#include "tools/top/TerminalType.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

// The order matters: term.h needs the types of curses.h.
#include <curses.h>
#include <term.h>

namespace top {
namespace {

[[noreturn]] void fail(const std::string& problem) {
  throw std::runtime_error(problem + "; --batch needs none");
}

}  // namespace

void requireScreen() {
  if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
    fail("standard input and output have to be a terminal");
  }
  const char* const type = std::getenv("TERM");
  const std::string name = type == nullptr ? "" : type;
  int error = 0;
  if (setupterm(nullptr, STDOUT_FILENO, &error) != OK) {
    fail("the terminal type TERM=\"" + name + "\" is unknown here");
  }
  char placeCursor[] = "cup";
  const bool placesCursor = tigetstr(placeCursor) != nullptr;
  del_curterm(cur_term);
  if (!placesCursor) {
    fail("a terminal of type \"" + name + "\" can't place its cursor");
  }
}

}  // namespace top

// The terminal as a screen that is drawn as a whole: keys come in, pictures go out. Only what has
// changed since the previous picture is written.
//
// Threads: only the one that made it. Only one screen can exist at a time.
// Ownership: takes standard input, output and error until it is destroyed, and then restores the
// terminal.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "tools/top/Picture.h"
#include "tools/top/View.h"

struct screen;  // of ncurses, whose header has macros that would reach too far

namespace top {

// Delivers the terminal's signals through a descriptor: it was resized, or the user wants to
// suspend the program. Blocks these signals permanently, also in threads started later, so make it
// before any other thread.
class TerminalSignals {
 public:
  // Throws std::runtime_error if the system runs out of descriptors.
  TerminalSignals();
  ~TerminalSignals();
  TerminalSignals(const TerminalSignals&) = delete;
  TerminalSignals& operator=(const TerminalSignals&) = delete;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

// Captures the standard error of the whole process, line by line, because what a library writes
// there would garble the screen. Lines that nobody takes in time are lost, since a writer must not
// wait.
class ErrorLines {
 public:
  ErrorLines();
  // Restores standard error.
  ~ErrorLines();
  ErrorLines(const ErrorLines&) = delete;
  ErrorLines& operator=(const ErrorLines&) = delete;

  int descriptor() const { return read_; }
  // The lines completed since the last call. Never waits.
  std::vector<std::string> take();

 private:
  int read_ = -1;
  int original_ = -1;
  std::string unfinished_;
};

class Screen {
 public:
  // Borrows the signals. The terminal has to pass requireScreen. Throws std::runtime_error if the
  // system has no memory or descriptor for the screen.
  explicit Screen(const TerminalSignals& signals);
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // Becomes readable when `keys` or `size` has something new.
  int descriptor() const { return descriptor_; }

  using Press = std::variant<wchar_t, Key>;
  // The keys pressed since the last call. Also resizes the screen and suspends the program when the
  // terminal's signals ask for that. Never waits for a key.
  std::vector<Press> keys();
  // Whether no more keys can come, because the terminal has gone.
  bool hasEnded() const { return hasEnded_; }

  Size size() const;
  void draw(const Picture& picture);

 private:
  void openTerminal();
  void obeySignals();
  void takeSize();
  void suspend();
  int attributesOf(Tone tone) const;

  const TerminalSignals& signals_;
  const bool hasColours_;
  int descriptor_ = -1;
  screen* screen_ = nullptr;
  bool hasEnded_ = false;
};

}  // namespace top

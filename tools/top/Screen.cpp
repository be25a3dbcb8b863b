#include "tools/top/Screen.h"

// The wide-character functions of ncurses.
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "tools/common/Output.h"

namespace top {
namespace {

bool watch(int descriptor, int source) {
  epoll_event event{EPOLLIN, {.fd = source}};
  return epoll_ctl(descriptor, EPOLL_CTL_ADD, source, &event) == 0;
}

// How ncurses reports the keys that are not characters.
std::optional<Key> keyOf(wint_t code) {
  switch (code) {
    case KEY_UP:
      return Key::Up;
    case KEY_DOWN:
      return Key::Down;
    case KEY_PPAGE:
      return Key::PageUp;
    case KEY_NPAGE:
      return Key::PageDown;
    case KEY_HOME:
      return Key::Home;
    case KEY_END:
      return Key::End;
    case KEY_ENTER:
      return Key::Enter;
    case KEY_BACKSPACE:
      return Key::Backspace;
  }
  return std::nullopt;
}

// Keys that send a control character.
std::optional<Key> controlKeyOf(wint_t character) {
  switch (character) {
    case L'\r':
    case L'\n':
      return Key::Enter;
    case 0x1b:
      return Key::Escape;
    case 0x08:
    case 0x7f:
      return Key::Backspace;
  }
  return std::nullopt;
}

// The pairs of foreground and background that `attributesOf` refers to.
enum ColourPair : short { GreenPair = 1, YellowPair, RedPair };

void prepareColours() {
  start_color();
  use_default_colors();
  init_pair(GreenPair, COLOR_GREEN, -1);
  init_pair(YellowPair, COLOR_YELLOW, -1);
  init_pair(RedPair, COLOR_RED, -1);
}

}  // namespace

// ---- Signals and standard error ---------------------------------------------------------------

TerminalSignals::TerminalSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGWINCH);
  sigaddset(&set, SIGTSTP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (descriptor_ < 0) {
    throw std::runtime_error("can't wait for signals: no file descriptor is left");
  }
}

TerminalSignals::~TerminalSignals() {
  close(descriptor_);
}

ErrorLines::ErrorLines() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error("can't take standard error: no file descriptor is left");
  }
  std::fflush(stderr);
  read_ = ends[0];
  original_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
}

ErrorLines::~ErrorLines() {
  std::fflush(stderr);
  dup2(original_, STDERR_FILENO);
  close(original_);
  close(read_);
}

std::vector<std::string> ErrorLines::take() {
  std::array<char, 65536> chunk;
  const auto count = read(read_, chunk.data(), chunk.size());
  if (count <= 0) return {};
  unfinished_.append(chunk.data(), static_cast<std::size_t>(count));
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (auto end = unfinished_.find('\n'); end != unfinished_.npos;
       end = unfinished_.find('\n', begin)) {
    lines.push_back(unfinished_.substr(begin, end - begin));
    begin = end + 1;
  }
  unfinished_.erase(0, begin);
  // An unfinished line must not grow without a limit.
  if (unfinished_.size() > chunk.size()) lines.push_back(std::exchange(unfinished_, {}));
  return lines;
}

// ---- The terminal -----------------------------------------------------------------------------

Screen::Screen(const TerminalSignals& signals)
    : signals_(signals), hasColours_(tools::showsColours(STDOUT_FILENO)) {
  descriptor_ = epoll_create1(EPOLL_CLOEXEC);
  if (!watch(descriptor_, STDIN_FILENO) || !watch(descriptor_, signals_.descriptor())) {
    close(descriptor_);
    throw std::runtime_error("can't wait for keys: no file descriptor is left");
  }
  openTerminal();
}

void Screen::openTerminal() {
  screen_ = newterm(nullptr, stdout, stdin);
  if (screen_ == nullptr) {
    throw std::runtime_error("the terminal can't be used as a screen");
  }
  if (hasColours_ && has_colors()) prepareColours();
  cbreak();
  noecho();
  nonl();
  curs_set(0);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  // How long the rest of a key's escape sequence may take, in milliseconds.
  set_escdelay(100);
  takeSize();
}

Screen::~Screen() {
  endwin();
  delscreen(screen_);
  close(descriptor_);
}

std::vector<Screen::Press> Screen::keys() {
  obeySignals();
  std::vector<Press> keys;
  wint_t code = 0;
  for (int kind = wget_wch(stdscr, &code); kind != ERR; kind = wget_wch(stdscr, &code)) {
    const auto key = kind == KEY_CODE_YES ? keyOf(code) : controlKeyOf(code);
    if (key) {
      keys.emplace_back(*key);
    } else if (kind == OK) {
      keys.emplace_back(static_cast<wchar_t>(code));
    }
  }
  // A terminal that has gone stays readable, but delivers no keys.
  pollfd input{STDIN_FILENO, POLLIN, 0};
  hasEnded_ = poll(&input, 1, 0) > 0 && (input.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
  return keys;
}

void Screen::obeySignals() {
  signalfd_siginfo signal;
  while (read(signals_.descriptor(), &signal, sizeof signal) == sizeof signal) {
    if (signal.ssi_signo == SIGTSTP) suspend();
    takeSize();
  }
}

// Tells ncurses the size, since it would believe the environment, which may name another one.
void Screen::takeSize() {
  const Size now = size();
  resizeterm(now.rows, now.columns);
}

void Screen::suspend() {
  endwin();
  std::raise(SIGSTOP);
  // The process continues here. The next drawing takes the terminal back.
  clearok(curscr, TRUE);
}

Size Screen::size() const {
  winsize window{};
  const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0;
  if (!isKnown || window.ws_row == 0 || window.ws_col == 0) return {24, 80};
  return {window.ws_row, window.ws_col};
}

int Screen::attributesOf(Tone tone) const {
  const auto coloured = [this](short pair) {
    return hasColours_ && has_colors() ? static_cast<int>(COLOR_PAIR(pair)) : 0;
  };
  switch (tone) {
    case Tone::Plain:
      return 0;
    case Tone::Strong:
      return static_cast<int>(A_BOLD);
    case Tone::Dim:
      return static_cast<int>(A_DIM);
    case Tone::Good:
      return coloured(GreenPair);
    case Tone::Warning:
      return coloured(YellowPair);
    case Tone::Bad:
      break;
  }
  return coloured(RedPair) | static_cast<int>(A_BOLD);
}

void Screen::draw(const Picture& picture) {
  erase();
  int y = 0;
  for (const Line& line : picture) {
    move(y++, 0);
    for (const Span& span : line.spans) {
      const int chosen = line.isChosen ? static_cast<int>(A_REVERSE) : 0;
      attrset(attributesOf(span.tone) | chosen);
      addnwstr(span.text.data(), static_cast<int>(span.text.size()));
    }
  }
  attrset(0);
  refresh();
}

}  // namespace top

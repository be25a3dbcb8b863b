// The screen of `gatewayctl top`: what it shows of a running module, and what its keys do.
//
// From top to bottom: the module, its links, the slots, the chosen slot, the log. A small terminal
// shows less of each, but always at least one link.
//
// Threads: one at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"
#include "tools/top/Picture.h"
#include "tools/top/SlotList.h"

namespace top {

// The keys that are not characters.
enum class Key { Up, Down, PageUp, PageDown, Home, End, Enter, Escape, Backspace };

class View {
 public:
  // The keys, as entries of the manual whose meanings start at `column`.
  static std::string manual(std::size_t column);

  // Borrows both.
  View(const host::RunningModule& module, const host::LogBook& log);

  void filter(const std::string& words);
  void sort(const Sorting& sorting) { slots_.sort(sorting); }

  // Takes the latest values, and the slots after a reload, unless the values are paused. Sorts them
  // again from time to time.
  void update();

  // Carries out a key. False for the key that ends the program.
  bool press(wchar_t character);
  bool press(Key key);

  // In exactly this size.
  Picture picture(const Size& size);

  // All that the screen shows, in full and without bars, for programs.
  std::string plainText() const;

 private:
  struct Command;
  struct Columns;

  bool obey(wchar_t character);
  void edit(wchar_t character);
  void eraseLast();
  void toggle(Order order);
  void takeReload();
  void move(std::ptrdiff_t rows);
  void scrollTo(std::size_t rows);

  Columns columnsFor(int width) const;
  Line title() const;
  Line facts() const;
  Picture links(bool isShort) const;
  Line heading(const Columns& columns) const;
  Line row(std::size_t index, const Columns& columns) const;
  Line footer() const;
  Picture slots(std::size_t rows, int width);
  Picture help(std::size_t rows);
  Picture details() const;

  const host::RunningModule& module_;
  const host::LogBook& log_;
  SlotList slots_;
  Clock::time_point nextOrder_;  // when to sort again
  std::optional<std::chrono::system_clock::time_point> pausedAt_;
  std::string filter_;
  bool isEditing_ = false;  // whether the filter is being typed
  bool isHelp_ = false;
  std::size_t helpFirst_ = 0;
  std::size_t chosen_ = 0;  // place among the shown slots
  std::size_t first_ = 0;   // the topmost one on the screen
  std::size_t pageRows_ = 1;
};

}  // namespace top

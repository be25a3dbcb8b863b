#include "tools/top/View.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "tools/common/ManualText.h"
#include "tools/host/Reporter.h"

namespace top {
namespace {

using host::LinkState;

constexpr std::chrono::milliseconds orderPeriod{500};
constexpr int gap = 2;  // columns between columns

// ---- Words ------------------------------------------------------------------------------------

Text textOfAge(const SlotRow& row, Clock::time_point now) {
  return textOf(row.state.hasMoved() ? host::ageText(now - row.state.changed) : "unchanged");
}

std::string clockText(std::chrono::system_clock::time_point time) {
  return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(time)));
}

std::string uptimeText(std::chrono::system_clock::duration time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  const auto days = seconds / std::chrono::hours(24);
  const std::string clock = fmt::format("{:%T}", seconds % std::chrono::hours(24));
  return days > 0 ? fmt::format("{} d {}", days, clock) : clock;
}

// What is wrong stands out, as on the live page.
Tone toneOf(LinkState state) {
  switch (state) {
    case LinkState::Off:
    case LinkState::Idle:
      return Tone::Dim;
    case LinkState::Connected:
    case LinkState::Receiving:
      return Tone::Good;
    case LinkState::Unknown:
    case LinkState::Connecting:
    case LinkState::Waiting:
    case LinkState::Silent:
      return Tone::Warning;
    case LinkState::NoServer:
    case LinkState::Failing:
      break;
  }
  return Tone::Bad;
}

Line lineOf(const host::Link& link) {
  const Text name = textOf(standin::nameOf(link.set));
  return {{{name + L": "}, {textOf(link.words), toneOf(link.state)}}};
}

struct Tones {
  Tone text;
  Tone bar;
  Tone age;
};

Tones tonesOf(Freshness freshness) {
  switch (freshness) {
    case Freshness::Changing:
      return {Tone::Plain, Tone::Good, Tone::Plain};
    case Freshness::Stale:
      return {Tone::Dim, Tone::Dim, Tone::Warning};
    case Freshness::Unchanged:
      return {Tone::Dim, Tone::Dim, Tone::Dim};
    case Freshness::Parameter:
      break;
  }
  return {Tone::Plain, Tone::Plain, Tone::Plain};
}

std::string logText(const host::LogBook& log) {
  const auto counts = log.counts();
  std::string text = "log:";
  std::size_t all = 0;
  for (std::size_t i = counts.size(); i-- > 0;) {
    all += counts[i];
    if (counts[i] > 0) text += fmt::format(" {} {},", counts[i], host::levelNames[i]);
  }
  if (all == 0) return "log: empty";
  const auto lines = log.linesFrom(all - 1).lines;
  text.back() = ';';
  if (lines.empty()) return text;
  return fmt::format("{} {} {}", text, clockText(lines.back().time), lines.back().text);
}

Line fittedLine(const Line& line, int width) {
  Line cut{{}, line.isChosen};
  for (const Span& span : line.spans) {
    const int used = widthOf(cut.text());
    if (used >= width) break;
    const int own = widthOf(span.text);
    cut.spans.push_back({fitted(span.text, std::min(own, width - used)), span.tone});
  }
  cut.spans.push_back({fitted({}, width - widthOf(cut.text()))});
  return cut;
}

void append(Picture& to, Picture lines) {
  for (Line& line : lines) to.push_back(std::move(line));
}

// The letters that move as the keys of pagers do.
std::optional<Key> movementOf(wchar_t character) {
  switch (character) {
    case L'j':
      return Key::Down;
    case L'k':
      return Key::Up;
    case L'g':
      return Key::Home;
    case L'G':
      return Key::End;
  }
  return std::nullopt;
}

}  // namespace

Text Line::text() const {
  Text whole;
  for (const Span& span : spans) whole += span.text;
  return whole;
}

// ---- Keys -------------------------------------------------------------------------------------

struct View::Command {
  std::string_view keys;
  std::string_view effect;
};

std::string View::manual(std::size_t column) {
  constexpr std::array<Command, 10> commands{{
      {"Up, Down, j, k", "Choose the slot above or below."},
      {"PageUp, PageDown", "Go a screen up or down."},
      {"Home, End, g, G", "Go to the first or the last slot."},
      {"/",
       "Type words for the filter: a slot is shown if its name or key contains each of them. "
       "Enter keeps the filter, Escape removes it."},
      {"n, v, a, c", "Sort by name, value, age or changes. The same key again reverses the order."},
      {"o", "Show the slots in the order of the configuration."},
      {"r", "Reverse the order."},
      {"p, Space", "Pause the values, or resume. The states of connections are never paused."},
      {"?, h", "Show the keys. The arrow keys scroll them, and Enter closes them."},
      {"q", "Stop the module and end."},
  }};
  std::string text;
  for (const Command& command : commands) {
    text += tools::manualEntry(command.keys, command.effect, column);
  }
  return text;
}

View::View(const host::RunningModule& module, const host::LogBook& log)
    : module_(module), log_(log), slots_(module.board()) {}

bool View::press(wchar_t character) {
  if (isEditing_) {
    edit(character);
    return true;
  }
  if (isHelp_ && character != L'q') {
    isHelp_ = false;
    return true;
  }
  return obey(character);
}

bool View::obey(wchar_t character) {
  if (const auto key = movementOf(character)) {
    press(*key);
    return true;
  }
  switch (character) {
    case L'q':
      return false;
    case L'/':
      isEditing_ = true;
      break;
    case L'n':
      toggle(Order::Name);
      break;
    case L'v':
      toggle(Order::Value);
      break;
    case L'a':
      toggle(Order::Age);
      break;
    case L'c':
      toggle(Order::Changes);
      break;
    case L'o':
      slots_.sort({});
      break;
    case L'r':
      slots_.sort({slots_.sorting().by, !slots_.sorting().isReversed});
      break;
    case L'p':
    case L' ':
      pausedAt_ = pausedAt_ ? std::nullopt : std::optional(std::chrono::system_clock::now());
      break;
    case L'?':
    case L'h':
      isHelp_ = true;
      helpFirst_ = 0;
      break;
  }
  return true;
}

void View::toggle(Order order) {
  const auto [by, isReversed] = slots_.sorting();
  slots_.sort(by == order ? Sorting{order, !isReversed} : sortingBy(order));
}

void View::edit(wchar_t character) {
  constexpr wchar_t clear = L'U' - L'@';
  filter(character == clear ? "" : filter_ + bytesOf(Text(1, character)));
}

bool View::press(Key key) {
  const auto page = static_cast<std::ptrdiff_t>(pageRows_);
  const auto all = static_cast<std::ptrdiff_t>(slots_.size());
  switch (key) {
    case Key::Up:
      move(-1);
      break;
    case Key::Down:
      move(1);
      break;
    case Key::PageUp:
      move(-page);
      break;
    case Key::PageDown:
      move(page);
      break;
    case Key::Home:
      move(-all);
      break;
    case Key::End:
      move(all);
      break;
    case Key::Enter:
      isEditing_ = isHelp_ = false;
      break;
    case Key::Escape:
      if (!isHelp_) filter("");
      isEditing_ = isHelp_ = false;
      break;
    case Key::Backspace:
      if (isEditing_) eraseLast();
      break;
  }
  return true;
}

// Erases a whole character: the bytes that continue it, and the one that begins it.
void View::eraseLast() {
  const auto isContinuation = [](char byte) { return (byte & 0xc0) == 0x80; };
  while (!filter_.empty() && isContinuation(filter_.back())) filter_.pop_back();
  if (!filter_.empty()) filter_.pop_back();
  filter(filter_);
}

void View::move(std::ptrdiff_t rows) {
  const auto moved = [&](std::size_t from, std::size_t count) {
    const auto last = static_cast<std::ptrdiff_t>(count) - 1;
    const auto to = std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(from) + rows, 0,
                                               std::max<std::ptrdiff_t>(0, last));
    return static_cast<std::size_t>(to);
  };
  if (isHelp_) {
    helpFirst_ += static_cast<std::size_t>(
        std::max<std::ptrdiff_t>(rows, -static_cast<std::ptrdiff_t>(helpFirst_)));
  } else {
    chosen_ = moved(chosen_, slots_.shown().size());
  }
}

void View::filter(const std::string& words) {
  filter_ = words;
  slots_.filter(words);
}

void View::takeReload() {
  const Sorting sorting = slots_.sorting();
  slots_ = SlotList(module_.board());
  slots_.sort(sorting);
  slots_.filter(filter_);
}

void View::update() {
  if (pausedAt_) return;
  if (slots_.board() != module_.board().get()) takeReload();
  slots_.update();
  if (!slots_.isMoving() || slots_.time() < nextOrder_) return;
  slots_.arrange();
  nextOrder_ = slots_.time() + orderPeriod;
}

// ---- Parts of the screen ----------------------------------------------------------------------

Line View::title() const {
  const auto& setup = module_.setup();
  const auto uptime = std::chrono::system_clock::now() - module_.startTime();
  return {{{textOf(setup.name), Tone::Strong},
           {textOf(fmt::format("  up {}  ", uptimeText(uptime)))},
           {textOf(setup.config), Tone::Dim}}};
}

Line View::facts() const {
  const auto [by, isReversed] = slots_.sorting();
  std::string order;
  if (by != Order::Configured) order = fmt::format("  by {}", nameOf(by));
  if (isReversed) order += by == Order::Configured ? "  reversed" : ", descending";
  const std::string count =
      slots_.shown().size() == slots_.size()
          ? fmt::format("{} slots", slots_.size())
          : fmt::format("{} of {} slots", slots_.shown().size(), slots_.size());
  Line line{{{textOf(count + order)}}};
  if (!filter_.empty()) {
    line.spans.push_back({L"  filter: " + textOf(filter_), Tone::Strong});
  }
  if (pausedAt_) {
    line.spans.push_back({textOf("  values paused at " + clockText(*pausedAt_)), Tone::Warning});
  }
  return line;
}

// All links; if `isShort`, only the worst.
Picture View::links(bool isShort) const {
  const host::Links links = module_.links();
  if (!isShort) return {lineOf(links[0]), lineOf(links[1]), lineOf(links[2])};
  constexpr std::array byWeight{Tone::Bad, Tone::Warning, Tone::Good, Tone::Dim};
  const auto weight = [&](const host::Link& link) {
    return std::find(byWeight.begin(), byWeight.end(), toneOf(link.state));
  };
  return {lineOf(*std::min_element(links.begin(), links.end(), [&](const auto& a, const auto& b) {
    return weight(a) < weight(b);
  }))};
}

// The widths of the columns, 0 for one that does not fit.
struct View::Columns {
  int name = 0;
  int value = 0;
  int bar = 0;
  int age = 0;
  int changes = 0;
  int set = 0;
};

View::Columns View::columnsFor(int width) const {
  Columns columns;
  columns.value = std::min(14, width / 2);
  columns.age = width >= 40 ? 9 : 0;
  columns.changes = columns.set = width >= 80 ? 9 : 0;
  int left = width - columns.value - gap;
  for (const int other : {columns.age, columns.changes, columns.set}) {
    if (other > 0) left -= other + gap;
  }
  columns.name = std::max(0, left);
  if (width < 60) return columns;
  constexpr int leastBar = 10;
  const int longest = std::max(slots_.nameWidth(), 4);
  columns.name = std::clamp(left - 40, std::min(longest, left - leastBar - gap), longest);
  columns.bar = left - columns.name - gap;
  return columns;
}

Line View::heading(const Columns& columns) const {
  const Text blanks(gap, L' ');
  Text text = fitted(L"NAME", columns.name) + blanks + fittedRight(L"VALUE", columns.value);
  if (columns.bar > 0) text += blanks + fitted(L"LEVEL", columns.bar);
  if (columns.age > 0) text += blanks + fittedRight(L"AGE", columns.age);
  if (columns.changes > 0) text += blanks + fittedRight(L"CHANGES", columns.changes);
  if (columns.set > 0) text += blanks + fitted(L"SET", columns.set);
  return {{{text, Tone::Strong}}};
}

Line View::row(std::size_t index, const Columns& columns) const {
  const SlotRow& slot = slots_.row(index);
  const Text blanks(gap, L' ');
  const auto tones = tonesOf(slot.freshness(slots_.time()));
  const bool isParameter = slot.label.set == standin::SlotSet::Engine;
  const Text value = textOf(standin::textOf(slot.state.value));
  Line line{{{fitted(textOf(slot.label.name), columns.name) + blanks, tones.text}}};
  const auto add = [&](const Text& text, Tone tone) { line.spans.push_back({text, tone}); };
  if (slot.label.type == gateway::ValueType::String) {
    // A text may use the column of the bar, too.
    const int width = columns.value + (columns.bar > 0 ? gap + columns.bar : 0);
    add(fitted(value, width), tones.text);
  } else {
    add(fittedRight(value, columns.value), tones.text);
    const double number = numberOf(slot.state.value);
    if (columns.bar > 0) {
      add(blanks + barOf(number, slot.seen.scale(isParameter), columns.bar), tones.bar);
    }
  }
  if (columns.age > 0) {
    add(blanks + fittedRight(textOfAge(slot, slots_.time()), columns.age), tones.age);
  }
  if (columns.changes > 0) {
    add(blanks + fittedRight(textOf(std::to_string(slot.state.changes)), columns.changes),
        tones.text);
  }
  if (columns.set > 0) {
    add(blanks + fitted(textOf(standin::nameOf(slot.label.set)), columns.set), Tone::Dim);
  }
  return line;
}

Line View::footer() const {
  if (isEditing_) return {{{L"filter: " + textOf(filter_) + L"_", Tone::Strong}}};
  if (isHelp_) return {{{L"Enter closes the help", Tone::Dim}}};
  return {{{L"? help  q quit  ", Tone::Dim}, {textOf(logText(log_))}}};
}

// Keeps the chosen row on the screen.
void View::scrollTo(std::size_t rows) {
  const std::size_t count = slots_.shown().size();
  chosen_ = std::min(chosen_, count == 0 ? 0 : count - 1);
  if (chosen_ < first_) first_ = chosen_;
  if (chosen_ >= first_ + rows) first_ = chosen_ - rows + 1;
  first_ = std::min(first_, count > rows ? count - rows : 0);
}

Picture View::slots(std::size_t rows, int width) {
  pageRows_ = std::max<std::size_t>(1, rows);
  scrollTo(pageRows_);
  const Columns columns = columnsFor(width);
  Picture picture;
  const std::size_t end = std::min(first_ + rows, slots_.shown().size());
  for (std::size_t place = first_; place < end; ++place) {
    picture.push_back(row(slots_.shown()[place], columns));
    picture.back().isChosen = place == chosen_;
  }
  return picture;
}

Picture View::help(std::size_t rows) {
  constexpr std::size_t column = 20;
  Picture lines;
  const std::string text = manual(column);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    lines.push_back({{{textOf(std::string_view(text).substr(at, end - at))}}});
    at = end + 1;
  }
  helpFirst_ = std::min(helpFirst_, lines.size() > rows ? lines.size() - rows : 0);
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(helpFirst_));
  return lines;
}

// The chosen slot in full, in two lines.
Picture View::details() const {
  if (slots_.shown().empty()) return {{}, {}};
  const SlotRow& slot = slots_.row(slots_.shown()[chosen_]);
  const auto [low, high] = slot.seen.scale(slot.label.set == standin::SlotSet::Engine);
  std::string first = fmt::format("{} {} {}", standin::nameOf(slot.label.set),
                                  nameOf(slot.label.type), slot.label.name);
  if (!slot.label.key.empty()) first += "  key: " + slot.label.key;
  std::string second = standin::textOf(slot.state.value);
  if (slot.label.type != gateway::ValueType::String) {
    second += fmt::format("  scale: {} to {}", low, high);
  }
  return {{{{textOf(first), Tone::Dim}}}, {{{textOf(second), Tone::Dim}}}};
}

// ---- The screen -------------------------------------------------------------------------------

Picture View::picture(const Size& size) {
  const auto rows = static_cast<std::size_t>(std::max(0, size.rows));
  const bool isTall = rows >= 12;
  Picture picture;
  if (isTall) picture.push_back(title());
  append(picture, links(!isTall));
  if (rows >= 8) picture.push_back(facts());
  if (rows >= 6 && !isHelp_) picture.push_back(heading(columnsFor(size.columns)));
  const bool hasDetails = isTall && !isHelp_;
  const bool hasFooter = rows >= 3;
  const std::size_t below = (hasDetails ? 2 : 0) + (hasFooter ? 1 : 0);
  const std::size_t end = rows - std::min(rows, below);
  const std::size_t left = end - std::min(end, picture.size());
  append(picture, isHelp_ ? help(left) : slots(left, size.columns));
  picture.resize(end);
  if (hasDetails) append(picture, details());
  if (hasFooter) picture.push_back(footer());
  for (Line& line : picture) line = fittedLine(line, size.columns);
  return picture;
}

std::string View::plainText() const {
  std::string text = bytesOf(title().text()) + "\n";
  for (const Line& line : links(false)) text += bytesOf(line.text()) + "\n";
  text += bytesOf(facts().text()) + "\n\n";
  std::vector<std::array<Text, 6>> table{{L"SET", L"NAME", L"VALUE", L"AGE", L"CHANGES", L"KEY"}};
  for (const std::size_t index : slots_.shown()) {
    const SlotRow& slot = slots_.row(index);
    table.push_back({textOf(standin::nameOf(slot.label.set)), textOf(slot.label.name),
                     textOf(standin::textOf(slot.state.value)), textOfAge(slot, slots_.time()),
                     textOf(std::to_string(slot.state.changes)), textOf(slot.label.key)});
  }
  std::array<int, 6> widths{};
  for (const auto& cells : table) {
    for (std::size_t i = 0; i < cells.size(); ++i)
      widths[i] = std::max(widths[i], widthOf(cells[i]));
  }
  for (const auto& cells : table) {
    Text line;
    for (std::size_t i = 0; i < cells.size(); ++i) line += fitted(cells[i], widths[i] + gap);
    text += bytesOf(line.substr(0, line.find_last_not_of(L' ') + 1)) + "\n";
  }
  return text;
}

}  // namespace top

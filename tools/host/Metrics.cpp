#include "tools/host/Metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/common/ConfiguredSlots.h"

namespace host {
namespace {

using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;
using Seconds = std::chrono::duration<double>;

// The size in bytes of the UTF-8 character that begins here; 0 if none does.
std::size_t characterSize(std::string_view text) {
  if (static_cast<unsigned char>(text.front()) < 0x80) return 1;
  constexpr int compact = -1;
  const auto ignore = nlohmann::json::error_handler_t::ignore;
  for (std::size_t size = 2; size <= std::min<std::size_t>(4, text.size()); ++size) {
    const auto character = text.substr(0, size);
    const std::string valid = nlohmann::json(character).dump(compact, ' ', false, ignore);
    if (valid == fmt::format("\"{}\"", character)) return size;
  }
  return 0;
}

void addEscaped(std::string& to, char c) {
  if (c == '\\' || c == '"') to += '\\';
  if (c == '\n') {
    to += "\\n";
  } else {
    to += c;
  }
}

// Escapes each byte that is not UTF-8 as \xff, so that different labels stay different: a scrape
// with two series of the same labels is rejected as a whole.
std::string labelText(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    if (size == 0) {
      escaped += fmt::format("\\\\x{:02x}", static_cast<unsigned char>(text.front()));
    } else if (size == 1) {
      addEscaped(escaped, text.front());
    } else {
      escaped += text.substr(0, size);
    }
    text.remove_prefix(std::max<std::size_t>(1, size));
  }
  return escaped;
}

std::string numberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  return fmt::format("{}", value);
}

// Floats as everywhere else: in the shortest form that reads back as the same float.
struct NumberText {
  std::string operator()(const std::string&) const { return {}; }
  std::string operator()(float value) const {
    return std::isfinite(value) ? fmt::format("{}", value) : numberText(value);
  }
  template <class T>
  std::string operator()(T value) const {
    return fmt::format("{}", value);
  }
};

class Text {
 public:
  void family(std::string_view name, std::string_view type, std::string_view help) {
    fmt::format_to(std::back_inserter(text_), "# HELP {0} {2}\n# TYPE {0} {1}\n", name, type, help);
  }

  void sample(std::string_view name, const Labels& labels, std::string_view number) {
    text_ += name;
    char before = '{';
    for (const auto& [label, value] : labels) {
      fmt::format_to(std::back_inserter(text_), "{}{}=\"{}\"", before, label, labelText(value));
      before = ',';
    }
    fmt::format_to(std::back_inserter(text_), "{} {}\n", labels.size() == 0 ? "" : "}", number);
  }

  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

template <class NumberOf>
void addSlots(Text& text, std::string_view metric, const SlotBoard& board,
              const std::vector<SlotState>& states, const NumberOf& numberOf) {
  for (std::size_t i = 0; i < states.size(); ++i) {
    const SlotLabel& label = board.labels()[i];
    const std::string number = numberOf(states[i]);
    if (number.empty()) continue;
    text.sample(metric,
                {{"set", standin::nameOf(label.set)},
                 {"type", nameOf(label.type)},
                 {"name", label.name},
                 {"key", label.key}},
                number);
  }
}

template <class Use>
void forKnown(const Links& links, const Use& use) {
  for (const Link& link : links) {
    const bool isKnown = link.state != LinkState::Off && link.state != LinkState::Unknown;
    if (isKnown) use(standin::nameOf(link.set), link);
  }
}

void addStates(Text& text, const Links& links) {
  text.family("gateway_link_state", "gauge", "1 for the state of each link, 0 for its others.");
  for (const Link& link : links) {
    for (const LinkState state : linkStates) {
      text.sample("gateway_link_state",
                  {{"link", standin::nameOf(link.set)}, {"state", nameOf(state)}},
                  state == link.state ? "1" : "0");
    }
  }
  text.family("gateway_link_connected", "gauge", "Whether the link has a connection.");
  forKnown(links, [&](std::string_view name, const Link& link) {
    text.sample("gateway_link_connected", {{"link", name}, {"target", link.target}},
                isConnected(link.state) ? "1" : "0");
  });
}

void addMessages(Text& text, const Links& links, Clock::time_point now) {
  text.family("gateway_link_messages_total", "counter", "Messages received.");
  forKnown(links, [&](std::string_view name, const Link& link) {
    text.sample("gateway_link_messages_total", {{"link", name}},
                fmt::to_string(link.calls.messages));
  });
  text.family("gateway_link_last_message_age_seconds", "gauge",
              "Time since the latest message; absent if there was none.");
  forKnown(links, [&](std::string_view name, const Link& link) {
    if (!link.calls.lastMessage) return;
    text.sample("gateway_link_last_message_age_seconds", {{"link", name}},
                numberText(Seconds(now - *link.calls.lastMessage).count()));
  });
}

void addCalls(Text& text, const Links& links) {
  text.family("gateway_link_calls_started_total", "counter", "Calls started.");
  forKnown(links, [&](std::string_view name, const Link& link) {
    text.sample("gateway_link_calls_started_total", {{"link", name}},
                fmt::to_string(link.calls.started));
  });
  text.family("gateway_link_calls_total", "counter", "Calls that have ended, by outcome.");
  forKnown(links, [&](std::string_view name, const Link& link) {
    text.sample("gateway_link_calls_total", {{"link", name}, {"outcome", "succeeded"}},
                fmt::to_string(link.calls.succeeded));
    text.sample("gateway_link_calls_total", {{"link", name}, {"outcome", "failed"}},
                fmt::to_string(link.calls.failed));
  });
}

void addCounts(Text& text, const RunningModule& module, const LogBook& log) {
  text.family("gateway_slot_changes_total", "counter", "Changes found in all slots.");
  text.sample("gateway_slot_changes_total", {}, fmt::to_string(module.board()->changeCount()));
  text.family("gateway_notifications_total", "counter", "Notifications sent to the module.");
  text.sample("gateway_notifications_total", {}, fmt::to_string(module.notificationCount()));
  text.family("gateway_log_lines_total", "counter", "Log lines of the module by level.");
  const auto counts = log.counts();
  for (std::size_t i = 0; i < counts.size(); ++i) {
    text.sample("gateway_log_lines_total", {{"level", levelNames[i]}}, fmt::to_string(counts[i]));
  }
}

void addProcess(Text& text, const RunningModule& module) {
  const Seconds uptime = std::chrono::system_clock::now() - module.startTime();
  text.family("gateway_uptime_seconds", "gauge", "Time since the start of the module.");
  text.sample("gateway_uptime_seconds", {}, numberText(uptime.count()));
  text.family("gateway_info", "gauge", "What runs here; always 1.");
  text.sample("gateway_info",
              {{"module", module.setup().name},
               {"config", module.setup().config},
               {"meters_target", module.metersTarget()},
               {"engine_target", module.engineTarget()},
               {"version", GATEWAY_VERSION}},
              "1");
}

}  // namespace

std::string metricsOf(const RunningModule& module, const LogBook& log) {
  const auto shared = module.board();
  const SlotBoard& board = *shared;
  const auto states = board.states();
  const auto now = Clock::now();
  Text text;
  text.family("gateway_slot_value", "gauge", "Value of a numeric slot.");
  addSlots(text, "gateway_slot_value", board, states,
           [](const SlotState& state) { return std::visit(NumberText{}, state.value); });
  text.family("gateway_slot_age_seconds", "gauge",
              "Time since the value of a slot changed, or since the start if it never did.");
  addSlots(text, "gateway_slot_age_seconds", board, states, [&](const SlotState& state) {
    return numberText(Seconds(now - state.changed).count());
  });
  text.family("gateway_slot_moved", "gauge", "Whether the value of a slot has ever changed.");
  addSlots(text, "gateway_slot_moved", board, states,
           [](const SlotState& state) { return state.hasMoved() ? "1" : "0"; });
  const Links links = module.links();
  addStates(text, links);
  addMessages(text, links, now);
  addCalls(text, links);
  addCounts(text, module, log);
  addProcess(text, module);
  return text.take();
}

}  // namespace host

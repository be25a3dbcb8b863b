#include "tools/sim/Signals.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <optional>
#include <random>
#include <stdexcept>

#include "meters.pb.h"
#include "tools/sim/Random.h"

namespace sim {
namespace {

std::optional<Method> rateCalled(std::string_view word) {
  for (const auto rate : {Method::Fast, Method::Slow}) {
    if (nameOf(rate) == word) return rate;
  }
  return std::nullopt;
}

std::optional<ValueType> typeCalled(std::string_view word) {
  for (const auto& row : gateway::valueTypes) {
    if (row.name == word) return row.type;
  }
  return std::nullopt;
}

// "string, int, uint or float".
std::string typeNames() {
  std::string names;
  for (const auto& row : gateway::valueTypes) {
    const bool isLast = &row == &gateway::valueTypes.back();
    if (!names.empty()) names += isLast ? " or " : ", ";
    names += row.name;
  }
  return names;
}

double wave(double cycles) {
  return std::sin(2 * std::numbers::pi * cycles);
}

float levelAt(double seconds, double phase, double pace, double offset) {
  const double swell = wave(phase + seconds / (2 + 6 * pace));
  const double ripple = wave(offset + seconds / (0.3 + pace));
  return static_cast<float>(std::clamp(-30 + 24 * swell + 6 * ripple, -60.0, 0.0));
}

std::int32_t countAt(double seconds, double pace, double offset) {
  constexpr double end = 1000000;
  return static_cast<std::int32_t>(std::fmod(1000 * offset + seconds * (5 + 15 * pace), end));
}

std::size_t stateAt(double seconds, double phase, double pace, std::size_t states) {
  const double turn = phase * static_cast<double>(states) + seconds / (0.5 + pace);
  return static_cast<std::size_t>(turn) % states;
}

}  // namespace

KeySpec parseKeySpec(std::string_view text) {
  const auto first = text.find(':');
  const auto second = first == text.npos ? text.npos : text.find(':', first + 1);
  if (second == text.npos || second + 1 == text.size()) {
    throw std::invalid_argument(
        fmt::format("\"{}\" is not RATE:TYPE:KEY, such as fast:float:out.level", text));
  }
  const auto rateWord = text.substr(0, first);
  const auto typeWord = text.substr(first + 1, second - first - 1);
  const auto rate = rateCalled(rateWord);
  if (!rate) {
    throw std::invalid_argument(
        fmt::format("\"{}\" in \"{}\" is not a rate. Use fast or slow", rateWord, text));
  }
  const auto type = typeCalled(typeWord);
  if (!type) {
    throw std::invalid_argument(
        fmt::format("\"{}\" in \"{}\" is not a type. Use {}", typeWord, text, typeNames()));
  }
  return {*rate, *type, std::string(text.substr(second + 1))};
}

Signals::Signals(const std::vector<KeySpec>& keys, std::uint64_t seed) {
  for (const auto& played : keys) {
    const auto typed = hashOf(played.key, static_cast<std::uint64_t>(played.type) + 1);
    std::mt19937_64 random(hashOf(nameOf(played.rate), typed ^ seed));
    const double phase = drawFrom(random);
    const double pace = drawFrom(random);
    const double offset = drawFrom(random);
    signals_.push_back({played, phase, pace, offset});
  }
}

std::vector<std::string> Signals::metersAt(Method rate, double seconds, std::size_t most) const {
  std::vector<std::string> messages;
  sonalith::grpc::Meter meter;
  for (const auto& signal : signals_) {
    if (signal.played.rate != rate) continue;
    if (static_cast<std::size_t>(meter.values_size()) == most) {
      messages.push_back(meter.SerializeAsString());
      meter.Clear();
    }
    addValue(meter, signal, seconds);
  }
  messages.push_back(meter.SerializeAsString());
  return messages;
}

std::string Signals::meterAt(Method rate, double seconds) const {
  return metersAt(rate, seconds, unlimited).front();
}

void Signals::addValue(sonalith::grpc::Meter& meter, const Signal& signal, double seconds) {
  constexpr std::array states{"ready", "running", "muted"};
  constexpr std::size_t uintStates = 4;
  const auto& [played, phase, pace, offset] = signal;
  auto& entry = *meter.add_values();
  entry.set_key(played.key);
  auto& value = *entry.mutable_value();
  switch (played.type) {
    case ValueType::String:
      value.mutable_sstring()->set_data(states[stateAt(seconds, phase, pace, states.size())]);
      break;
    case ValueType::Int:
      value.set_sint(countAt(seconds, pace, offset));
      break;
    case ValueType::Uint:
      value.set_suint(static_cast<std::uint32_t>(stateAt(seconds, phase, pace, uintStates)));
      break;
    case ValueType::Float:
      value.set_sfloat(levelAt(seconds, phase, pace, offset));
      break;
  }
}

}  // namespace sim

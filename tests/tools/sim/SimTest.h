// The simulator for its own tests, in both modes: obeying commands, and playing.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "meters.pb.h"
#include "tests/support/RawCall.h"
#include "tests/support/SimProcess.h"

using Lines = std::vector<std::string>;

// Shows the parameter of a test by its name.
template <typename Named>
std::enable_if_t<std::is_same_v<decltype(Named::name), std::string>, std::ostream&> operator<<(
    std::ostream& out, const Named& parameter) {
  return out << parameter.name;
}

// More messages than can be written before the client reads.
constexpr std::size_t mebibyte = 1 << 20;
constexpr int moreThanIsSentUnread = 16;

inline std::vector<std::string> unreadMessages() {
  return std::vector<std::string>(moreThanIsSentUnread, std::string(mebibyte, 'x'));
}

inline std::string sendUnreadMessages() {
  return "send fast " + toHex(std::string(mebibyte, 'x')) + " " +
         std::to_string(moreThanIsSentUnread);
}

// The lines of standard output from `first` on, without those that name the addresses.
inline Lines linesFrom(std::ptrdiff_t first, const ToolProcess& process) {
  const auto lines = process.lines();
  return {lines.begin() + first, lines.end()};
}

inline sonalith::grpc::Meter meterOf(const std::optional<std::string>& bytes) {
  sonalith::grpc::Meter meter;
  if (!bytes || !meter.ParseFromString(*bytes)) throw std::runtime_error("no Meter was sent");
  return meter;
}

// The port in a target "ADDRESS:PORT".
inline unsigned short portOf(const std::string& target) {
  return static_cast<unsigned short>(std::stoi(target.substr(target.rfind(':') + 1)));
}

class ObeyingSim : public testing::Test {
 protected:
  RawCall fastCall() { return {sim.metersTarget(), fastPath}; }
  RawCall slowCall() { return {sim.metersTarget(), slowPath}; }

  SimProcess sim;
};

// A simulator that plays.
class PlayingSim {
 public:
  explicit PlayingSim(std::vector<std::string> arguments)
      : process_(withTargets(std::move(arguments))) {
    metersTarget_ = process_.waitLine("meters ").substr(7);
    engineTarget_ = process_.waitLine("engine ").substr(7);
  }

  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }
  ToolProcess& process() { return process_; }

 private:
  static std::vector<std::string> withTargets(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"sim", "--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort});
    return arguments;
  }

  ToolProcess process_;
  std::string metersTarget_;
  std::string engineTarget_;
};

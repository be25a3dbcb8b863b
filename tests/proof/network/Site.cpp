#include "tests/proof/network/Site.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace network {
namespace {

// A default that the simulator never sends.
constexpr auto untouched = "-77";

std::string eventOf(const std::string& event, const std::string& stream) {
  return R"({"event":")" + event + R"(","stream":")" + stream + "\",";
}

std::string callNumbered(int call) {
  return "\"call\":" + std::to_string(call) + ",";
}

std::string configuration(const std::string& meters, const std::string& engine) {
  std::string text = "[Meters]\nTarget=" + meters + "\n[Engine]\nTarget=" + engine +
                     "\n[EngineInt]\nParam=Key=delay CustomKey=delay\n[MetersFloat]\n";
  for (const auto& stream : streamNames) {
    text += "Meter=Key=level CustomKey=level DefaultValue=" + std::string(untouched) +
            " Type=" + stream + "\n";
  }
  return text + "[MetersString]\nMeter=Key=state\nMeter=Key=state Type=slow\n";
}

void doIn(const Namespace* place, const std::function<void()>& action) {
  place == nullptr ? action() : place->inside(action);
}

}  // namespace

Usage usageOf(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  Usage usage;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:")) usage.threads = std::stoi(line.substr(8));
    if (line.starts_with("VmRSS:")) usage.memory = std::stod(line.substr(6)) / 1024;
  }
  return usage;
}

std::string openedEvent(const std::string& stream) {
  return eventOf("opened", stream);
}

std::string openedEvent(const std::string& stream, int call) {
  return openedEvent(stream) + callNumbered(call);
}

std::string closedEvent(const std::string& stream) {
  return eventOf("closed", stream);
}

std::string closedEvent(const std::string& stream, int call) {
  return closedEvent(stream) + callNumbered(call);
}

std::string slotLine(const std::string& stream) {
  return stream + " level ";
}

std::string untouchedLine(const std::string& stream) {
  return slotLine(stream) + untouched;
}

std::ptrdiff_t count(const ToolProcess& process, const std::string& prefix) {
  const auto lines = process.lines();
  return std::count_if(lines.begin(), lines.end(),
                       [&](const auto& line) { return line.starts_with(prefix); });
}

Site::Site(Net* net) {
  startSimulator(net);
  startHost(net);
  for (const auto& stream : streamNames) {
    simulator_->waitLine(openedEvent(stream, 1));
    awaitValues(stream);
  }
  changeAndAwait();
}

void Site::startSimulator(Net* net) {
  const auto keys = files_.write("keys.conf", configuration("any:1", "any:2"));
  const auto often = std::to_string(rate);
  const std::vector<std::string> arguments{
      "sim",          "--json",
      "--config",     keys,
      "--meters",     net ? "10.77.1.2:0" : SimProcess::anyPort,
      "--engine",     net ? "10.77.2.2:0" : SimProcess::anyPort,
      "--rate-fast",  often,
      "--rate-slow",  often,
      "--live-faults"};
  doIn(net ? &net->servers : nullptr,
       [&] { simulator_ = std::make_unique<ToolProcess>(arguments); });
}

void Site::startHost(Net* net) {
  const auto path =
      files_.write("gateway.conf", configuration(addressOf("meters"), addressOf("engine")));
  const std::vector<std::string> arguments{"host", path, "--no-page", "--watch"};
  doIn(net ? &net->gateway : nullptr, [&] { host_ = std::make_unique<ToolProcess>(arguments); });
}

std::string Site::addressOf(const std::string& service) {
  const auto before = R"({"event":"listening","service":")" + service + R"(","address":")";
  const auto line = simulator_->waitLine(before);
  return line.substr(before.size(), line.find('"', before.size()) - before.size());
}

// Reads a row of the table that "get" prints: set, type, name, value.
std::string Site::valueOf(const std::string& stream) {
  host_->writeLine("get level");
  std::istringstream words(host_->waitLine(stream + "  float"));
  std::string word;
  for (int i = 0; i < 4; ++i) words >> word;
  return word;
}

void Site::change() {
  host_->writeLine("set delay " + std::to_string(++changes_));
}

void Site::changeAndAwait() {
  change();
  const auto end = "\"value\":" + std::to_string(changes_) + "}";
  while (!simulator_->waitLine(paramsEvent).ends_with(end)) continue;
}

void Site::changeUntilOneArrives() {
  constexpr std::chrono::milliseconds lookAgain(20);
  constexpr int looks = 25;
  const auto before = count(*simulator_, paramsEvent);
  const auto hasArrived = [&] { return count(*simulator_, paramsEvent) > before; };
  const auto begin = std::chrono::steady_clock::now();
  while (!hasArrived()) {
    if (std::chrono::steady_clock::now() - begin > patience) {
      throw std::runtime_error("no SetParams call arrives");
    }
    change();
    for (int i = 0; i < looks && !hasArrived(); ++i) std::this_thread::sleep_for(lookAgain);
  }
}

void Site::tellAndAwait(const std::string& fault) {
  tell(fault);
  simulator_->waitLine(R"({"event":"fault",)");
}

void Site::endStream(const std::string& stream, int call) {
  tellAndAwait("end " + stream + " UNAVAILABLE");
  simulator_->waitLine(closedEvent(stream, call));
}

}  // namespace network

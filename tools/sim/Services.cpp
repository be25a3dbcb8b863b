#include "tools/sim/Services.h"

#include <algorithm>

namespace sim {
namespace {

// A service that isn't offered needs none.
bool needsRelay(const Settings& settings, Subject subject) {
  const auto& wanted = settings.addresses;
  const bool one = wanted.areOne();
  if ((subject == Subject::Meters ? wanted.meters : wanted.engine).empty()) return false;
  if (settings.liveFaults || settings.control) return true;
  return std::any_of(settings.faults.begin(), settings.faults.end(), [&](const Fault& fault) {
    return fault.needsRelay(subject) || (one && fault.needsRelay(Subject::Engine));
  });
}

// Where the server itself listens. With a relay in front, only the relay needs to know the port.
Addresses behindRelays(const Settings& settings) {
  constexpr auto* inside = "127.0.0.1:0";
  auto addresses = settings.addresses;
  addresses.together = addresses.areOne();
  if (needsRelay(settings, Subject::Meters)) addresses.meters = inside;
  if (needsRelay(settings, Subject::Engine)) addresses.engine = inside;
  return addresses;
}

// Puts a relay in front of the server at `address`, and stores the relay's address there.
std::unique_ptr<Relay> putInFront(boost::asio::io_context& loop, const std::string& wanted,
                                  std::string& address, const char* option) {
  const auto port = std::stoi(address.substr(address.rfind(':') + 1));
  auto relay = std::make_unique<Relay>(loop, wanted, option, static_cast<unsigned short>(port));
  address = relay->address();
  return relay;
}

}  // namespace

Services::Services(boost::asio::io_context& loop, const Settings& settings, CallListener& listener)
    : simulator_(behindRelays(settings), listener, settings.pings),
      addresses_(simulator_.addresses()) {
  const auto& wanted = settings.addresses;
  if (needsRelay(settings, Subject::Meters)) {
    meters_ = putInFront(loop, wanted.meters, addresses_.meters, "--meters");
  }
  if (wanted.areOne()) {
    addresses_.engine = addresses_.meters;
  } else if (needsRelay(settings, Subject::Engine)) {
    engine_ = putInFront(loop, wanted.engine, addresses_.engine, "--engine");
  }
}

}  // namespace sim

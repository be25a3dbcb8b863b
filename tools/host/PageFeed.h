// One event stream of the live page, as server-sent events: "snapshot", with everything, first and
// after a reload; then "update", with what has changed since; and "stopped" when the module is
// about to stop. An update comes at least once a second while the host samples the module's values,
// so silence means that it does not.
//
// A slow reader gets fewer updates, with only the latest values.
//
// Threads: one at a time.
// Ownership: module and log are borrowed.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/common/HttpServer.h"
#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

class PageFeed : public tools::HttpStream {
 public:
  PageFeed(const RunningModule& module, const LogBook& log) : module_(module), log_(log) {}

  std::string next() override;
  // A comment, which readers ignore.
  std::string quiet() override;
  std::string last() override;

 private:
  // {"instance","status","time","slots","log","notifications"}: `instance` is different for each
  // run of the program.
  nlohmann::json snapshot();
  // {"time","slots":[[index,value]...],"log":[...],"notifications":[...],"changes","deliveries",
  // "links"}: a member that has nothing new is absent; null if none has. A slot that is named here
  // has changed just now. The links are there once a second, and when a state changes.
  nlohmann::json update();
  void addNotes(nlohmann::json& to);
  void addLinks(nlohmann::json& to);

  const RunningModule& module_;
  const LogBook& log_;
  std::shared_ptr<const SlotBoard> board_;  // the one that the reader knows; null for none
  // How far the reader knows the board, the log and the notifications.
  std::uint64_t look_ = 0;
  std::uint64_t nextLine_ = 0;
  unsigned lastNotification_ = 0;
  std::uint64_t deliveries_ = 0;
  std::array<LinkState, 3> linkStates_{};
  Clock::time_point nextBeat_;
};

}  // namespace host

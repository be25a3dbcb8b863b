// What one event stream of the live page says, as server-sent events: "snapshot" first, with
// everything there is, then "update" with what has changed since, "quiet" when nothing does, and
// "stopped" when the module is about to stop.
//
// A reader that is slow to take what it gets hears less often, and of the latest values only.
//
// Threads: one at a time.
// Ownership: module and log are borrowed.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/host/HttpServer.h"
#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

class PageFeed : public HttpStream {
 public:
  PageFeed(const RunningModule& module, const LogBook& log) : module_(module), log_(log) {}

  std::string next() override;
  std::string quiet() override;
  std::string last() override;

 private:
  // {"instance","status","time","slots","log","notifications"}: `instance` is different for each
  // run of the program.
  nlohmann::json snapshot();
  // {"time","slots":[[index,value]...],"log":[...],"notifications":[...],"changes"}: a member that
  // has nothing new is absent; null if none has. A slot that is named here has changed just now.
  nlohmann::json update();
  void addNotes(nlohmann::json& to);

  const RunningModule& module_;
  const LogBook& log_;
  bool isFirst_ = true;
  // How far the reader knows the board, the log and the notifications.
  std::uint64_t look_ = 0;
  std::uint64_t nextLine_ = 0;
  unsigned lastNotification_ = 0;
};

}  // namespace host

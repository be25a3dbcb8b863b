// What the live page is told, as JSON: a whole picture first, and then what has changed since.
//
// Every stream has a feed of its own, which remembers how far its reader has been told. A reader
// that is slow to take what it gets is told less often, and of the latest values only.
//
// Threads: a PageFeed is one thread's at a time; the functions are for any thread.
// Ownership: module and log are borrowed.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stop_token>
#include <string>

#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

// {"name","config","module","targets":{"meters","engine"},"version","time","startTime","uptime",
//  "slots":{"fast","slow","engine"},"changes","notifications","logLines":{"trace","network",
//  "fault","error"}}; times in seconds since 1970, uptime in seconds.
nlohmann::json statusOf(const RunningModule& module, const LogBook& log);

// {"time","slots":[...]}, a slot as jsonOf gives it.
nlohmann::json slotsOf(const RunningModule& module);

// What a log level is called: "trace", "network", "fault" or "error".
std::string_view levelName(int level);

class PageFeed {
 public:
  PageFeed(const RunningModule& module, const LogBook& log) : module_(module), log_(log) {}

  // {"instance","status","time","slots","log","notifications"}: all there is, from which `next`
  // goes on. `instance` is different for each run of the program.
  nlohmann::json snapshot();

  // {"time","slots":[[index,value]...],"log":[...],"notifications":[...],"changes"}: what has
  // changed since the picture or the call before, as far as there is something; an absent member
  // means nothing new. A slot that is named here has changed just now. Waits until there is
  // something to tell; null if there is nothing for `limit`, or when `stop` is asked for.
  nlohmann::json next(std::chrono::milliseconds limit, const std::stop_token& stop);

 private:
  nlohmann::json news();
  void addNotes(nlohmann::json& to);

  const RunningModule& module_;
  const LogBook& log_;
  std::uint64_t look_ = 0;
  std::uint64_t nextLine_ = 0;
  unsigned lastNotification_ = 0;
};

}  // namespace host

// The live page: an HTTP server on one address, with a page for people and what programs may want.
//
//   GET  /             the page, with /page.css, /icon.svg and its scripts, such as /main.js
//   GET  /api/status   what runs here, as statusOf gives it
//   GET  /api/slots    all slots, as slotsOf gives them
//   GET  /api/events   server-sent events: "snapshot" once, then "update" as changes come, both as
//                      PageFeed gives them; "quiet" after two seconds without, so that both
//                      sides notice when the other one has gone
//   POST /api/set      {"changes":[{"name","value"}...]}: changes engine slots in one notification,
//                      and gives {"notification":NUMBER}
//   GET  /metrics      for monitoring systems, as metricsOf gives them
//
// What is refused gets a fitting status and {"error": reason}. With a token, every request has to
// show it: as "Authorization: Bearer TOKEN", as "?token=TOKEN", or by the cookie that the page sets
// when it was opened that way. Without one, the Host header has to be an address, so that no
// foreign site can reach the page under a name of its own. A change has to come from the page
// itself: its Origin is the address it was asked under.
//
// Threads: made and destroyed by one thread; serves on threads of its own. A connection carries one
// request and has two seconds to tell it, and no more of them than `maximalConnections` are open at
// a time, so that idle ones hold nobody up for long; those beyond are answered 503 and closed at
// once.
// Ownership: module and log are borrowed, and have to outlive the server. The module's board has to
// be sampled for streams to go on.
#pragma once

#include <memory>
#include <string>

#include "tools/host/LogBook.h"
#include "tools/host/PageAccess.h"
#include "tools/host/RunningModule.h"

namespace host {

class PageServer {
 public:
  static constexpr int maximalStreams = 8;                        // open event streams at a time
  static constexpr int maximalConnections = maximalStreams + 24;  // of streams and others

  // Listens when this returns. Settings must be without `pageProblem`. Throws std::runtime_error,
  // with the remedy, if it can't listen there.
  PageServer(RunningModule& module, const LogBook& log, const PageSettings& settings);
  // Ends every connection at once, also those that are waited for.
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // "http://127.0.0.1:8080/", with the port that it really is, without the token.
  const std::string& url() const { return url_; }

  // Whether the port that was asked for was taken, and another one was given.
  bool hasMoved() const { return hasMoved_; }

 private:
  class Serving;

  std::string url_;
  bool hasMoved_ = false;
  std::unique_ptr<Serving> serving_;
};

}  // namespace host

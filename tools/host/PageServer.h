// The live page: an HTTP server on one address, with a page for people and data for programs.
//
//   GET  /             the page; the other files of tools/host/page lie beside it
//   GET  /api/status   what runs here, as statusOf gives it
//   GET  /api/slots    all slots, as slotsOf gives them
//   GET  /api/history  recent values of slots, as historyOf returns them: ?slots=0,3 for up to
//                      100 indices (else the first numbers), &seconds=60 for a shorter time
//   GET  /api/events   server-sent events, as PageFeed gives them
//   POST /api/set      changes engine slots in one notification: takes what changesIn reads, and
//                      gives {"notification":NUMBER}
//   GET  /metrics      for monitoring systems, as metricsOf gives them
//   GET  /ready        200 while the module is ready, otherwise 503; as readinessOf gives it
//
// HttpInterface has the rules that hold for all requests, and HttpLimits bounds what clients may
// send and hold; only /api/set takes a body. docs/api.md and docs/openapi.json describe all this
// for users.
//
// The history begins when the server is made, and anew after a reload.
//
// Threads: made and destroyed by the thread that samples the module; serves on a thread of its own.
// Ownership: module and log are borrowed, and must outlive the server. Streams have something new
// only when the module is sampled.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/host/LogBook.h"
#include "tools/host/PageSettings.h"
#include "tools/host/RunningModule.h"

namespace host {

class PageServer {
 public:
  // Listens when this returns. Settings must be without `pageProblem`. Throws std::runtime_error,
  // with the remedy, if it can't listen there.
  PageServer(RunningModule& module, const LogBook& log, const PageSettings& settings);
  // Tells the streams that this is the end, and ends every connection at once.
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // "http://127.0.0.1:8080/", with the actual port, without the token.
  const std::string& url() const { return url_; }

  // Each route as "GET /api/status", for a comparison with its description in docs/openapi.json.
  std::vector<std::string> routes() const;

  // Whether the wanted port was taken, so that the page is at another one.
  bool hasMoved() const { return hasMoved_; }

 private:
  class Routes;

  std::unique_ptr<Routes> routes_;
  std::string url_;
  bool hasMoved_ = false;
};

}  // namespace host

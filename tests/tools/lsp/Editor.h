// A server in a thread of its own, and the editor that talks to it over pipes.
//
// Nothing waits for a fixed time: members wait for a message and give up after `patience`, which
// only keeps a broken run from hanging.
//
// Threads: one besides the server's. A standin::Host must exist.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "tools/common/ChildProcess.h"
#include "tools/lsp/Session.h"

using Json = nlohmann::json;

inline Json positionOf(int line, int character) {
  return {{"line", line}, {"character", character}};
}

inline Json rangeOf(int line, int begin, int end) {
  return {{"start", positionOf(line, begin)}, {"end", positionOf(line, end)}};
}

class Editor {
 public:
  // The target is that of --target.
  explicit Editor(const std::string& target = {})
      : server_([this, target] {
          exitCode_ = lsp::Session(to_.read(), from_.write(), target).run();
        }) {}
  ~Editor() {
    to_.closeWrite();
    if (server_.joinable()) server_.join();
  }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t written = ::write(to_.write(), bytes.data(), bytes.size());
      if (written < 0) throw std::runtime_error("the server no longer reads");
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  void send(const Json& message) { write(lsp::framed(message.dump())); }

  void notify(const std::string& method, const Json& params = Json::object()) {
    send({{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
  }

  // Sends a request and returns its id.
  int ask(const std::string& method, const Json& params = Json::object()) {
    send({{"jsonrpc", "2.0"}, {"id", ++lastId_}, {"method", method}, {"params", params}});
    return lastId_;
  }

  // Waits until the server has begun to write, and reads nothing of it.
  void waitForOutput() {
    pollfd output{from_.read(), POLLIN, 0};
    if (poll(&output, 1, static_cast<int>(patience.count())) <= 0) {
      throw std::runtime_error("the server writes nothing");
    }
  }

  // Waits for a message that fits, and keeps the others.
  Json wait(const std::function<bool(const Json&)>& fits) {
    for (std::size_t i = 0;; ++i) {
      while (i >= received_.size()) receive();
      if (!fits(received_[i])) continue;
      Json message = received_[i];
      received_.erase(received_.begin() + static_cast<std::ptrdiff_t>(i));
      return message;
    }
  }

  Json response(const Json& id) {
    return wait([&](const Json& message) {
      return message.contains("id") && message["id"] == id && !message.contains("method");
    });
  }

  Json result(const std::string& method, const Json& params = Json::object()) {
    const Json message = response(ask(method, params));
    if (!message.contains("result")) throw std::runtime_error(message.dump());
    return message["result"];
  }

  int error(const std::string& method, const Json& params = Json::object()) {
    return response(ask(method, params)).at("error").at("code").get<int>();
  }

  Json notification(const std::string& method) {
    return wait([&](const Json& message) { return message.value("method", "") == method; });
  }

  // Whether such a notification has come before the messages that were waited for.
  bool has(const std::string& method) const {
    return std::any_of(received_.begin(), received_.end(),
                       [&](const Json& message) { return message.value("method", "") == method; });
  }

  // The diagnostics of a document, once those of this version have come.
  Json diagnostics(const std::string& uri, const Json& version) {
    return wait([&](const Json& message) {
      return message.value("method", "") == "textDocument/publishDiagnostics" &&
             message["params"]["uri"] == uri &&
             message["params"].value("version", Json()) == version;
    })["params"]["diagnostics"];
  }

  Json initialize(Json capabilities = {}, const Json& more = Json::object()) {
    Json params = {{"processId", nullptr},
                   {"capabilities", capabilities.is_null() ? Json::object() : capabilities}};
    params.update(more);
    const Json answer = result("initialize", params);
    notify("initialized");
    return answer;
  }

  void open(const std::string& uri, const std::string& text, int version = 1) {
    notify(
        "textDocument/didOpen",
        {{"textDocument",
          {{"uri", uri}, {"languageId", "grpc-gateway"}, {"version", version}, {"text", text}}}});
  }

  void change(const std::string& uri, int version, const Json& changes) {
    notify("textDocument/didChange",
           {{"textDocument", {{"uri", uri}, {"version", version}}}, {"contentChanges", changes}});
  }

  // Waits for the end of the server.
  int exitCode() {
    server_.join();
    return exitCode_;
  }
  void closeInput() { to_.closeWrite(); }

 private:
  static constexpr std::chrono::milliseconds patience{60000};

  void receive() {
    while (true) {
      if (auto frame = reader_.next()) {
        if (!frame->problem.empty()) throw std::runtime_error(frame->problem);
        received_.push_back(Json::parse(frame->content));
        return;
      }
      pollfd input{from_.read(), POLLIN, 0};
      if (poll(&input, 1, static_cast<int>(patience.count())) <= 0) {
        throw std::runtime_error("no message came: " + Json(received_).dump());
      }
      std::array<char, 65536> bytes;
      const ssize_t got = ::read(from_.read(), bytes.data(), bytes.size());
      if (got <= 0) throw std::runtime_error("the server has ended");
      reader_.add({bytes.data(), static_cast<std::size_t>(got)});
    }
  }

  tools::Pipe to_;
  tools::Pipe from_;
  lsp::FrameReader reader_{std::size_t{1} << 30};
  std::deque<Json> received_;
  int lastId_ = 0;
  int exitCode_ = -1;
  std::thread server_;
};

#include "tools/lsp/Server.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "tools/check/Target.h"

namespace lsp {
namespace {

// The member that a path such as "/general/positionEncodings" leads to, or null.
Json memberAt(const Json& json, const char* path) {
  const Json::json_pointer pointer(path);
  return json.contains(pointer) ? json.at(pointer) : Json();
}

bool contains(const Json& array, std::string_view text) {
  return array.is_array() && std::find(array.begin(), array.end(), text) != array.end();
}

Client clientIn(const Json& capabilities) {
  const auto has = [&](const char* path) { return memberAt(capabilities, path) == true; };
  return {
      .showsRelatedInformation = has("/textDocument/publishDiagnostics/relatedInformation"),
      .readsMarkdown =
          contains(memberAt(capabilities, "/textDocument/hover/contentFormat"), "markdown"),
      .takesLiteralActions =
          memberAt(capabilities, "/textDocument/codeAction/codeActionLiteralSupport").is_object(),
      .takesVersionedEdits = has("/workspace/workspaceEdit/documentChanges"),
      .takesNestedSymbols = has("/textDocument/documentSymbol/hierarchicalDocumentSymbolSupport"),
      .watchesFiles = has("/workspace/didChangeWatchedFiles/dynamicRegistration"),
  };
}

Json serverCapabilities(Encoding encoding) {
  constexpr int incremental = 2;
  return {{"positionEncoding", encoding == Encoding::Utf8 ? "utf-8" : "utf-16"},
          {"textDocumentSync", {{"openClose", true}, {"change", incremental}, {"save", true}}},
          {"hoverProvider", true},
          {"completionProvider", {{"triggerCharacters", {"[", "=", " "}}}},
          {"codeActionProvider", {{"codeActionKinds", {"quickfix", "source.fixAll"}}}},
          {"documentSymbolProvider", true},
          {"definitionProvider", true}};
}

std::optional<pid_t> processIn(const Json& params) {
  const Json id = params.value("processId", Json());
  if (id.is_null()) return std::nullopt;
  if (!id.is_number_integer() || id <= 0 || id > std::numeric_limits<pid_t>::max()) {
    throw RpcError(ErrorCode::InvalidParams, "\"processId\" must be the id of a process, or null");
  }
  return id.get<pid_t>();
}

std::string complaintAboutTarget(const Json& target) {
  if (!target.is_string())
    return "bad target: the initialization option \"target\" must be a string";
  return check::complaintAboutTarget(target.get_ref<const std::string&>());
}

}  // namespace

Server::Server(Send send, const std::string& target) : send_(std::move(send)), target_(target) {}

// ---- Messages ---------------------------------------------------------------------------------

void Server::take(const Message& message) {
  if (state_ == State::Ended || message.isResponse()) return;
  if (message.isRequest()) return answer(message);
  try {
    obey(message);
  } catch (const std::exception& error) {
    complain(fmt::format("{}: {}", message.method, error.what()));
  }
}

void Server::answer(const Message& request) {
  try {
    send_(resultOf(request.id, resultFor(request)));
  } catch (const RpcError& error) {
    send_(errorOf(request.id, error.code, error.what()));
  } catch (const Json::exception& error) {
    send_(errorOf(request.id, ErrorCode::InvalidParams, error.what()));
  } catch (const std::exception& error) {
    send_(errorOf(request.id, ErrorCode::InternalError, error.what()));
  }
}

// Nobody answers a notification, so the editor shows the text to its user.
void Server::complain(const std::string& text) {
  constexpr int error = 1;
  if (state_ != State::Running) return;
  send_(notification("window/logMessage", {{"type", error}, {"message", text}}));
}

void Server::warn(const std::string& text) {
  constexpr int warning = 2;
  send_(notification("window/showMessage", {{"type", warning}, {"message", text}}));
}

Json Server::resultFor(const Message& request) {
  const std::string& method = request.method;
  const Json& params = request.params;
  if (state_ == State::ShutDown) {
    throw RpcError(ErrorCode::InvalidRequest, "the server has been shut down");
  }
  if (method == "initialize") {
    if (state_ == State::Created) return initialize(params);
    throw RpcError(ErrorCode::InvalidRequest, "the server is already initialized");
  }
  if (state_ == State::Created) {
    throw RpcError(ErrorCode::ServerNotInitialized, "\"initialize\" must come first");
  }
  if (method == "shutdown") {
    while (hasWork()) work();
    state_ = State::ShutDown;
    wasShutDown_ = true;
    return nullptr;
  }
  return featureOf(method, params);
}

Json Server::featureOf(const std::string& method, const Json& params) {
  if (method == "textDocument/codeAction") {
    return codeActions(documents_.of(params), checks_, client_, params);
  }
  if (method == "textDocument/hover") {
    return hover(documents_.of(params), checks_, client_, params);
  }
  if (method == "textDocument/completion") return complete(params);
  if (method == "textDocument/documentSymbol") return symbols(documents_.of(params), client_);
  if (method == "textDocument/definition") {
    return definition(documents_.of(params), documents_, params);
  }
  throw RpcError(ErrorCode::MethodNotFound, fmt::format("no method \"{}\"", method));
}

// A completion also opens streams again that have ended. The keys of a server that has come back
// appear in a later one, because an answer never waits for the network.
Json Server::complete(const Json& params) {
  if (meters_) {
    const std::string complaint = meters_->keepListening();
    if (!complaint.empty()) warn(fmt::format("no keys to complete: {}", complaint));
  }
  return completion(documents_.of(params), checks_, meters_ ? &*meters_ : nullptr, params);
}

void Server::obey(const Message& message) {
  const std::string& method = message.method;
  if (method == "exit") {
    state_ = State::Ended;
    return;
  }
  if (state_ != State::Running) return;
  if (method == "initialized") {
    registerWatch();
    return listen();
  }
  if (method == "textDocument/didChange") {
    // Even if the change fails, the document is no longer what it was.
    isStale_ = true;
    try {
      checks_.noteChange(documents_.change(message.params));
    } catch (...) {
      checks_.noteFiles();
      throw;
    }
    return;
  }
  if (method == "textDocument/didOpen") {
    documents_.open(message.params);
  } else if (method == "textDocument/didClose") {
    documents_.close(message.params);
  } else if (method != "textDocument/didSave" && method != "workspace/didChangeWatchedFiles") {
    return;
  }
  checks_.noteFiles();
  isStale_ = true;
}

// ---- Life -------------------------------------------------------------------------------------

Json Server::initialize(const Json& params) {
  const Json capabilities = params.value("capabilities", Json::object());
  parent_ = processIn(params);
  const Json target = memberAt(params, "/initializationOptions/target");
  if (!target.is_null()) target_ = target;
  client_ = clientIn(capabilities);
  if (contains(memberAt(capabilities, "/general/positionEncodings"), "utf-8")) {
    documents_.encoding = Encoding::Utf8;
  }
  state_ = State::Running;
  return {{"capabilities", serverCapabilities(documents_.encoding)},
          {"serverInfo", {{"name", "gatewayctl lsp"}, {"version", GATEWAY_VERSION}}}};
}

// Other programs may write dedicated files.
void Server::registerWatch() {
  if (!client_.watchesFiles) return;
  const Json watchers = Json::array({{{"globPattern", "**/*.conf"}}});
  const Json registration = {{"id", "files"},
                             {"method", "workspace/didChangeWatchedFiles"},
                             {"registerOptions", {{"watchers", watchers}}}};
  send_(request("files", "client/registerCapability",
                {{"registrations", Json::array({registration})}}));
}

// A wrong target costs the user the keys and nothing else.
void Server::listen() {
  const Json target = std::exchange(target_, "");
  if (target == "") return;
  const std::string complaint = complaintAboutTarget(target);
  if (complaint.empty()) {
    meters_.emplace(target.get<std::string>());
  } else {
    warn(fmt::format("no keys to complete: {}", complaint));
  }
}

// ---- Diagnostics ------------------------------------------------------------------------------

void Server::work() {
  try {
    if (const Document* const next = checks_.next()) {
      checks_.of(*next);
      return;
    }
    isStale_ = false;
    publish();
  } catch (const std::exception& error) {
    isStale_ = false;
    complain(fmt::format("can't check the documents: {}", error.what()));
  }
}

// Sends what has changed since the last time.
void Server::publish() {
  std::map<std::string, Json> now;
  for (auto& [uri, diagnostics] : allDiagnostics(documents_, checks_, client_)) {
    now[uri] = {{"uri", uri}, {"diagnostics", std::move(diagnostics)}};
  }
  for (const Document& document : documents_.all()) {
    if (!document.version.is_null()) now[document.uri()]["version"] = document.version;
  }
  for (const auto& [uri, params] : published_) {
    if (now.contains(uri)) continue;
    send_(notification("textDocument/publishDiagnostics",
                       {{"uri", uri}, {"diagnostics", Json::array()}}));
  }
  for (const auto& [uri, params] : now) {
    const auto before = published_.find(uri);
    if (before != published_.end() && before->second == params) continue;
    send_(notification("textDocument/publishDiagnostics", params));
  }
  published_ = std::move(now);
}

}  // namespace lsp

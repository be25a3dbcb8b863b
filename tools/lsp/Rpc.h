// JSON-RPC 2.0, as the language server protocol uses it. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lsp {

using Json = nlohmann::json;

enum class ErrorCode {
  ParseError = -32700,
  InvalidRequest = -32600,
  MethodNotFound = -32601,
  InvalidParams = -32602,
  InternalError = -32603,
  ServerNotInitialized = -32002,
  RequestCancelled = -32800,
};

// A request that can't be served. what() is the message of the response.
struct RpcError : std::runtime_error {
  RpcError(ErrorCode why, const std::string& text) : std::runtime_error(text), code(why) {}
  ErrorCode code;
};

// What a client sends.
struct Message {
  Json id = nullptr;        // a number or a text; null for a notification
  std::string method = {};  // empty for a response
  Json params = nullptr;    // an object or an array; null if there are none

  bool isRequest() const { return !id.is_null(); }
  bool isResponse() const { return method.empty(); }
};

// Reads the content of a frame. Half of a surrogate pair, which editors send while a character is
// being typed, is read as U+FFFD. Throws RpcError.
Message messageIn(std::string_view content);

Json resultOf(const Json& id, Json result);
Json errorOf(const Json& id, ErrorCode code, std::string_view text);
Json notification(std::string_view method, Json params);
Json request(const Json& id, std::string_view method, Json params);

}  // namespace lsp

#include "tools/lsp/Rpc.h"

#include <cctype>
#include <optional>
#include <utility>

#include "tools/common/Json.h"

namespace lsp {
namespace {

// ---- Surrogates -------------------------------------------------------------------------------

// The code unit of an escape "\uXXXX" at the beginning of the text.
std::optional<unsigned> escapedUnit(std::string_view text) {
  constexpr std::size_t size = 6;
  if (text.size() < size || !text.starts_with("\\u")) return std::nullopt;
  unsigned unit = 0;
  for (const char digit : text.substr(2, 4)) {
    if (std::isxdigit(static_cast<unsigned char>(digit)) == 0) return std::nullopt;
    unit =
        unit * 16 + static_cast<unsigned>(digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10);
  }
  return unit;
}

bool isHigh(std::optional<unsigned> unit) {
  return unit && *unit >= 0xD800 && *unit < 0xDC00;
}

bool isLow(std::optional<unsigned> unit) {
  return unit && *unit >= 0xDC00 && *unit < 0xE000;
}

// U+FFFD counts as one UTF-16 unit, as the half does, so positions stay right.
std::string withoutHalves(std::string_view text) {
  constexpr std::size_t escape = 6;
  std::string whole;
  whole.reserve(text.size());
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('\\'), text.size());
    whole += text.substr(0, plain);
    text.remove_prefix(plain);
    const auto unit = escapedUnit(text);
    std::size_t size = unit ? escape : std::min<std::size_t>(2, text.size());
    const bool isPair = isHigh(unit) && isLow(escapedUnit(text.substr(escape)));
    if (isPair) size = 2 * escape;
    if (!isPair && (isHigh(unit) || isLow(unit)))
      whole += "\\uFFFD";
    else
      whole += text.substr(0, size);
    text.remove_prefix(size);
  }
  return whole;
}

// ---- Messages ---------------------------------------------------------------------------------

Json parsed(std::string_view content) {
  constexpr int depthLimit = 100;  // far more than any message of the protocol needs
  if (tools::isNestedDeeperThan(depthLimit, content))
    throw RpcError(ErrorCode::ParseError, "it is nested too deeply");
  try {
    return Json::parse(content.find("\\u") == content.npos ? std::string(content)
                                                           : withoutHalves(content));
  } catch (const Json::exception& error) {  // also for a number that is too large
    throw RpcError(ErrorCode::ParseError, error.what());
  }
}

[[noreturn]] void refuse(const std::string& text) {
  throw RpcError(ErrorCode::InvalidRequest, text);
}

Json envelope() {
  return {{"jsonrpc", "2.0"}};
}

}  // namespace

Message messageIn(std::string_view content) {
  Json json = parsed(content);
  if (!json.is_object()) refuse("a message must be an object");
  if (json.value("jsonrpc", Json()) != "2.0")
    refuse("a message must have the member \"jsonrpc\": \"2.0\"");
  Message message{.id = json.value("id", Json())};
  const bool hasGoodId =
      message.id.is_null() || message.id.is_number_integer() || message.id.is_string();
  if (!hasGoodId) refuse("the id of a message must be an integer or a string");
  if (!json.contains("method")) {
    if (json.contains("result") || json.contains("error")) return message;
    refuse("a message must have a method, a result or an error");
  }
  if (!json["method"].is_string() || json["method"].get_ref<const std::string&>().empty()) {
    refuse("the method of a message must be a string that is not empty");
  }
  message.method = json["method"].get<std::string>();
  message.params = std::move(json["params"]);
  if (message.params.is_primitive() && !message.params.is_null()) {
    refuse("the params of a message must be an object or an array");
  }
  return message;
}

Json resultOf(const Json& id, Json result) {
  Json response = envelope();
  response["id"] = id;
  response["result"] = std::move(result);
  return response;
}

Json errorOf(const Json& id, ErrorCode code, std::string_view text) {
  Json response = envelope();
  response["id"] = id;
  response["error"] = {{"code", static_cast<int>(code)}, {"message", text}};
  return response;
}

Json notification(std::string_view method, Json params) {
  Json message = envelope();
  message["method"] = method;
  message["params"] = std::move(params);
  return message;
}

Json request(const Json& id, std::string_view method, Json params) {
  Json message = notification(method, std::move(params));
  message["id"] = id;
  return message;
}

}  // namespace lsp

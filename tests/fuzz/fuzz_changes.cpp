// Notifications of engine changes, with any names in the configuration. The module must pass the
// same changes, and build the same request, as a second, naive implementation.
//
// The target links the whole module except the last step: it records the request instead of
// starting a call. An input is lines of fields separated by "|". The first field is the kind of the
// line:
//
//   s i u f   an entry of the engine's string, int, uint or float list: key, customKey
//   0 to 9    a change of that type, where 8 and 9 are unknown types: key, value
//   M         the module's name
//   S         the host's iteration stops when its callback returns 1
//
// A value is a text or a C number. An absent field is null in a change, and empty otherwise.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "module/grpc-gateway/AsyncSetParamsPayload.h"
#include "module/grpc-gateway/grpc-gateway-module.h"
#include "standin/Engine.h"
#include "standin/Host.h"
#include "standin/KeyValueList.h"
#include "tests/fuzz/Target.h"
#include "tests/tools/check/RewrittenFile.h"

using fuzz::require;
using sonalith::grpcengine::AnyValue;
using sonalith::grpcengine::RequestSetParams;

namespace {

std::vector<RequestSetParams>& sent() {
  static std::vector<RequestSetParams> requests;
  return requests;
}

}  // namespace

// ---- The last step, replaced --------------------------------------------------------------------

namespace gateway {

AsyncSetParamsPayload::AsyncSetParamsPayload(sonalith::grpcengine::Engine::Stub* engine,
                                             grpc::CompletionQueue* queue,
                                             std::unique_ptr<RequestSetParams> params)
    : stub(engine), completionQueue(queue), request(std::move(params)) {}

AsyncSetParamsPayload::~AsyncSetParamsPayload() = default;

void AsyncSetParamsPayload::start(std::unique_ptr<AsyncSetParamsPayload> payload) {
  require(payload->stub != nullptr && payload->completionQueue != nullptr,
          "the payload has a stub and a queue");
  sent().push_back(std::move(*payload->request));
}

void AsyncSetParamsPayload::Proceed(bool) {
  require(false, "no call is started, so none ends");
}

}  // namespace gateway

namespace {

// ---- The input ----------------------------------------------------------------------------------

using Field = std::optional<std::string>;  // nullopt if absent

struct Change {
  std::uint32_t type;
  Field key;
  Field value;

  std::uint32_t bits() const {
    return static_cast<std::uint32_t>(std::strtoul(value.value_or("").c_str(), nullptr, 0));
  }
  double number() const { return std::strtod(value.value_or("").c_str(), nullptr); }
  template <class T>
  std::vector<T> elements() const {
    const std::string text = value.value_or("");
    return {text.begin(), text.end()};
  }
};

struct Input {
  std::string moduleName = "gateway";
  bool iterationStops = false;
  // Indexed by the type of the changes: uint, int, float, string.
  std::vector<gateway::EngineEntry> entries[4];
  std::vector<Change> changes;
};

Field takeField(std::string_view& line) {
  if (line.empty()) return std::nullopt;
  line.remove_prefix(1);
  const std::size_t end = line.find('|');
  // Cut at a NUL: neither the configuration nor the host has texts with one.
  const std::string field(std::string(line.substr(0, end)).c_str());
  line.remove_prefix(end == line.npos ? line.size() : end);
  return field;
}

void takeLine(std::string_view line, Input& input) {
  const char kind = line[0];
  line.remove_prefix(1);
  const Field first = takeField(line);
  const Field second = takeField(line);
  const std::size_t list = std::string_view("uifs").find(kind);
  if (list != std::string_view::npos) {
    input.entries[list].push_back({first.value_or(""), second.value_or("")});
  } else if (kind >= '0' && kind <= '9') {
    input.changes.push_back({static_cast<std::uint32_t>(kind - '0'), first, second});
  } else if (kind == 'M') {
    input.moduleName = first.value_or("").substr(0, sizeof(sonalith_module::name) - 1);
  } else if (kind == 'S') {
    input.iterationStops = true;
  }
}

Input inputOf(std::string_view text) {
  Input input;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if (!line.empty()) takeLine(line, input);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
  }
  return input;
}

// ---- The naive implementation -------------------------------------------------------------------

// A parameter of a request; the value is a text with its kind and its bytes.
struct Param {
  std::string key;
  std::string value;

  bool operator==(const Param&) const = default;
};
using Params = std::vector<Param>;

template <class T>
std::string bytesOf(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

template <class T>
std::string bytesOf(const std::vector<T>& values) {
  std::string bytes;
  for (const T& value : values) bytes += bytesOf(value);
  return bytes;
}

std::string valueOf(const Change& change) {
  switch (change.type) {
    case SONALITH_ITEM_UINT:
      return "uint " + bytesOf(change.bits());
    case SONALITH_ITEM_INT:
      return "int " + bytesOf(change.bits());
    case SONALITH_ITEM_FLOAT:
      return "float " + bytesOf(change.bits());
    case SONALITH_ITEM_STRING:
      return change.value ? "string " + *change.value : "absent";
    case SONALITH_ITEM_UINT_ARRAY:
      return "uints " + bytesOf(change.elements<std::uint32_t>());
    case SONALITH_ITEM_INT_ARRAY:
      return "ints " + bytesOf(change.elements<std::int32_t>());
    case SONALITH_ITEM_FLOAT_ARRAY:
      return "floats " + bytesOf(change.elements<float>());
    case SONALITH_ITEM_DOUBLE:
      return "double " + bytesOf(change.number());
    default:
      return "no member";
  }
}

Params matchesOf(const Change& change, const Input& input) {
  constexpr const char* prefixes[] = {"gateway_uint_", "gateway_int_", "gateway_float_",
                                      "gateway_string_"};
  Params matches;
  if (change.type > SONALITH_ITEM_STRING) return matches;
  if (change.type == SONALITH_ITEM_STRING && !change.value) return matches;
  int position = 0;
  for (const gateway::EngineEntry& entry : input.entries[change.type]) {
    const std::string generated = prefixes[change.type] + std::to_string(position++);
    const std::string& slot = entry.customKey.empty() ? generated : entry.customKey;
    if (*change.key == input.moduleName + '.' + slot)
      matches.push_back({entry.key, valueOf(change)});
  }
  return matches;
}

// The parameters that a notification of the changes sends.
Params filtered(const Input& input) {
  Params params;
  for (const Change& change : input.changes) {
    if (!change.key && input.iterationStops) break;
    if (!change.key) continue;
    const Params matches = matchesOf(change, input);
    params.insert(params.end(), matches.begin(), matches.end());
  }
  return params;
}

// The parameters that sendParams sends for the unfiltered changes.
Params unfiltered(const Input& input) {
  Params params;
  for (const Change& change : input.changes) {
    const std::string value = change.key ? valueOf(change) : "absent";
    params.push_back({change.key.value_or(""), value});
    if (value == "absent" && input.iterationStops) break;
  }
  return params;
}

// ---- The module ---------------------------------------------------------------------------------

template <class T>
std::string arrayOf(const google::protobuf::RepeatedField<T>& values) {
  return bytesOf(std::vector<T>(values.begin(), values.end()));
}

std::string valueOf(const AnyValue& value) {
  switch (value.value_case()) {
    case AnyValue::kSuint:
      return "uint " + bytesOf(value.suint());
    case AnyValue::kSint:
      return "int " + bytesOf(value.sint());
    case AnyValue::kSfloat:
      return "float " + bytesOf(value.sfloat());
    case AnyValue::kSstring:
      return "string " + value.sstring();
    case AnyValue::kAuint:
      return "uints " + arrayOf(value.auint().data());
    case AnyValue::kAint:
      return "ints " + arrayOf(value.aint().data());
    case AnyValue::kAfloat:
      return "floats " + arrayOf(value.afloat().data());
    case AnyValue::kSdouble:
      return "double " + bytesOf(value.sdouble());
    default:
      return "no member";
  }
}

// Returns the parameters of the request sent since the last call, or nullopt if none was sent.
std::optional<Params> takeSent() {
  const std::vector<RequestSetParams> requests = std::exchange(sent(), {});
  require(requests.size() <= 1, "a notification makes at most one call");
  if (requests.empty()) return std::nullopt;
  Params params;
  for (const auto& param : requests[0].params()) {
    params.push_back({param.key(), param.has_value() ? valueOf(param.value()) : "absent"});
  }
  return params;
}

float floatOf(std::uint32_t bits) {
  float value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void add(const Change& change, sonalith_keyValueList& list) {
  const char* const key = change.key ? change.key->c_str() : nullptr;
  switch (change.type) {
    case SONALITH_ITEM_UINT:
      list.addUint(key, change.bits());
      break;
    case SONALITH_ITEM_INT:
      list.addInt(key, static_cast<std::int32_t>(change.bits()));
      break;
    case SONALITH_ITEM_FLOAT:
      list.addFloat(key, floatOf(change.bits()));
      break;
    case SONALITH_ITEM_STRING:
      list.addString(key, change.value ? change.value->c_str() : nullptr);
      break;
    case SONALITH_ITEM_UINT_ARRAY:
      list.addUintArray(key, change.elements<std::uint32_t>());
      break;
    case SONALITH_ITEM_INT_ARRAY:
      list.addIntArray(key, change.elements<std::int32_t>());
      break;
    case SONALITH_ITEM_FLOAT_ARRAY:
      list.addFloatArray(key, change.elements<float>());
      break;
    case SONALITH_ITEM_DOUBLE:
      list.addDouble(key, change.number());
      break;
    default:
      list.addOther(key, change.type, {});
  }
}

// The module, started once, with an engine target that it never calls.
class Module {
 public:
  Module() {
    record_.engine = &engine_;
    RewrittenFile file;
    sonalith_keyValueList params;
    params.addString("gatewayConfigPath",
                     file.write("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"
                                "[Engine]\nTarget=localhost:1\n")
                         .c_str());
    require(plugin_entry_0_1.start(&record_, &params) == 0, "the module starts");
    empty_ = std::make_unique<gateway::ConfigManager>(*manager().config);
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module() { plugin_entry_0_1.stop(&record_); }

  // Acts as if the module had been started with this configuration and name.
  void set(const Input& input) {
    auto config = std::make_shared<gateway::ConfigManager>(*empty_);
    config->engineUints = input.entries[SONALITH_ITEM_UINT];
    config->engineInts = input.entries[SONALITH_ITEM_INT];
    config->engineFloats = input.entries[SONALITH_ITEM_FLOAT];
    config->engineStrings = input.entries[SONALITH_ITEM_STRING];
    manager().config = std::move(config);
    std::memset(record_.name, 0, sizeof record_.name);
    input.moduleName.copy(record_.name, sizeof record_.name - 1);
    host_.setChoices({.iterationStopsAtOne = input.iterationStops, .keepRecords = false});
  }

  std::optional<Params> notify(sonalith_keyValueList& changes) {
    const standin::Outstanding before = host_.outstanding();
    engine_.notify(&changes);
    require(host_.outstanding() == before, "a notification releases everything of the host");
    return takeSent();
  }

  std::optional<Params> send(const sonalith_keyValueList& changes) {
    manager().client->sendParams(&changes);
    return takeSent();
  }

  void requireNoViolation() const {
    require(host_.violations().empty(), "the module keeps the rules of the host");
  }

 private:
  gateway::ModuleManager& manager() {
    return *static_cast<gateway::GatewayModuleData*>(record_.privateData)->manager;
  }

  standin::Host host_{{.keepRecords = false}};
  standin::Engine engine_;
  sonalith_module record_{};
  std::unique_ptr<const gateway::ConfigManager> empty_;
};

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view text) {
  static Module module;
  const Input input = inputOf(text);
  module.set(input);
  sonalith_keyValueList changes;
  for (const Change& change : input.changes) add(change, changes);

  const Params expected = filtered(input);
  const std::optional<Params> notified = module.notify(changes);
  require(notified.has_value() == !expected.empty(),
          "the module makes a call if any change passes");
  require(notified.value_or(Params()) == expected,
          "the call carries the changes that pass, under their keys");
  require(module.send(changes) == unfiltered(input), "sendParams sends each item with its type");
  module.requireNoViolation();
  return notified ? Result::Accepted : Result::Refused;
}

#include "tools/sim/Reflection.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include "descriptors.pb.h"
#include "grpc/reflection/v1/reflection.pb.h"
#include "sanitizers/ReactionOrder.h"
#include "schemas.h"
#include "tools/common/ByteBuffer.h"

namespace sim {
namespace {

using grpc::reflection::v1::ServerReflectionRequest;
using grpc::reflection::v1::ServerReflectionResponse;

constexpr std::array<std::string_view, 2> reflectionPaths{
    "/grpc.reflection.v1.ServerReflection/ServerReflectionInfo",
    "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo",
};
constexpr std::array<std::string_view, 3> standardServices{
    "grpc.health.v1.Health",
    "grpc.reflection.v1.ServerReflection",
    "grpc.reflection.v1alpha.ServerReflection",
};

// ---- The schemas ----------------------------------------------------------------------------

// All files that reflection can send, and the symbols in them.
class Schemas {
 public:
  Schemas() {
    descriptors::FileSet set;
    set.ParseFromString(std::string(schemas::services_binpb));
    for (const auto& bytes : set.file()) addFile(bytes);
  }

  // Null if there is no such file.
  const std::string* fileCalled(const std::string& name) const {
    const auto found = files_.find(name);
    return found == files_.end() ? nullptr : &found->first;
  }

  // The name of the file that defines `symbol`; null if none does.
  const std::string* fileWith(const std::string& symbol) const {
    const auto found = symbols_.find(symbol);
    return found == symbols_.end() ? nullptr : &found->second;
  }

  // The bytes of a file and of all that it imports, each once.
  std::vector<std::string> closureOf(const std::string& name) const {
    std::vector<std::string> order{name};
    std::vector<std::string> bytes;
    std::set<std::string> seen{name};
    for (std::size_t i = 0; i < order.size(); ++i) {
      const auto& file = files_.at(order[i]);
      bytes.push_back(file.bytes);
      for (const auto& import : file.imports) {
        if (seen.insert(import).second) order.push_back(import);
      }
    }
    return bytes;
  }

 private:
  struct File {
    std::string bytes;
    std::vector<std::string> imports;
  };

  void addFile(const std::string& bytes) {
    descriptors::File file;
    file.ParseFromString(bytes);
    files_[file.name()] = {bytes, {file.dependency().begin(), file.dependency().end()}};
    for (const auto& message : file.message_type()) add(file.package(), message, file.name());
    for (const auto& each : file.enum_type()) add(file.package(), each, file.name());
    for (const auto& service : file.service()) {
      const auto name = add(file.package(), service, file.name());
      for (const auto& method : service.method()) add(name, method, file.name());
    }
  }

  void add(const std::string& scope, const descriptors::Message& message, const std::string& file) {
    const auto name = addName(scope, message.name(), file);
    for (const auto& nested : message.nested_type()) add(name, nested, file);
    for (const auto& each : message.enum_type()) add(name, each, file);
  }

  template <class Named>
  std::string add(const std::string& scope, const Named& named, const std::string& file) {
    return addName(scope, named.name(), file);
  }

  std::string addName(const std::string& scope, const std::string& name, const std::string& file) {
    auto full = fmt::format("{}.{}", scope, name);
    symbols_[full] = file;
    return full;
  }

  std::map<std::string, File> files_;
  std::map<std::string, std::string> symbols_;  // the names of their files
};

const Schemas& allSchemas() {
  static const Schemas schemas;
  return schemas;
}

// ---- Answers --------------------------------------------------------------------------------

void setNotFound(ServerReflectionResponse& response, std::string_view what,
                 const std::string& name) {
  auto& error = *response.mutable_error_response();
  error.set_error_code(grpc::StatusCode::NOT_FOUND);
  error.set_error_message(fmt::format("there is no {} \"{}\"", what, name));
}

// `file` is null if it was not found.
void setFile(ServerReflectionResponse& response, const std::string* file, std::string_view what,
             const std::string& name) {
  if (file == nullptr) return setNotFound(response, what, name);
  auto& files = *response.mutable_file_descriptor_response();
  for (auto& bytes : allSchemas().closureOf(*file)) {
    files.add_file_descriptor_proto(std::move(bytes));
  }
}

// No schema here has extensions.
void setExtensions(ServerReflectionResponse& response, const std::string& type) {
  if (allSchemas().fileWith(type) == nullptr) return setNotFound(response, "type", type);
  response.mutable_all_extension_numbers_response()->set_base_type_name(type);
}

void setServices(ServerReflectionResponse& response, const std::vector<std::string>& services) {
  auto& list = *response.mutable_list_services_response();
  for (const auto& service : services) list.add_service()->set_name(service);
}

void setAnswer(ServerReflectionResponse& response, const ServerReflectionRequest& request,
               const std::vector<std::string>& services) {
  switch (request.message_request_case()) {
    case ServerReflectionRequest::kFileByFilename: {
      const auto& name = request.file_by_filename();
      return setFile(response, allSchemas().fileCalled(name), "file", name);
    }
    case ServerReflectionRequest::kFileContainingSymbol: {
      const auto& symbol = request.file_containing_symbol();
      return setFile(response, allSchemas().fileWith(symbol), "symbol", symbol);
    }
    case ServerReflectionRequest::kFileContainingExtension:
      return setNotFound(response, "extension of",
                         request.file_containing_extension().containing_type());
    case ServerReflectionRequest::kAllExtensionNumbersOfType:
      return setExtensions(response, request.all_extension_numbers_of_type());
    case ServerReflectionRequest::kListServices:
      return setServices(response, services);
    case ServerReflectionRequest::MESSAGE_REQUEST_NOT_SET:
      break;
  }
  auto& error = *response.mutable_error_response();
  error.set_error_code(grpc::StatusCode::INVALID_ARGUMENT);
  error.set_error_message("the request asks for nothing that this server knows");
}

// ---- Calls ----------------------------------------------------------------------------------

// Answers each request before it reads the next. It deletes itself when gRPC is done with it.
class ReflectionCall final : public grpc::ServerGenericBidiReactor {
 public:
  explicit ReflectionCall(const Reflection& reflection) : reflection_(reflection) { readNext(); }

  void OnReadDone(bool ok) override {
    const ReactionOrder order(this);
    if (!ok) return Finish(grpc::Status::OK);
    const auto answer = reflection_.answer(tools::bytesOf(request_));
    if (!answer) {
      return Finish({grpc::StatusCode::INVALID_ARGUMENT, "the request can't be parsed"});
    }
    const grpc::Slice slice(*answer);
    response_ = grpc::ByteBuffer(&slice, 1);
    StartWrite(&response_);
  }

  void OnWriteDone(bool ok) override {
    if (ok) return readNext();
    Finish(grpc::Status::CANCELLED);
  }

  void OnDone() override {
    { const ReactionOrder order(this); }
    delete this;
  }

 private:
  void readNext() {
    const ReactionOrder order(this);
    request_.Clear();
    StartRead(&request_);
  }

  const Reflection& reflection_;
  grpc::ByteBuffer request_;
  grpc::ByteBuffer response_;
};

}  // namespace

Reflection::Reflection(const std::vector<std::string>& services) : services_(services) {
  services_.insert(services_.end(), standardServices.begin(), standardServices.end());
}

bool Reflection::serves(std::string_view path) {
  return std::find(reflectionPaths.begin(), reflectionPaths.end(), path) != reflectionPaths.end();
}

grpc::ServerGenericBidiReactor* Reflection::begin() const {
  return new ReflectionCall(*this);
}

std::optional<std::string> Reflection::answer(const std::string& request) const {
  ServerReflectionRequest parsed;
  if (!parsed.ParseFromString(request)) return std::nullopt;
  ServerReflectionResponse response;
  response.set_valid_host(parsed.host());
  setAnswer(response, parsed, services_);
  *response.mutable_original_request() = std::move(parsed);
  return response.SerializeAsString();
}

}  // namespace sim

#include "tools/sim/Call.h"

#include <array>

#include "tools/common/EnumTable.h"

namespace sim {
namespace {

struct MethodNames {
  Method method;
  std::string_view name;
  std::string_view path;
};

constexpr std::array methodNames{
    MethodNames{Method::Fast, "fast", "/sonalith.grpc.Meters/GetMetersFast"},
    MethodNames{Method::Slow, "slow", "/sonalith.grpc.Meters/GetMetersSlow"},
    MethodNames{Method::SetParams, "SetParams", "/sonalith.grpcengine.Engine/SetParams"},
};
static_assert(tools::isIndexedBy(methodNames, &MethodNames::method));

}  // namespace

std::string_view nameOf(Method method) {
  return methodNames[static_cast<std::size_t>(method)].name;
}

std::optional<Method> methodAt(std::string_view path) {
  for (const auto& names : methodNames) {
    if (names.path == path) return names.method;
  }
  return std::nullopt;
}

}  // namespace sim

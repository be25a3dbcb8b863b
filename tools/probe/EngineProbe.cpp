// The checks of an engine service.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "engine.pb.h"
#include "tools/common/StreamProblems.h"
#include "tools/probe/Probe.h"
#include "tools/probe/UnaryCalls.h"

namespace probe {
namespace {

using sonalith::grpcengine::AnyValue;
using sonalith::grpcengine::RequestSetParams;
using sonalith::grpcengine::ResponseSetParams;

constexpr char setParams[] = "/sonalith.grpcengine.Engine/SetParams";

// A key that no service has, so that a probe changes nothing.
std::string keyOf(std::string_view name) {
  return fmt::format("gatewayctl.probe.{}", name);
}

AnyValue& add(RequestSetParams& request, const std::string& key) {
  auto& param = *request.add_params();
  param.set_key(key);
  return *param.mutable_value();
}

// A call for each type that the gateway sends.
std::vector<RequestSetParams> callsOfTypes() {
  std::vector<RequestSetParams> calls(4);
  add(calls[0], keyOf("string")).set_sstring("gro\u00dfer Saal");
  add(calls[1], keyOf("float")).set_sfloat(-6.5F);
  add(calls[2], keyOf("int")).set_sint(-1);
  add(calls[3], keyOf("uint")).set_suint(4294967295U);
  return calls;
}

RequestSetParams strangeCall() {
  constexpr std::size_t longKey = 1000;
  RequestSetParams request;
  add(request, keyOf("unknown")).set_sint(1);
  add(request, "").set_sfloat(1);
  add(request, std::string(longKey, 'k')).set_sstring("");
  request.add_params()->set_key(keyOf("nothing"));
  add(request, keyOf("none"));
  return request;
}

class EngineProbe {
 public:
  EngineProbe(const Site& site, const std::string& target, std::string peer)
      : site_(site),
        results_(site.results),
        target_(target),
        calls_(target, site.limits.patience),
        peer_(std::move(peer)) {}

  void run() {
    if (!judgeAnswers()) return;
    judgeTypes();
    judgeUnknownKeys();
    judgeForms();
    probePings(site_, peer_,
               {.pings = CheckId::EnginePings, .steadyPings = CheckId::EngineSteadyPings});
    judgeLoad();
  }

 private:
  void start(const RequestSetParams& request) {
    calls_.start(setParams, request.SerializeAsString());
  }

  // Waits for the answers to all calls, and keeps one of each kind for judgeForms. Returns those
  // that did not come.
  std::vector<Answer> missingOf(UnaryCalls& calls) {
    std::vector<Answer> missing;
    for (Answer& answer : calls.take(site_.waiter)) {
      note(answer);
      if (!answer.hasCome()) missing.push_back(std::move(answer));
    }
    return missing;
  }

  void note(const Answer& answer) {
    if (!answer.hasCome()) return;
    ++answers_;
    if (!answer.status.ok()) {
      if (badStatus_.empty()) badStatus_ = tools::describe(answer.status);
    } else if (!ResponseSetParams().ParseFromString(answer.bytes)) {
      hasBadReply_ = true;
    }
  }

  // A busy machine may delay one answer, so the fastest of a few counts. Returns whether there is
  // an answer at all.
  bool judgeAnswers() {
    constexpr int attempts = 3;
    double fastest = 0;
    for (int i = 0; i < attempts && (i == 0 || fastest > site_.limits.answer.count()); ++i) {
      const Answer answer = calls_.call(site_.waiter, setParams, "");
      note(answer);
      if (answer.status.error_code() == grpc::StatusCode::UNIMPLEMENTED) {
        results_.add(CheckId::EngineMethod, Verdict::Failed, "SetParams is missing");
        results_.skipRest(true, "SetParams is missing");
        return false;
      }
      if (!answer.hasCome()) return skipUnanswered(answer);
      const double seconds = answer.seconds.count();
      fastest = i == 0 ? seconds : std::min(fastest, seconds);
    }
    results_.add(CheckId::EngineMethod, Verdict::Held, "it does");
    const auto seen = fmt::format("it was answered after {}", timeText(fastest));
    results_.judge(CheckId::EngineAnswers, fastest > site_.limits.answer.count() ? seen : "", seen);
    return true;
  }

  bool skipUnanswered(const Answer& answer) {
    const auto complaint =
        fmt::format("it was not answered within {}: {}", timeText(site_.limits.patience.count()),
                    tools::describe(answer.status));
    results_.add(CheckId::EngineMethod, Verdict::Held, "no answer says that it is missing");
    results_.add(CheckId::EngineAnswers, Verdict::Failed, complaint);
    results_.skipRest(true, "SetParams is not answered");
    return false;
  }

  void judgeTypes() {
    if (!results_.wants(CheckId::EngineTypes)) return;
    for (const auto& request : callsOfTypes()) start(request);
    const auto missing = missingOf(calls_);
    results_.judge(CheckId::EngineTypes,
                   missing.empty()
                       ? ""
                       : fmt::format("{} of 4 calls were not answered: {}", missing.size(),
                                     tools::describe(missing[0].status)),
                   "all four were answered");
  }

  // The strange call, and an ordinary one after it.
  void judgeUnknownKeys() {
    if (!results_.wants(CheckId::EngineUnknownKeys)) return;
    start(strangeCall());
    auto missing = missingOf(calls_);
    start(callsOfTypes().front());
    for (Answer& answer : missingOf(calls_)) missing.push_back(std::move(answer));
    results_.judge(CheckId::EngineUnknownKeys,
                   missing.empty() ? ""
                                   : fmt::format("a call was not answered: {}",
                                                 tools::describe(missing[0].status)),
                   "such a call was answered, and the next one, too");
  }

  // The statuses and replies of all calls so far.
  void judgeForms() {
    const auto seen = fmt::format("all {} had it", answers_);
    results_.judge(CheckId::EngineStatus, badStatus_, seen);
    results_.judge(CheckId::EngineReply, hasBadReply_ ? "an answer can't be parsed" : "",
                   fmt::format("all {} were", answers_));
  }

  void judgeLoad() {
    if (!results_.wants(CheckId::EngineLoad)) return;
    const auto begin = Clock::now();
    const auto request = callsOfTypes()[1].SerializeAsString();
    UnaryCalls calls(target_, site_.limits.load);
    for (std::size_t i = 0; i < site_.limits.calls; ++i) calls.start(setParams, request);
    const auto missing = missingOf(calls);
    results_.judge(
        CheckId::EngineLoad,
        missing.empty() ? ""
                        : fmt::format("{} of {} calls were not answered: {}", missing.size(),
                                      site_.limits.calls, tools::describe(missing[0].status)),
        fmt::format("{} calls were answered within {}", site_.limits.calls,
                    timeText(std::chrono::duration<double>(Clock::now() - begin).count())));
  }

  const Site& site_;
  Results& results_;
  const std::string target_;
  UnaryCalls calls_;
  const std::string peer_;
  std::size_t answers_ = 0;
  std::string badStatus_;  // the first; empty if there is none
  bool hasBadReply_ = false;
};

}  // namespace

void probeEngine(const Site& site, const std::string& target) {
  const Contact found = contact(site, target);
  site.results.judge(CheckId::EngineConnects, found.complaint,
                     fmt::format("it answered after {}", timeText(found.seconds)));
  if (!found.complaint.empty()) return site.results.skipRest(true, "the service can't be reached");
  EngineProbe(site, target, found.peer).run();
}

}  // namespace probe

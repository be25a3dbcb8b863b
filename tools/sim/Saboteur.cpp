#include "tools/sim/Saboteur.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/common/Output.h"
#include "tools/sim/WrongMessages.h"

namespace sim {
namespace {

Method methodOf(Subject subject) {
  return subject == Subject::Fast ? Method::Fast : Method::Slow;
}

AnswerManner mannerOf(const Fault& fault) {
  switch (fault.kind) {
    case FaultKind::Delay:
      return {.delay = fault.number};
    case FaultKind::NoReply:
      return {.replies = false};
    case FaultKind::Fail:
      return {.status = fault.status};
    default:
      return {.readable = false};
  }
}

}  // namespace

Saboteur::Saboteur(asio::io_context& loop, const FaultPlan& plan, const FaultTargets& targets)
    : loop_(loop), targets_(targets) {
  for (std::size_t i = 0; i < plan.size(); ++i) {
    const FaultMoments moments(plan[i].times, targets.settings.seed, i);
    plan_.push_back(std::make_unique<Planned>(Planned{plan[i], moments, asio::steady_timer(loop)}));
    schedule(*plan_.back());
  }
}

void Saboteur::strike(const Fault& fault) {
  happen(fault, std::chrono::duration<double>(Clock::now() - begin_).count());
}

Saboteur::Clock::time_point Saboteur::momentAt(double seconds) const {
  return begin_ + std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(seconds));
}

void Saboteur::schedule(Planned& planned) {
  const auto seconds = planned.moments.next();
  if (!seconds) return;
  planned.timer.expires_at(momentAt(*seconds));
  planned.timer.async_wait([this, &planned, seconds](asio::error_code error) {
    if (error) return;
    schedule(planned);
    happen(planned.fault, *seconds);
  });
}

void Saboteur::happen(const Fault& fault, double seconds) {
  for (const auto subject : fault.subjects) {
    if (isServed(fault, subject)) begin(fault, subject, seconds);
  }
}

void Saboteur::begin(const Fault& fault, Subject subject, double seconds) {
  const auto& row = rowOf(fault.kind);
  if (row.lasts) end({row.group, subject}, seconds);
  if (row.group == FaultGroup::All) endAll(subject, seconds);
  act(fault, subject);
  targets_.report.fault(FaultEvent::Begun, seconds, fault, subject);
  if (row.lasts) keepUp(fault, subject, seconds);
}

void Saboteur::keepUp(const Fault& fault, Subject subject, double seconds) {
  const Place place{rowOf(fault.kind).group, subject};
  const auto number = ++lastNumber_;
  auto& lasting =
      lasting_.emplace(place, Lasting{fault, asio::steady_timer(loop_), number}).first->second;
  if (!fault.times.duration) return;
  const double over = seconds + *fault.times.duration;
  lasting.timer.expires_at(momentAt(over));
  lasting.timer.async_wait([this, place, number, over](asio::error_code) {
    const auto found = lasting_.find(place);
    if (found != lasting_.end() && found->second.number == number) end(place, over);
  });
}

void Saboteur::end(const Place& place, double seconds) {
  auto found = lasting_.extract(place);
  if (found.empty()) return;
  const auto& fault = found.mapped().fault;
  undo(fault, place.second);
  targets_.report.fault(FaultEvent::Over, seconds, fault, place.second);
}

void Saboteur::endAll(Subject subject, double seconds) {
  for (const auto group : {FaultGroup::Stream, FaultGroup::Connection, FaultGroup::Answer}) {
    end({group, subject}, seconds);
  }
}

void Saboteur::act(const Fault& fault, Subject subject) {
  switch (rowOf(fault.kind).group) {
    case FaultGroup::Message:
      return send(fault, methodOf(subject));
    case FaultGroup::Stream:
      return feed(fault, methodOf(subject));
    case FaultGroup::Connection:
      return connection(fault, *relayOf(subject));
    case FaultGroup::Answer:
      return targets_.answers.change(mannerOf(fault));
    case FaultGroup::All:
      break;
  }
}

void Saboteur::undo(const Fault& fault, Subject subject) {
  switch (rowOf(fault.kind).group) {
    case FaultGroup::Stream:
      targets_.player.setFeed(targets_.simulator, methodOf(subject), Feed::Signals);
      return endHalves(methodOf(subject));
    case FaultGroup::Connection:
      return reconnect(fault, *relayOf(subject));
    case FaultGroup::Answer:
      return targets_.answers.change({});
    default:
      break;
  }
}

void Saboteur::send(const Fault& fault, Method method) {
  const auto calls = targets_.simulator.openCalls(method);
  if (calls.empty()) {
    tools::writeError(
        fmt::format("gatewayctl sim: no {} stream is open for this fault\n", nameOf(method)));
  }
  for (const auto& call : calls) {
    if (fault.kind == FaultKind::End) {
      call->end(fault.status);
    } else {
      call->send(wrongMessage(fault, targets_.settings.keys, method));
    }
  }
}

void Saboteur::feed(const Fault& fault, Method method) {
  const bool flood = fault.kind == FaultKind::Flood;
  targets_.player.setFeed(targets_.simulator, method, flood ? Feed::Flood : Feed::Nothing);
  if (fault.kind != FaultKind::Half) return;
  send(fault, method);
  for (auto& call : targets_.simulator.openCalls(method)) halves_.push_back(std::move(call));
}

void Saboteur::endHalves(Method method) {
  std::erase_if(halves_, [&](const auto& call) {
    if (call->opening().method != method) return false;
    call->end(grpc::StatusCode::UNAVAILABLE);
    return true;
  });
}

void Saboteur::connection(const Fault& fault, Relay& relay) {
  switch (fault.kind) {
    case FaultKind::Reset:
      return relay.resetAll();
    case FaultKind::Refuse:
      relay.refuse(true);
      return relay.closeAll();
    case FaultKind::Silent:
      relay.freeze(true);
      return relay.closeAll();
    case FaultKind::Freeze:
      return relay.freeze(true);
    case FaultKind::Drip:
      return relay.drip(fault.number);
    default:
      return relay.closeAll();
  }
}

void Saboteur::reconnect(const Fault& fault, Relay& relay) {
  if (fault.kind == FaultKind::Refuse) {
    relay.refuse(false);
  } else if (fault.kind == FaultKind::Drip) {
    relay.drip(0);
  } else {
    relay.freeze(false);
  }
}

Relay* Saboteur::relayOf(Subject subject) const {
  return subject == Subject::Meters ? targets_.meters : targets_.engine;
}

// Connections that are not there can't fail.
bool Saboteur::isServed(const Fault& fault, Subject subject) const {
  return rowOf(fault.kind).group != FaultGroup::Connection || relayOf(subject) != nullptr;
}

}  // namespace sim

#include "tools/sim/Saboteur.h"

#include <algorithm>

namespace sim {

Saboteur::Saboteur(boost::asio::io_context& loop, const FaultPlan& plan,
                   const FaultTargets& targets, const Report& report)
    : loop_(loop), targets_(targets), report_(report) {
  for (std::size_t i = 0; i < plan.size(); ++i) {
    const FaultMoments moments(plan[i], targets.settings.seed, i);
    plan_.push_back(
        std::make_unique<Planned>(Planned{plan[i], moments, boost::asio::steady_timer(loop)}));
    schedule(*plan_.back());
  }
}

void Saboteur::strike(const Fault& fault) {
  const auto place = plan_.size() + strikes_++;
  if (!FaultMoments(fault, targets_.settings.seed, place).next()) return;
  happen(fault, std::chrono::duration<double>(Clock::now() - begin_).count());
}

Saboteur::Clock::time_point Saboteur::momentAt(double seconds) const {
  constexpr double never = 1e9;  // beyond it, the clock's own number would overflow
  return begin_ + std::chrono::ceil<Clock::duration>(
                      std::chrono::duration<double>(std::min(seconds, never)));
}

void Saboteur::schedule(Planned& planned) {
  const auto seconds = planned.moments.next();
  if (!seconds) return;
  planned.timer.expires_at(momentAt(*seconds));
  planned.timer.async_wait([this, &planned, seconds](boost::system::error_code error) {
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
  if (row.lasts()) end({row.group, subject}, seconds);
  if (row.group == FaultGroup::All) endAll(subject, seconds);
  FaultSite site(targets_, subject);
  row.begin(site, fault);
  report_.fault(FaultEvent::Begun, seconds, fault, subject);
  if (row.lasts()) keepUp(fault, subject, seconds);
}

void Saboteur::keepUp(const Fault& fault, Subject subject, double seconds) {
  const Place place{rowOf(fault.kind).group, subject};
  const auto number = ++lastNumber_;
  auto& lasting = lasting_.emplace(place, Lasting{fault, boost::asio::steady_timer(loop_), number})
                      .first->second;
  if (!fault.times.duration) return;
  const double over = seconds + *fault.times.duration;
  lasting.timer.expires_at(momentAt(over));
  lasting.timer.async_wait([this, place, number, over](boost::system::error_code) {
    const auto found = lasting_.find(place);
    if (found != lasting_.end() && found->second.number == number) end(place, over);
  });
}

void Saboteur::end(const Place& place, double seconds) {
  auto found = lasting_.extract(place);
  if (found.empty()) return;
  const auto& fault = found.mapped().fault;
  FaultSite site(targets_, place.second);
  rowOf(fault.kind).end(site, fault);
  report_.fault(FaultEvent::Over, seconds, fault, place.second);
}

void Saboteur::endAll(Subject subject, double seconds) {
  std::vector<Place> places;
  for (const auto& [place, lasting] : lasting_) {
    if (place.second == subject) places.push_back(place);
  }
  for (const auto& place : places) end(place, seconds);
}

// A connection that is not there can't fail.
bool Saboteur::isServed(const Fault& fault, Subject subject) {
  return !rowOf(fault.kind).isOfConnections() ||
         FaultSite(targets_, subject).relayOrNull() != nullptr;
}

}  // namespace sim

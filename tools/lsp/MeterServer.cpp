#include "tools/lsp/MeterServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "tools/common/StreamProblems.h"

namespace lsp {
namespace {

using standin::SlotSet;
using tools::Heard;
using tools::SeenKey;

constexpr SlotSet rates[] = {SlotSet::Fast, SlotSet::Slow};

bool hasBroughtNothing(const Heard& heard) {
  return std::all_of(std::begin(rates), std::end(rates),
                     [&](SlotSet rate) { return heard.sightings.messagesOf(rate).messages == 0; });
}

// The streams have ended, so the time that they were given does not matter.
std::string problemsOf(const std::string& target, const Heard& heard) {
  std::string text;
  for (const tools::StreamProblem& problem : tools::problemsOf(target, 0, heard)) {
    text += (text.empty() ? "" : " ") + tools::sentencesOf(problem);
  }
  return text;
}

void add(KeyChoice& choice, const SeenKey& seen, const EntryList& list) {
  if (seen.rate == list.rate && seen.has(list.type)) choice.fit = Fit::Good;
  for (const tools::ValueCase value : seen.types) {
    const tools::WireType& type = tools::typeOf(value);
    if (!type.slotType) continue;
    choice.description += fmt::format("{}{} {}", choice.description.empty() ? "" : ", ",
                                      nameOf(seen.rate), type.name);
  }
}

std::map<std::string, KeyChoice> choicesIn(const tools::Sightings& sightings,
                                           const EntryList& list) {
  std::map<std::string, KeyChoice> choices;
  for (const SlotSet rate : rates) {
    for (const SeenKey& seen : sightings.keysOf(rate)) {
      if (tools::complaintAboutKey(seen.key).empty()) add(choices[seen.key], seen, list);
    }
  }
  return choices;
}

}  // namespace

MeterServer::MeterServer(std::string target) : target_(std::move(target)) {
  tools::prepareToListen();
  listener_.emplace(target_);
}

std::string MeterServer::keepListening() {
  if (!listener_) listener_.emplace(target_);  // the last attempt failed
  bool isOver = false;
  listener_->look([&](const Heard& heard) { isOver = heard.fastEnd && heard.slowEnd; });
  if (!isOver) return {};
  Heard heard = listener_->finish();
  std::string complaint;
  if (hasBroughtNothing(heard) && !std::exchange(hasComplained_, true)) {
    complaint = problemsOf(target_, heard);
  }
  listener_.emplace(target_, std::move(heard.sightings));
  return complaint;
}

std::vector<KeyChoice> MeterServer::choicesFor(const EntryList& list) const {
  if (!listener_) return {};
  std::map<std::string, KeyChoice> found;
  listener_->look([&](const Heard& heard) { found = choicesIn(heard.sightings, list); });
  std::vector<KeyChoice> choices;
  for (auto& [key, choice] : found) {
    if (choice.description.empty()) continue;
    choice.key = key;
    if (list.keys.contains(key)) choice.fit = Fit::Configured;
    choices.push_back(std::move(choice));
  }
  std::stable_sort(choices.begin(), choices.end(),
                   [](const KeyChoice& a, const KeyChoice& b) { return a.fit < b.fit; });
  return choices;
}

}  // namespace lsp

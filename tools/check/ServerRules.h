// Rules about what a meter server sends for the meters of a configuration. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/check/WholeRules.h"
#include "tools/common/Sightings.h"

namespace check {

// What a meter server has sent, whether it was heard just now or recorded.
struct HeardServer {
  std::string name = {};  // its target, or the recording
  double seconds = 0;     // how long it was heard
  bool wasReached = true;
  tools::Sightings sightings = tools::Sightings();
  std::vector<tools::StreamProblem> problems = {};
};

// Judges the meters of an accepted configuration whose rates are on.
void judgeServer(const Configuration& configuration, const HeardServer& server,
                 const Report& report);

}  // namespace check

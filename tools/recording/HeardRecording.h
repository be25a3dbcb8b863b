// What a meter server sent according to a recording, in the form in which a Listener returns what
// it has heard: so whoever uses the one can use the other.
//
// Threads: one at a time.
// Memory: what Sightings keeps, and a Reader.
#pragma once

#include <string>

#include "tools/common/Listener.h"

namespace recording {

struct HeardRecording {
  std::string target;   // that was recorded; empty if no stream was
  double seconds = 0;   // the length of the recording
  std::string warning;  // with file and place, if it is cut off or misses messages; or empty
  tools::Heard heard;
};

// Reads the whole recording, and adds its messages to `sightings`. A stream has ended if it was not
// open at the end. Throws std::runtime_error, with file and place, if it is damaged or can't be
// read.
HeardRecording heardIn(const std::string& path, tools::Sightings sightings = tools::Sightings());

}  // namespace recording

// A stand-in for the sonalith host. It provides every operation of sonalith.h, so that a module
// runs without the engine. Tests and tools share it; there is no second fake.
//
// A program that links the library `standin` exports the operations to every module that it loads.
// The operations take no handle, so they act on the one Host of the process. Create it before any
// module starts, and destroy it after all of them have stopped.
//
// Threads: any thread may call any operation and any member function. The constructor and the
// destructor must run alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/sonalith.h"

namespace standin {

// What the boundary leaves to the host. A module must work with any of these.
struct Choices {
  // Whether sonalith_strncpy terminates a full buffer.
  bool strncpyTerminates = true;
  // Whether an iteration ends when its callback returns 1.
  bool iterationStopsAtOne = false;
  // Whether sonalith_keyValueListGetS sets its pointer to null when it does not find the key.
  bool missedTextIsNull = false;
  // Whether registering a change callback fails and returns null.
  bool registrationFails = false;
  // Changes to deliver while a callback is being registered; null for none. Borrowed.
  sonalith_keyValueList* changesDuringRegistration = nullptr;
  // Whether a slot list moves at each append. Otherwise it moves only when it has to grow, which
  // thousands of slots need in order to start fast.
  bool listsAlwaysMove = true;
  // Whether to keep log lines and the journal. A host that runs for long should keep neither.
  bool keepRecords = true;
  // Whether operations do as little as they can, to measure what a module itself costs: no guards,
  // faults, hooks or records, and waitUntil is not woken. Read only by the constructor.
  bool isLean = false;
  // Whether a lean host adds up the time spent in its operations. Read only by the constructor.
  bool timesOperations = false;
};

// The operations that can fail, have a hook or appear in the journal.
enum class Operation {
  Log,
  Calloc,
  Free,
  Strncpy,
  CreateModuleOffset,
  AddModuleOffset,
  KeyValueListNew,
  KeyValueListDestroy,
  KeyValueListIsEmpty,
  KeyValueListGetS,
  KeyValueListForEach,
  KeyValueListAdd,
  AddCallback,
  RmCallback,
};

// Thrown by an operation that failCall made fail; what() is the text passed to failCall.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One line that a module logged.
struct LogLine {
  std::chrono::system_clock::time_point time;
  int level;
  std::string file;  // path of the source that logged it
  int line;
  int one;  // the fourth argument of sonalith_log
  std::string format = {};
  std::vector<std::string> arguments = {};  // each as it appears in the text
  std::string text;
};

// What modules have been given and have not returned.
struct Outstanding {
  std::size_t blocks = 0;  // sonalith_calloc and offset lists
  std::size_t bytes = 0;
  std::size_t keyValueLists = 0;
  std::size_t callbacks = 0;

  bool operator==(const Outstanding&) const = default;
};

class Host {
 public:
  // Becomes the process's host. Throws std::logic_error if there is one already.
  explicit Host(Choices choices = {});
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // The process's host. Throws std::logic_error if there is none.
  static Host& current();

  // Choices may change at any time; each operation reads them once, when it begins.
  Choices choices() const;
  void setChoices(const Choices& choices);

  // Calls `sink` for each line, one at a time, on the thread that logs; an empty function removes
  // the sink. When this returns, the previous sink is not running. A sink must neither log nor set
  // a sink.
  void setLogSink(std::function<void(const LogLine&)> sink);

  // All lines so far, if records are kept.
  std::vector<LogLine> log() const;

  // What modules did, one line each, in order, if records are kept. Memory blocks are numbered from
  // 1, and numbers are not reused:
  //   log 1 <text>                           the level and the text
  //   calloc 3x100 #1
  //   free #1
  //   createModuleOffset #2
  //   addModuleOffset #2>#3 <slot name>      the list moved from #2 to #3
  //   addCallback                            also if the choices make it fail
  //   rmCallback                             once no call of the callback is running
  // Calls that failed as planned or violated the contract are not listed.
  std::vector<std::string> journal() const;
  void clearRecords();  // drops log lines and journal; blocks keep their numbers

  // What modules hold now.
  Outstanding outstanding() const;

  // The slots of a list, in the order in which they were added. Throws std::logic_error unless a
  // module holds the list now, which exposes a pointer that was kept after its list had moved.
  std::vector<sonalith_moduleOffset> slotsOf(const sonalith_moduleOffsetList* list) const;

  // Violations of the contract so far, a sentence each: releasing a block twice or one that is not
  // the host's, writing past the end of a block or into a released one (checked at its release and
  // here), using a list that has moved, destroying a list twice or one that is not the module's,
  // describing a slot with reserved bytes or a wrong size, passing null, removing a callback twice.
  // The host does not carry out such a call. Under the address sanitizer, even reading past a block
  // or from a released one ends the program with the sanitizer's report.
  std::vector<std::string> violations() const;

  // Makes the nth call of `operation` from now on (1: the next one) throw Fault(text) and do
  // nothing else. Throws std::invalid_argument if nth is less than 1.
  void failCall(Operation operation, int nth = 1, std::string text = "planned fault");

  // The time that all threads together have spent in operations, if a lean host adds it up.
  std::chrono::nanoseconds timeInOperations() const;

  // Calls `hook` at the beginning of each call of `operation`, on its thread; an empty function
  // removes the hook. A hook may block to hold the caller there, or throw in its place. It must not
  // call the operation itself.
  void setHook(Operation operation, std::function<void()> hook);

  // Blocks until `condition` holds, and checks it again after each call of an operation. Returns
  // false once `limit` has passed, a generous bound that keeps a broken run from hanging.
  bool waitUntil(const std::function<bool()>& condition,
                 std::chrono::seconds limit = std::chrono::seconds(60)) const;

 private:
  friend class Call;
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace standin

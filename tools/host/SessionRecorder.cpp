#include "tools/host/SessionRecorder.h"

#include <mutex>
#include <optional>

#include "tools/common/ByteBuffer.h"
#include "tools/common/Output.h"
#include "tools/recording/MeterRecorder.h"
#include "tools/recording/Recorder.h"

namespace host {

using recording::Kind;
using recording::Stream;

struct SessionRecorder::State final : CallTap {
  explicit State(const std::string& path) : file(path), recorder(file) {}

  void directed(const std::string& target) override {
    const std::lock_guard lock(mutex);
    engineTarget = target;
  }

  void started(std::uint32_t number) override {
    std::string target;
    {
      const std::lock_guard lock(mutex);
      target = engineTarget;
    }
    recorder.add(Kind::Started, Stream::Engine, number, std::move(target));
  }

  void sent(std::uint32_t number, const grpc::ByteBuffer& request) override {
    recorder.add(Kind::Message, Stream::Engine, number, tools::bytesOf(request));
  }

  void ended(std::uint32_t number, const grpc::Status& status) override {
    const std::string text = status.error_message();
    recorder.add(Kind::Ended, Stream::Engine, number,
                 contentOf(recording::EndContent{status.error_code(), text}));
  }

  const recording::OutputFile file;
  recording::Recorder recorder;
  std::string metersTarget;
  std::optional<recording::MeterRecorder> streams;

  std::mutex mutex;  // protects the following
  std::string engineTarget;
};

SessionRecorder::SessionRecorder(const std::string& path) : state_(std::make_shared<State>(path)) {}

SessionRecorder::~SessionRecorder() {
  state_->streams.reset();
}

TappedMethod SessionRecorder::tap() const {
  return {"/sonalith.grpcengine.Engine/SetParams", state_};
}

void SessionRecorder::follow(const std::string& metersTarget) {
  if (metersTarget == state_->metersTarget) return;
  state_->metersTarget = metersTarget;
  state_->streams.reset();
  if (metersTarget.empty()) return;
  state_->streams.emplace(metersTarget, state_->recorder, [](const std::string& sentence) {
    tools::say("host", "recording: " + sentence);
  });
}

bool SessionRecorder::hasFailed() const {
  return state_->recorder.hasFailed();
}

std::string SessionRecorder::close() {
  state_->streams.reset();
  state_->recorder.close();
  std::string sentences;
  for (const auto stream : {Stream::Fast, Stream::Slow, Stream::Engine}) {
    const auto loss = state_->recorder.lossOf(stream);
    if (!sentences.empty() && !loss.empty()) sentences += ". ";
    sentences += loss;
  }
  return sentences;
}

}  // namespace host

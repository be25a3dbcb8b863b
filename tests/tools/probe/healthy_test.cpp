// A healthy server passes every check of every level. Pings fail only where they should.
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include "tests/support/TemporaryFolder.h"
#include "tests/tools/probe/ProbeTest.h"

namespace probe {
namespace {

class Level : public testing::TestWithParam<int> {};

TEST_P(Level, RunsEachOfItsChecksOnce) {
  const PlayingServer server;
  const Results results = probed(server.meters, server.engine, GetParam());
  Names wanted;
  std::size_t count = 0;
  for (const Check& check : allChecks()) {
    if (check.level > GetParam()) continue;
    wanted.emplace(check.name);
    ++count;
  }
  EXPECT_EQ(namesOf(results, Verdict::Held), wanted) << textOf(results);
  EXPECT_EQ(results.all().size(), count);
}

INSTANTIATE_TEST_SUITE_P(Of, Level, testing::Range(1, highestLevel + 1));

Results pinged(const std::string& peer) {
  const tools::SignalDescriptor signals;
  const Waiter waiter(signals);
  Results results(highestLevel, [](const Result&) {});
  Limits limits;
  limits.pingInterval = Limits::Seconds(0.01);
  probePings({waiter, limits, results}, peer,
             {.pings = CheckId::Pings, .steadyPings = CheckId::SteadyPings});
  return results;
}

TEST(Probe, PingsAtAUnixSocket) {
  const TemporaryFolder folder;
  const std::string address = "unix:" + folder.path("socket");
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  grpc::CallbackGenericService service;
  builder.RegisterCallbackGenericService(&service);
  const auto server = builder.BuildAndStart();
  const Results results = pinged(address);
  EXPECT_TRUE(results.hasHeld(CheckId::Pings)) << textOf(results);
}

TEST(Probe, FailsAServerThatRefusesAConnectionForPings) {
  const Results results = pinged("ipv4:" + unusedTarget());
  EXPECT_EQ(namesOf(results, Verdict::Failed), Names{"pings"}) << textOf(results);
  EXPECT_EQ(namesOf(results, Verdict::Skipped), Names{"steady-pings"});
}

TEST(Probe, SkipsPingsWhereASocketCannotConnect) {
  const Results results = pinged("vsock:2:50005");
  EXPECT_EQ(namesOf(results, Verdict::Skipped), (Names{"pings", "steady-pings"}))
      << textOf(results);
}

}  // namespace
}  // namespace probe

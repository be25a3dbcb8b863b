#include "tests/proof/network/Wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <stop_token>
#include <system_error>
#include <thread>
#include <vector>

namespace network {
namespace {

using Clock = std::chrono::steady_clock;
using Packet = std::vector<std::uint8_t>;

constexpr char ownNamespace[] = "/proc/thread-self/ns/net";

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void check(int result, const char* what) {
  if (result < 0) fail(what);
}

ifreq requestFor(const std::string& name) {
  ifreq request{};
  std::copy_n(name.data(), std::min<std::size_t>(name.size(), IFNAMSIZ - 1), request.ifr_name);
  return request;
}

int controlSocket() {
  return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void setUp(const Descriptor& control, const std::string& name, bool up) {
  auto request = requestFor(name);
  check(ioctl(control.number(), SIOCGIFFLAGS, &request), "SIOCGIFFLAGS");
  request.ifr_flags =
      static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
  check(ioctl(control.number(), SIOCSIFFLAGS, &request), "SIOCSIFFLAGS");
}

// A new namespace belongs to the thread that makes it, so each one needs a new thread.
int newNamespace() {
  return std::async(std::launch::async,
                    [] {
                      check(unshare(CLONE_NEWNET), "a network namespace");
                      setUp(Descriptor(controlSocket(), "socket"), "lo", true);
                      return open(ownNamespace, O_RDONLY | O_CLOEXEC);
                    })
      .get();
}

}  // namespace

Descriptor::Descriptor(int number, const char* what) : number_(number) {
  check(number, what);
}

Descriptor::~Descriptor() {
  close(number_);
}

Namespace::Namespace() : place_(newNamespace(), "a network namespace") {}

void Namespace::inside(const std::function<void()>& action) const {
  const Descriptor home(open(ownNamespace, O_RDONLY | O_CLOEXEC), ownNamespace);
  check(setns(place_.number(), CLONE_NEWNET), "setns");
  try {
    action();
  } catch (...) {
    check(setns(home.number(), CLONE_NEWNET), "setns");
    throw;
  }
  check(setns(home.number(), CLONE_NEWNET), "setns");
}

namespace {

// ---- Ends ---------------------------------------------------------------------------------------

// An interface whose packets this process reads and writes. Make it inside its namespace.
class Interface {
 public:
  explicit Interface(const std::string& address) {
    auto request = requestFor("wire%d");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    check(ioctl(packets_.number(), TUNSETIFF, &request), "TUNSETIFF");
    name_ = request.ifr_name;
    setAddress(SIOCSIFADDR, address);
    setAddress(SIOCSIFNETMASK, "255.255.255.0");
    setUp(control_, name_, true);
  }

  int packets() const { return packets_.number(); }
  void raise(bool up) const { setUp(control_, name_, up); }
  void plug(bool plugged) const {
    int carrier = plugged ? 1 : 0;
    check(ioctl(packets_.number(), TUNSETCARRIER, &carrier), "TUNSETCARRIER");
  }

  // False if there is no packet.
  bool read(Packet& packet) const {
    packet.resize(maxPacket);
    const auto size = ::read(packets_.number(), packet.data(), packet.size());
    packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
  }

  // Writing to an interface that is down fails, as it should.
  void write(const Packet& packet) const {
    [[maybe_unused]] const auto size = ::write(packets_.number(), packet.data(), packet.size());
  }

 private:
  static constexpr std::size_t maxPacket = 2048;

  void setAddress(unsigned long what, const std::string& text) const {
    auto request = requestFor(name_);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    check(ioctl(control_.number(), what, &request), "an interface's address");
  }

  const Descriptor packets_{open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK), "/dev/net/tun"};
  const Descriptor control_{controlSocket(), "socket"};
  std::string name_;  // with the number that the kernel chose
};

// ---- RST ----------------------------------------------------------------------------------------

// Adds the bytes, as big-endian words, to a sum.
std::uint32_t sumOf(const std::uint8_t* bytes, std::size_t size, std::uint32_t sum = 0) {
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
  }
  return size % 2 == 0 ? sum : sum + static_cast<std::uint32_t>(bytes[size - 1] << 8);
}

std::uint16_t checksumOf(std::uint32_t sum) {
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return htons(static_cast<std::uint16_t>(~sum));
}

struct Reply {
  iphdr ip{};
  tcphdr tcp{};
};
static_assert(sizeof(Reply) == sizeof(iphdr) + sizeof(tcphdr));

void sign(Reply& reply) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&reply);
  reply.ip.check = checksumOf(sumOf(bytes, sizeof reply.ip));
  // TCP's checksum begins with a pseudo header: both addresses, the protocol and the length.
  const auto before = sumOf(reinterpret_cast<const std::uint8_t*>(&reply.ip.saddr), 8,
                            IPPROTO_TCP + sizeof reply.tcp);
  reply.tcp.check = checksumOf(sumOf(bytes + sizeof reply.ip, sizeof reply.tcp, before));
}

// What a firewall that has forgotten a connection answers. It needs the sequence number that the
// sender expects, since TCP ignores any other.
std::optional<Packet> resetFor(const Packet& packet) {
  iphdr ip{};
  tcphdr tcp{};
  if (packet.size() < sizeof ip) return std::nullopt;
  std::memcpy(&ip, packet.data(), sizeof ip);
  const std::size_t start = ip.ihl * 4U;
  if (ip.version != 4 || ip.protocol != IPPROTO_TCP || packet.size() < start + sizeof tcp) {
    return std::nullopt;
  }
  std::memcpy(&tcp, packet.data() + start, sizeof tcp);
  if (tcp.rst) return std::nullopt;
  Reply reply;
  reply.ip.version = 4;
  reply.ip.ihl = sizeof reply.ip / 4;
  reply.ip.tot_len = htons(sizeof reply);
  reply.ip.ttl = 64;
  reply.ip.protocol = IPPROTO_TCP;
  reply.ip.saddr = ip.daddr;
  reply.ip.daddr = ip.saddr;
  reply.tcp.source = tcp.dest;
  reply.tcp.dest = tcp.source;
  reply.tcp.doff = sizeof reply.tcp / 4;
  reply.tcp.rst = 1;
  reply.tcp.ack = 1;
  reply.tcp.seq = tcp.ack_seq;
  const auto length = packet.size() - start - tcp.doff * 4U + tcp.syn + tcp.fin;
  reply.tcp.ack_seq = htonl(ntohl(tcp.seq) + static_cast<std::uint32_t>(length));
  sign(reply);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&reply);
  return Packet(bytes, bytes + sizeof reply);
}

// An Interface can't be moved, and must be made inside its namespace.
std::unique_ptr<Interface> interfaceAt(const Wire::End& end) {
  std::unique_ptr<Interface> made;
  end.place.inside([&] { made = std::make_unique<Interface>(end.address); });
  return made;
}

}  // namespace

// ---- The wire -----------------------------------------------------------------------------------

struct Wire::State {
  State(const End& clientEnd, const End& serverEnd, std::uint64_t seed)
      : client(interfaceAt(clientEnd)), server(interfaceAt(serverEnd)), random(seed) {}

  void run(const std::stop_token& stop);
  void take(const Interface& from, const Interface& to, bool passes);
  void pass(const Interface& to, Packet packet);
  void deliverWhatIsDue();
  bool happens(double chance) { return std::bernoulli_distribution(chance)(random); }

  const std::unique_ptr<Interface> client;
  const std::unique_ptr<Interface> server;

  std::mutex mutex;  // of the conditions, and of whether the thread has taken them over
  Conditions conditions;
  bool isTaken = true;
  std::condition_variable taken;

  // Only used by the thread.
  Conditions now;
  std::mt19937_64 random;
  std::multimap<Clock::time_point, std::pair<const Interface*, Packet>> late;

  std::jthread thread;  // last, because it uses everything above
};

void Wire::State::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    constexpr int lookAgain = 10;  // milliseconds; also the worst precision of a delay
    std::array<pollfd, 2> ends{{{client->packets(), POLLIN, 0}, {server->packets(), POLLIN, 0}}};
    poll(ends.data(), ends.size(), late.empty() ? lookAgain : 1);
    {
      const std::lock_guard lock(mutex);
      now = conditions;
      isTaken = true;
    }
    taken.notify_all();
    const bool isThrough = now.isPlugged && now.isUp;
    take(*client, *server, isThrough && now.toServer);
    take(*server, *client, isThrough && now.toClient);
    deliverWhatIsDue();
  }
}

void Wire::State::take(const Interface& from, const Interface& to, bool passes) {
  constexpr int fairShare = 64;  // packets of one end before it is the other end's turn
  Packet packet;
  for (int i = 0; i < fairShare && from.read(packet); ++i) {
    if (now.resets) {
      if (const auto reset = resetFor(packet)) from.write(*reset);
    } else if (passes) {
      pass(to, packet);
    }
  }
}

void Wire::State::pass(const Interface& to, Packet packet) {
  constexpr std::chrono::milliseconds laterThanOthers(30);
  if (happens(now.loss)) return;
  if (happens(now.corruption)) packet[random() % packet.size()] ^= 0x55;
  const auto copies = happens(now.duplication) ? 2 : 1;
  const auto due = Clock::now() + now.delay +
                   (happens(now.reordering) ? laterThanOthers : std::chrono::milliseconds(0));
  for (int i = 0; i < copies; ++i) late.emplace(due, std::pair(&to, packet));
}

void Wire::State::deliverWhatIsDue() {
  const auto end = late.upper_bound(Clock::now());
  for (auto each = late.begin(); each != end; ++each) {
    each->second.first->write(each->second.second);
  }
  late.erase(late.begin(), end);
}

Wire::Wire(const End& client, const End& server, std::uint64_t seed)
    : state_(std::make_unique<State>(client, server, seed)) {
  state_->thread = std::jthread([this](const std::stop_token& stop) { state_->run(stop); });
}

Wire::~Wire() = default;

void Wire::setConditions(const Conditions& conditions) {
  {
    std::unique_lock lock(state_->mutex);
    state_->conditions = conditions;
    state_->isTaken = false;
    // Packets sent after this call must not meet the old conditions.
    state_->taken.wait(lock, [&] { return state_->isTaken; });
  }
  state_->client->plug(conditions.isPlugged);
  state_->client->raise(conditions.isUp);
}

std::string whatForbidsWires() {
  try {
    const Namespace client;
    const Namespace server;
    const Wire wire({client, "10.77.1.1"}, {server, "10.77.1.2"}, 1);
    return {};
  } catch (const std::system_error& error) {
    return error.what();
  }
}

}  // namespace network

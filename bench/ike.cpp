// What following strongSwan costs: the first listing of so many SAs, another one in which nothing
// has changed, an event, and a link that comes or goes. Prints JSON.
//
// The daemon is a thread that says what it has to say; its CPU is not counted.
#include "bench/Steps.h"
#include "os/Descriptor.h"
#include "os/UnixAddress.h"
#include "platform/Kiln.h"
#include "sources/vici/ViciSource.h"
#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include "tests/sources/vici/ViciBytes.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestLoop.h"
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <mutex>
#include <sys/socket.h>
#include <thread>

namespace {

using namespace Bench;
using Sources::Vici::encodeSegment;
using Sources::Vici::Packet;
using Type = Sources::Vici::PacketType;

/// As the daemon has it.
constexpr std::chrono::milliseconds share{2};
/// So many as a socket holds.
constexpr int eventsOfARound = 100;
constexpr int rounds = 10;

std::string nameOf(std::uint32_t number) {
  return fmt::format("connection-{}", number);
}

/// As large as a real one's.
std::string saOf(std::uint32_t number) {
  auto const ifId = fmt::format("{:08x}", number);
  ViciBytes::Child const child{"net",
                               "INSTALLED",
                               {{"reqid", ifId},
                                {"protocol", "ESP"},
                                {"spi-in", ifId},
                                {"spi-out", ifId},
                                {"if-id-in", ifId},
                                {"if-id-out", ifId},
                                {"encr-alg", "AES_CBC"},
                                {"encr-keysize", "128"},
                                {"integ-alg", "HMAC_SHA2_256_128"},
                                {"bytes-in", "123456789"},
                                {"packets-in", "123456"},
                                {"use-in", "1"},
                                {"bytes-out", "123456789"},
                                {"packets-out", "123456"},
                                {"use-out", "1"},
                                {"rekey-time", "3000"},
                                {"life-time", "4000"},
                                {"install-time", "600"}}};
  return ViciBytes::sa(nameOf(number), "ESTABLISHED", {child}, static_cast<int>(number));
}

/// A strongSwan with so many connections that are up, each with one child.
class Peer {
public:
  Peer(std::string const & path, std::uint32_t sas);
  Peer(Peer const &) = delete;
  Peer & operator=(Peer const &) = delete;
  /// Requires: all connections are closed.
  ~Peer();

  /// Sends events, which must fit into the socket.
  void sendEvents(int count);

private:
  void serve(int socket);
  void answer(int socket, Packet const & packet);
  static void send(int socket, std::string const & octets);

  Os::Descriptor listener_;
  std::string conns_;
  std::string sas_;
  std::string event_;
  std::mutex hearsMutex_;
  int hears_ = Os::Descriptor::none; // which socket hears events
  std::vector<std::thread> threads_;
};

Peer::Peer(std::string const & path, std::uint32_t sas)
    : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  for (std::uint32_t number = 1; number <= sas; ++number) {
    conns_ += encodeSegment(Type::event, "list-conn", ViciBytes::conn(nameOf(number), {"net"}));
    sas_ += encodeSegment(Type::event, "list-sa", saOf(number));
  }
  event_ = encodeSegment(Type::event, "child-updown", saOf(1));
  auto const address = Os::UnixAddress::ofPath(path);
  require(address && ::bind(listener_.get(), address->get(), address->size()) == 0 &&
              ::listen(listener_.get(), 2) == 0,
          "the peer cannot listen");
  constexpr int connections = 2;
  for (int i = 0; i != connections; ++i)
    threads_.emplace_back([this] { serve(::accept(listener_.get(), nullptr, nullptr)); });
}

Peer::~Peer() {
  for (auto & thread : threads_)
    thread.join();
}

void Peer::sendEvents(int count) {
  std::scoped_lock const lock(hearsMutex_);
  for (int i = 0; i != count; ++i)
    send(hears_, event_);
}

void Peer::serve(int socket) {
  Os::Descriptor const own(socket);
  Sources::Vici::Segments input;
  std::array<std::uint8_t, 4096> piece;
  for (;;) {
    auto const count = ::recv(socket, piece.data(), piece.size(), 0);
    if (count <= 0)
      return;
    input.take(std::span(piece).first(static_cast<std::size_t>(count)));
    while (auto const packet = input.next())
      answer(socket, *packet);
  }
}

void Peer::answer(int socket, Packet const & packet) {
  if (packet.type == Type::registerEvent) {
    std::scoped_lock const lock(hearsMutex_);
    if (packet.name == "child-updown")
      hears_ = socket;
    return send(socket, encodeSegment(Type::confirmed));
  }
  if (packet.name == "list-conns")
    send(socket, conns_);
  if (packet.name == "list-sas")
    send(socket, sas_);
  send(socket, encodeSegment(Type::response));
}

void Peer::send(int socket, std::string const & octets) {
  for (std::size_t sent = 0; sent != octets.size();) {
    auto const count = ::send(socket, octets.data() + sent, octets.size() - sent, MSG_NOSIGNAL);
    if (count <= 0)
      return; // the other side has gone
    sent += static_cast<std::size_t>(count);
  }
}

/// The source on so many xfrm links, each with a connection of its own, among further links.
class Followed {
public:
  Followed(std::uint32_t sas, std::uint32_t furtherLinks);

  Json firstListing();
  Json nextListing();
  /// Nanoseconds for each.
  double event();
  double linkChange();

private:
  void linkIs(std::uint32_t number);
  /// Runs whatever there is to do until the source has listed so often.
  Json runUntilListed(std::uint64_t times);

  std::uint32_t const sas_;
  TemporaryFolder const folder_;
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_ =
      Zel::makePtr<Kiln::TaskScheduler>(std::chrono::steady_clock::now, share);
  TestLoop loop_;
  StateDb::StateDb database_;
  StateDb::Publishers publishers_{database_};
  StateDb::Publisher tunnels_{publishers_};
  Sources::Links links_;
  Sources::Ike::BoundLinks boundLinks_;
  Peer peer_;
  std::unique_ptr<Sources::Source> source_; // goes first, which ends the peer
};

Followed::Followed(std::uint32_t sas, std::uint32_t furtherLinks)
    : sas_(sas),
      peer_(folder_.file("charon.vici"), sas) {
  Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
  for (std::uint32_t number = 1; number <= sas + furtherLinks; ++number)
    linkIs(number);
  for (std::uint32_t number = 1; number <= sas; ++number)
    tunnels_.tunnelIs(Plexa::IntfId(number), number, {});
  source_ = Sources::makeViciSource(":" + folder_.file("charon.vici"),
                                    {loop_, publishers_, links_, boundLinks_});
}

Json Followed::firstListing() {
  source_->start();
  auto figures = runUntilListed(1);
  require(source_->status().records.connections == sas_, "not everything is bound");
  return figures;
}

Json Followed::nextListing() {
  auto const before = source_->status();
  source_->reread();
  auto figures = runUntilListed(before.fullReads + 1);
  require(source_->status().changes == before.changes, "something has changed");
  return figures;
}

Json Followed::runUntilListed(std::uint64_t times) {
  Steps steps;
  while (source_->status().fullReads != times) {
    auto const isBusy = steps.runIf([this] { return loop_.runOnce(); });
    auto const hasRun = steps.runIf([this] { return scheduler_->runOne(); });
    if (!isBusy && !hasRun)
      std::this_thread::sleep_for(std::chrono::microseconds(100)); // the peer's turn
    require(source_->status().lastError.empty(), "the source has lost the peer");
  }
  return steps.figures();
}

// Time stands still, so that no listing is among it.
double Followed::event() {
  std::int64_t all = 0;
  for (int round = 0; round != rounds; ++round) {
    peer_.sendEvents(eventsOfARound);
    auto const began = cpuNow();
    while (loop_.runOnce()) {
    }
    all += cpuNow() - began;
  }
  return static_cast<double>(all) / (rounds * eventsOfARound);
}

void Followed::linkIs(std::uint32_t number) {
  links_.linkIs({.intfId = Plexa::IntfId(number),
                 .name = fmt::format("xfrm{}", number),
                 .kind = "xfrm",
                 .ifId = number});
}

// The hint included, and what the links themselves take.
double Followed::linkChange() {
  constexpr std::uint32_t changes = 1000;
  auto const began = cpuNow();
  for (std::uint32_t i = 0; i != changes / 2; ++i) {
    auto const number = 1 + i % sas_;
    links_.linkDel(Plexa::IntfId(number));
    linkIs(number);
  }
  return static_cast<double>(cpuNow() - began) / changes;
}

Json vici(std::uint32_t sas, std::uint32_t furtherLinks) {
  Followed followed(sas, furtherLinks);
  auto first = followed.firstListing();
  auto next = followed.nextListing();
  return {{"first", std::move(first)},
          {"next", std::move(next)},
          {"eventNs", followed.event()},
          {"linkNs", followed.linkChange()}};
}

} // namespace

int main(int argc, char ** argv) {
  CLI::App app("What following an IKE daemon costs.");
  std::uint32_t sas = 0;
  std::uint32_t links = 0;
  app.require_subcommand(1);
  auto * const viciCommand = app.add_subcommand("vici", "strongSwan with N connections");
  viciCommand->add_option("sas", sas)->required();
  viciCommand->add_option("--links", links, "that no connection is for");
  CLI11_PARSE(app, argc, argv);
  try {
    std::printf("%s\n", vici(sas, links).dump(2).c_str());
    return 0;
  } catch (std::exception const & error) {
    std::fprintf(stderr, "benchIke: %s\n", error.what());
    return 1;
  }
}

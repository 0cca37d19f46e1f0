// A daemon that lives as long as the process, and the sockets that try it.
#include "fuzz/Daemon.h"
#include "fuzz/Ber.h"
#include "os/UnixAddress.h"
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Fuzz {

namespace {

/// Far more than any answer takes, sanitizers and a busy machine included.
constexpr std::chrono::seconds patience{20};

/// GET of tunnelIfHopLimit.2005 (RFC 4087), which FUZZ_DOCUMENT has.
std::string const & question() {
  static std::string const text =
      Ber::message(0xA0, 0, 0,
                   Ber::varbind(Ber::identifier({6, 1, 2, 1, 10, 131, 1, 1, 1, 1, 4, 2005}),
                                std::string("\5\0", 2)));
  return text;
}

/// What FUZZ_DOCUMENT says of that tunnel: INTEGER 64.
constexpr std::string_view hopLimit = "\x02\x01\x40";

std::string newFolder() {
  std::string folder = "/tmp/tunnelsnmpd-fuzz-XXXXXX";
  require(mkdtemp(folder.data()) != nullptr, "no folder for the control socket");
  return folder;
}

Agent::Options optionsIn(std::string const & folder) {
  Agent::Options options;
  options.listen = "udp:127.0.0.1:0";
  options.sources = {"json:" FUZZ_DOCUMENT};
  options.controlPath = folder + "/socket";
  options.pluginFile = FUZZ_PLUGIN;
  return options;
}

Os::Descriptor connectTo(std::string const & address) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port =
      htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
  Os::Descriptor descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  require(connect(descriptor.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) == 0,
          "the daemon's port cannot be reached");
  return descriptor;
}

/// What has arrived. Empty: nothing.
std::string received(int descriptor) {
  std::array<char, 65536> buffer;
  auto const size = recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
  return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : std::string();
}

void drain(int descriptor) {
  while (!received(descriptor).empty()) {
  }
}

} // namespace

Daemon & Daemon::instance() {
  static Daemon daemon;
  return daemon;
}

Daemon::Daemon()
    : folder_(newFolder()),
      agent_(optionsIn(folder_), loop_),
      address_(agent_.listen()),
      stranger_(connectTo(address_)),
      manager_(connectTo(address_)),
      rightAnswer_(firstRightAnswer()) {}

// The row is there when the machines are through with their start.
std::string Daemon::firstRightAnswer() {
  for (int i = 0; i != 1000; ++i)
    if (auto const now = answer(); now.ends_with(hopLimit))
      return now;
  require(false, "the daemon does not serve its rows");
  return {};
}

void Daemon::packet(std::span<std::uint8_t const> octets) {
  (void)send(stranger_.get(), octets.data(), octets.size(), 0); // too long ones cannot be sent
  require(answer() == rightAnswer_, "a packet changes what others are told");
  drain(stranger_.get());
}

void Daemon::control(std::string_view text) {
  auto const stranger = connectToControl();
  (void)send(stranger.get(), text.data(), text.size(), MSG_NOSIGNAL);
  (void)send(stranger.get(), "\n", 1, MSG_NOSIGNAL);
  shutdown(stranger.get(), SHUT_WR);
  auto const operatorsEnd = connectToControl();
  constexpr std::string_view request = "{\"command\":\"version\"}\n";
  (void)send(operatorsEnd.get(), request.data(), request.size(), MSG_NOSIGNAL);
  untilReadable(operatorsEnd.get());
  require(received(operatorsEnd.get()).find("\"ok\":true") != std::string::npos,
          "an operator gets no answer");
  drain(stranger.get());
}

Os::Descriptor Daemon::connectToControl() const {
  auto const address = Os::UnixAddress::ofPath(folder_ + "/socket");
  Os::Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  require(connect(descriptor.get(), address->get(), address->size()) == 0,
          "the control socket cannot be reached");
  return descriptor;
}

std::string Daemon::answer() {
  (void)send(manager_.get(), question().data(), question().size(), 0);
  untilReadable(manager_.get());
  return received(manager_.get());
}

void Daemon::untilReadable(int descriptor) {
  auto const ready = loop_.readable(descriptor, [this] { loop_.stop(); });
  auto const late = loop_.after(patience, [] { require(false, "no answer"); });
  loop_.run([this] { return agent_.work(); });
}

} // namespace Fuzz

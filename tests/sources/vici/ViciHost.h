// A vici source, links to bind, and a scripted strongSwan.
#pragma once

#include "sources/vici/ViciSource.h"
#include "statedb/Publisher.h"
#include "tests/sources/SourceHost.h"
#include "tests/sources/vici/ViciBytes.h"
#include "tests/sources/vici/ViciPeer.h"
#include "tests/support/TemporaryFolder.h"
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>

class ViciHost : public testing::Test, protected SourceHost {
protected:
  using State = Sources::SourceStatus::State;

  /// An xfrm link of that id, name "xfrmID", and its status.
  void linkIs(int id, std::uint32_t ifId) {
    Plexa::IntfId const intfId(static_cast<std::uint64_t>(id));
    links.linkIs(
        {.intfId = intfId, .name = fmt::format("xfrm{}", id), .kind = "xfrm", .ifId = ifId});
    tunnels.tunnelIs(intfId, static_cast<std::uint32_t>(id), {});
  }
  /// A link 8, which no connection is for, comes or goes: by turns.
  void comesOrGoes(int turn) {
    if (turn % 2 == 0)
      linkIs(8, 99);
    else
      links.linkDel(Plexa::IntfId(8));
  }
  /// The daemon has a connection with one child, and SAs where there is a state of the child.
  void connectionIs(std::string const & name, std::optional<std::uint32_t> ifId,
                    std::string const & ikeState = "ESTABLISHED",
                    std::string const & childState = "INSTALLED") {
    peer.connections.push_back(ViciBytes::conn(name, {"net"}));
    saIs(name, ifId, ikeState, childState);
  }
  void saIs(std::string const & name, std::optional<std::uint32_t> ifId,
            std::string const & ikeState = "ESTABLISHED",
            std::string const & childState = "INSTALLED") {
    ViciBytes::Child child{"net", childState};
    if (ifId)
      child.values = {{"if-id-in", fmt::format("{:08x}", *ifId)},
                      {"if-id-out", fmt::format("{:08x}", *ifId)}};
    peer.sas[name] = ViciBytes::sa(name, ikeState, {child});
  }
  /// A link 7 and a connection "office" that is up on it.
  void officeIsUp() {
    linkIs(7, 42);
    connectionIs("office", 42);
  }

  void start(std::string const & options = "") {
    source = std::make_unique<Sources::ViciSource>(":" + path + options, surroundings());
    source->start();
    settle();
  }
  /// Lets so much time pass, and whatever happens in it.
  void pass(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds step{50};
    for (; time.count() > 0; time -= step) {
      loop.advance(std::min(step, time));
      settle();
    }
  }

  std::string profile(int id) const {
    auto const name = at(fmt::format("/ikeStatus/ipsecTunnelInfo/{}/profileName", id));
    return name.is_null() ? "" : name.get<std::string>();
  }
  /// The state of the interface's connection; empty when it has none.
  std::string state(int id) const {
    auto const connState = at(
        fmt::format("/ikeStatus/appliedProfiles/{}/appliedIntfId/{}/connState", profile(id), id));
    return connState.is_null() ? "" : connState.get<std::string>();
  }
  bool isIpsec(int id) const {
    return at(fmt::format("/tunnelIntfStatusDir/intfStatus/{}/ipsec", id)).get<bool>();
  }
  void expectInSync() const {
    EXPECT_EQ(source->status().state, State::inSync) << source->status().lastError;
    EXPECT_EQ(source->status().lastError, "");
    EXPECT_FALSE(source->status().isReading);
  }
  /// `error` is what comes after the source and the socket.
  void expectDegraded(std::string const & error) const {
    EXPECT_EQ(source->status().state, State::degraded);
    EXPECT_EQ(source->status().lastError, fmt::format("source vici: {}: {}", path, error));
    EXPECT_FALSE(source->status().isReading);
  }
  static std::size_t descriptors() {
    std::filesystem::directory_iterator const all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  TemporaryFolder const folder;
  std::string const path = folder.file("charon.vici");
  ViciPeer peer{loop, path};
  StateDb::Publisher tunnels{publishers};
  std::unique_ptr<Sources::ViciSource> source;
};

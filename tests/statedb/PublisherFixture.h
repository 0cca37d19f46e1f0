// A database with one publisher, and what tests of publishers say for short.
#pragma once

#include "statedb/Publisher.h"
#include "statedb/StateDocument.h"
#include "tests/statedb/Recorder.h"
#include "tests/support/TestScheduler.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

class PublisherFixture : public testing::Test {
protected:
  using json = nlohmann::json;
  using FullRead = StateDb::FullRead;
  using Publisher = StateDb::Publisher;
  using Status = Publisher::Status;
  using Connection = Publisher::Connection;
  using ConnState = Ipsec::Ike::ConnState;
  static constexpr auto atOnce = FullRead::Pace::atOnce;
  static constexpr auto inRuns = FullRead::Pace::inRuns;
  static constexpr char const * statuses = "/tunnelIntfStatusDir/intfStatus";
  static constexpr char const * indexes = "/ifMib/ifIndexByIntfId";
  static constexpr char const * infos = "/ikeStatus/ipsecTunnelInfo";
  static constexpr char const * profiles = "/ikeStatus/appliedProfiles";

  ~PublisherFixture() override { Kiln::TaskSchedulerRoot::schedulerIs(nullptr); }

  static Plexa::IntfId id(std::uint64_t value) { return Plexa::IntfId(value); }
  static Status tos(std::uint8_t tos, bool ipsec = false) { return {.tos = tos, .ipsec = ipsec}; }

  json read(std::string const & pointer) const { return document.read(pointer); }
  json at(std::string const & collection, auto const & key) const {
    auto const all = read(collection);
    auto const found = all.find(fmt::format("{}", key));
    return found == all.end() ? json("nothing") : *found;
  }
  void patch(std::string const & op, std::string const & path, json const & value = nullptr) {
    document.apply(json::array({{{"op", op}, {"path", path}, {"value", value}}}));
  }
  /// What has been heard since the last call.
  std::vector<std::string> heard() { return std::exchange(recorder.heard, {}); }
  Zel::Ptr<Interface::TunnelIntfStatus> record(std::uint64_t intfId) const {
    auto const * found = database.tunnelIntfStatusDir()->intfStatus().find(id(intfId));
    return found == nullptr ? nullptr : *found;
  }
  void listenToStatus(std::uint64_t intfId) { recorder.listenTo(*record(intfId)); }

  StateDb::StateDb database;
  std::vector<std::string> failures;
  StateDb::Publishers publishers{
      database, [this](std::string_view pointer, std::exception const & exception) {
        failures.push_back(fmt::format("{}: {}", pointer, exception.what()));
      }};
  Publisher publisher{publishers};
  StateDb::StateDocument document{database};
  Recorder recorder{database};
};

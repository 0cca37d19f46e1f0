// What the sources cost: one change of a link on its way to the row that shows it, all links read
// again though nothing has changed, and a large JSON file. Prints JSON.
//
// Links come as the messages that the kernel would send, made in memory: few machines may have
// 100 000 links.
#include "bench/MachineInputs.h"
#include "bench/Steps.h"
#include "bench/Tunnels.h"
#include "sources/json/JsonSource.h"
#include "sources/linux/LinkPublication.h"
#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include "tests/sources/linux/LinkBytes.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <stdexcept>

namespace {

using namespace Bench;
using namespace Sources;

constexpr Linux::DefaultHopLimits defaults;
/// As the daemon has it.
constexpr std::chrono::milliseconds share{2};
constexpr std::uint8_t usualHopLimit = 64;

/// One line of `/proc/self/status`, in bytes.
std::int64_t ownMemory(std::string_view field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field))
      return std::stoll(line.substr(field.size() + 1)) * 1024;
  throw std::runtime_error("the process's memory cannot be read");
}

// Messages

/// A link of kind gre, with the attributes that the kernel sends of each link.
LinkBytes::Octets gre(std::uint32_t index, std::uint8_t hopLimit) {
  using namespace LinkBytes;
  auto const address = [](std::uint32_t number) {
    auto const octets = octetsOf(number);
    return Octets(octets.begin(), octets.end());
  };
  auto const data =
      joined({attribute(1, native<std::uint32_t>(0)), attribute(2, {0x20, 0}),
              attribute(3, {0x20, 0}), attribute(4, address(index)), attribute(5, address(index)),
              attribute(6, address(localOf(index))), attribute(7, address(remoteOf(index))),
              attribute(8, {hopLimit}), attribute(9, {0}), attribute(10, {1})});
  auto const common =
      joined({attribute(13, native<std::uint32_t>(1000)), attribute(16, {0}), attribute(17, {0}),
              attribute(4, native<std::uint32_t>(1476)), attribute(5, native<std::uint32_t>(0)),
              attribute(6, text("noqueue")), attribute(14, Octets(32)),
              attribute(1, address(index)), attribute(2, address(index)),
              attribute(23, Octets(200)), attribute(7, Octets(96)), attribute(26, Octets(700))});
  return message(newLink, unspecified, static_cast<std::int32_t>(index),
                 joined({common, link("gre" + std::to_string(index), "gre", data)}));
}

Linux::LinkState decoded(LinkBytes::Octets const & message) {
  return std::get<Linux::LinkState>(Linux::decodeLink(LinkBytes::bytes(message), defaults));
}

/// So many links as a part of the kernel's answer has.
constexpr std::uint32_t linksOfAPart = 20;

/// Links with the indexes 2, 4, ..., published.
struct PublishedLinks {
  explicit PublishedLinks(std::uint32_t count) : links(count) {
    for (std::uint32_t index = 2; index <= 2 * links; index += 2)
      publication.linkIs(decoded(gre(index, usualHopLimit)));
  }

  std::uint32_t const links;
  StateDb::StateDb database;
  StateDb::Publishers publishers{database};
  Links known;
  Linux::LinkPublication publication{Linux::TunnelKindSet::defaults(), publishers, known};
};

// One change

constexpr int changesOfARound = 500;
constexpr int rounds = 40;

/// The machines at work on published links, and the same change made in two ways, each time until
/// the row shows it.
class Changes {
public:
  explicit Changes(std::uint32_t count) : links_(count) {
    agent_ = Zel::makePtr<TunnelIntfSnmp::TunnelIntfSnmpAgent>(
        mib_, links_.database.tunnelIntfStatusDir(), links_.database.ifMib(),
        links_.database.ikeStatus());
    agent_->hasNotificationActiveIs(true);
    tasks_.run();
  }

  /// So many links, drawn and in a drawn order, each once.
  std::vector<std::uint32_t> draw(std::mt19937 & random) const {
    std::uniform_int_distribution<std::uint32_t> number(1, links_.links);
    std::vector<std::uint32_t> indexes(changesOfARound);
    std::ranges::generate(indexes, [&] { return 2 * number(random); });
    std::ranges::sort(indexes);
    indexes.erase(std::ranges::unique(indexes).begin(), indexes.end());
    std::ranges::shuffle(indexes, random);
    return indexes;
  }
  /// By the kernel's message. Returns the CPU of all.
  std::int64_t bySource(std::vector<std::uint32_t> const & indexes, std::uint8_t hopLimit) {
    std::vector<LinkBytes::Octets> messages;
    for (auto const index : indexes)
      messages.push_back(gre(index, hopLimit));
    auto const began = cpuNow();
    for (std::size_t i = 0; i != indexes.size(); ++i) {
      links_.publication.linkIs(decoded(messages[i]));
      show(indexes[i], hopLimit);
    }
    return cpuNow() - began;
  }
  /// By the record's setter: what is left is the machines' own.
  std::int64_t byHand(std::vector<std::uint32_t> const & indexes, std::uint8_t hopLimit) {
    auto const & statuses = links_.database.tunnelIntfStatusDir()->intfStatus();
    auto const began = cpuNow();
    for (auto const index : indexes) {
      (*statuses.find(Plexa::IntfId(index)))->hopLimitIs(hopLimit);
      show(index, hopLimit);
    }
    return cpuNow() - began;
  }

private:
  void show(std::uint32_t index, std::uint8_t hopLimit) const {
    tasks_.run();
    require(mib_->tunnelIfTable(index)->hopLimit() == hopLimit, "a change does not show");
  }

  Tasks const tasks_;
  PublishedLinks links_;
  Zel::Ptr<TunnelIntfSnmp::TunnelMib> const mib_ =
      Zel::makePtr<TunnelIntfSnmp::TunnelMib>("tunnelMib");
  Zel::Ptr<TunnelIntfSnmp::TunnelIntfSnmpAgent> agent_;
};

/// Each way takes the other's change back, and each begins in every second round: who comes second
/// finds the records in the cache.
Json change(std::uint32_t count) {
  Changes changes(count);
  std::mt19937 random(1);
  std::int64_t bySource = 0;
  std::int64_t byHand = 0;
  std::size_t all = 0;
  for (int round = 0; round != rounds; ++round) {
    auto const indexes = changes.draw(random);
    all += indexes.size();
    auto const sourceFirst = round % 2 == 0;
    if (sourceFirst)
      bySource += changes.bySource(indexes, usualHopLimit + 1);
    byHand += changes.byHand(indexes, sourceFirst ? usualHopLimit : usualHopLimit + 1);
    if (!sourceFirst)
      bySource += changes.bySource(indexes, usualHopLimit);
  }
  return {{"bySourceNs", static_cast<double>(bySource) / static_cast<double>(all)},
          {"byHandNs", static_cast<double>(byHand) / static_cast<double>(all)}};
}

// All links again

Json reread(std::uint32_t count) {
  auto const scheduler = Zel::makePtr<Kiln::TaskScheduler>(std::chrono::steady_clock::now, share);
  Kiln::TaskSchedulerRoot::schedulerIs(scheduler);
  PublishedLinks links(count);
  auto const changes = links.publication.publisher().changes();
  Steps steps;
  steps.run([&] { links.publication.beginReading(); });
  for (std::uint32_t index = 2; index <= 2 * count;) {
    std::vector<LinkBytes::Octets> part;
    for (; index <= 2 * count && part.size() != linksOfAPart; index += 2)
      part.push_back(gre(index, usualHopLimit));
    steps.run([&] {
      for (auto const & message : part)
        links.publication.found(decoded(message));
    });
  }
  bool done = false;
  steps.run([&] {
    links.publication.endReading(true, StateDb::FullRead::Pace::inRuns, [&] { done = true; });
  });
  while (scheduler->scheduled() != 0)
    steps.run([&] { scheduler->runOne(); });
  require(done, "the reading does not end");
  require(links.publication.publisher().changes() == changes, "something has changed");
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
  return steps.figures();
}

// A JSON file

/// No file changes here by itself.
class SilentLoop final : public Os::Loop {
public:
  Handle readable(int, std::function<void()>) override { return nullptr; }
  Handle writable(int, std::function<void()>) override { return nullptr; }
  Handle after(std::chrono::milliseconds, std::function<void()>) override { return nullptr; }
  Handle every(std::chrono::milliseconds, std::function<void()>) override { return nullptr; }
};

/// The start, which reads all at once, and a reading in runs.
Json json(std::string const & file) {
  auto const scheduler = Zel::makePtr<Kiln::TaskScheduler>(std::chrono::steady_clock::now, share);
  Kiln::TaskSchedulerRoot::schedulerIs(scheduler);
  SilentLoop loop;
  StateDb::StateDb database;
  StateDb::Publishers publishers(database);
  Links links;
  Ike::BoundLinks boundLinks;
  auto const source =
      makeJsonSource(file, {loop, publishers, links, boundLinks}, std::chrono::minutes(1));
  auto const before = ownMemory("VmHWM:");
  auto const cpu = cpuNow();
  source->start();
  auto const startCpu = cpuNow() - cpu;
  auto const atStart = ownMemory("VmHWM:");
  Steps steps;
  steps.run([&] { source->reread(); });
  while (scheduler->scheduled() != 0)
    steps.run([&] { scheduler->runOne(); });
  require(source->status().lastError.empty(), "the file cannot be read");
  Json result{{"tunnels", source->status().records.statuses},
              {"startCpuMs", static_cast<double>(startCpu) / 1e6},
              {"startMostBytes", atStart - before},
              {"mostBytes", ownMemory("VmHWM:") - before},
              {"residentBytes", ownMemory("VmRSS:") - before},
              {"reread", steps.figures()}};
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
  return result;
}

} // namespace

int main(int argc, char ** argv) {
  CLI::App app("What the sources cost.");
  std::uint32_t links = 0;
  std::string file;
  app.require_subcommand(1);
  auto * const changeCommand = app.add_subcommand("change", "One change of one of N links");
  changeCommand->add_option("links", links)->required();
  auto * const rereadCommand = app.add_subcommand("reread", "N unchanged links");
  rereadCommand->add_option("links", links)->required();
  auto * const jsonCommand = app.add_subcommand("json", "A JSON file");
  jsonCommand->add_option("file", file)->required();
  CLI11_PARSE(app, argc, argv);
  try {
    auto const result = changeCommand->parsed()   ? change(links)
                        : rereadCommand->parsed() ? reread(links)
                                                  : json(file);
    std::printf("%s\n", result.dump(2).c_str());
    return 0;
  } catch (std::exception const & error) {
    std::fprintf(stderr, "benchSources: %s\n", error.what());
    return 1;
  }
}

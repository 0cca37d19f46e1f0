// What the machines cost: from their making to the tables complete, and one change of the inputs to
// the row that shows it. Beside the start stands the least that anybody could do: filling three
// std::map with the same rows.
#include "bench/MachineInputs.h"
#include "bench/Tunnels.h"
#include <algorithm>
#include <benchmark/benchmark.h>
#include <map>
#include <memory>
#include <random>

namespace {

using namespace Bench;
using namespace TunnelIntfSnmp;

// Start

/// `make` makes what is to start, and `complete` tells whether it did, with so many rows.
template <auto make, auto complete>
void start(benchmark::State & state) {
  auto const tunnels = static_cast<std::uint32_t>(state.range(0));
  Inputs const inputs(tunnels);
  for ([[maybe_unused]] auto const _ : state) {
    state.PauseTiming();
    Tasks const tasks;
    auto mib = Zel::makePtr<TunnelMib>("tunnelMib");
    state.ResumeTiming();

    auto made = make(mib, inputs);
    made->hasNotificationActiveIs(true);
    tasks.run();

    state.PauseTiming();
    if (!complete(*made, tunnels))
      state.SkipWithError("a table is not complete");
    made = nullptr;
    mib = nullptr; // with its rows
    state.ResumeTiming();
  }
}

auto makeAll(Zel::Ptr<TunnelMib> const & mib, Inputs const & inputs) {
  return Zel::makePtr<TunnelIntfSnmpAgent>(mib, inputs.dir, inputs.ifMib, inputs.ikeStatus);
}
auto makeTunnelIf(Zel::Ptr<TunnelMib> const & mib, Inputs const & inputs) {
  return tunnelIfTableSmFactory(mib, inputs.dir, inputs.ifMib, {});
}
auto makeInetConfig(Zel::Ptr<TunnelMib> const & mib, Inputs const & inputs) {
  return tunnelInetConfigTableSmFactory(mib, inputs.dir, inputs.ifMib, {});
}
auto makeIpsec(Zel::Ptr<TunnelMib> const & mib, Inputs const & inputs) {
  return ipsecTunnelIfTableSmFactory(mib, inputs.dir, inputs.ifMib, inputs.ikeStatus, {});
}
bool hasTunnelIf(TunnelIfTableSm const & machine, std::uint32_t tunnels) {
  return machine.ready() && machine.mib()->tunnelIfTable().size() == tunnels;
}
bool hasInetConfig(TunnelInetConfigTableSm const & machine, std::uint32_t tunnels) {
  return machine.ready() && machine.mib()->tunnelInetConfigTable().size() == tunnels;
}
bool hasIpsec(IpsecTunnelIfTableSm const & machine, std::uint32_t tunnels) {
  return machine.ready() && machine.mib()->ipsecTunnelIfTable().size() == tunnels;
}

struct Maps {
  std::map<std::uint32_t, Zel::Ptr<TunnelIfTableEntry>> tunnelIf;
  std::map<TunnelInetConfigTableKey, Zel::Ptr<TunnelInetConfigTableEntry const>> inetConfig;
  std::map<std::uint32_t, Zel::Ptr<IpsecTunnelIfTableEntry>> ipsec;
};

using Tunnels = std::vector<std::pair<std::uint32_t, Zel::Ptr<Status>>>; // with their ifIndexes

Tunnels inScanOrder(Inputs const & inputs) {
  Tunnels tunnels;
  for (auto const & [intfId, status] : inputs.dir->intfStatus())
    tunnels.emplace_back(*inputs.ifMib->ifIndexByIntfId().find(intfId), status);
  return tunnels;
}
Tunnels inDrawnOrder(Inputs const & inputs) {
  auto tunnels = inScanOrder(inputs);
  std::ranges::shuffle(tunnels, std::mt19937(1));
  return tunnels;
}

void fill(Maps & maps, Inputs const & inputs, Tunnels const & tunnels) {
  for (auto const & [ifIndex, status] : tunnels) {
    maps.tunnelIf.emplace(ifIndex, Zel::makePtr<TunnelIfTableEntry>(ifIndex, status));
    auto const key = inetKeyOf(*status);
    maps.inetConfig.emplace(key, tunnelInetConfigTableEntryFactory(key, ifIndex));
    if (status->ipsec())
      maps.ipsec.emplace(ifIndex,
                         Zel::makePtr<IpsecTunnelIfTableEntry>(ifIndex, status, inputs.ikeStatus));
  }
}

template <auto Order>
void startMaps(benchmark::State & state) {
  Inputs const inputs(static_cast<std::uint32_t>(state.range(0)));
  auto const tunnels = Order(inputs);
  for ([[maybe_unused]] auto const _ : state) {
    auto maps = std::make_unique<Maps>();
    fill(*maps, inputs, tunnels);
    benchmark::DoNotOptimize(maps);
    state.PauseTiming();
    maps.reset();
    state.ResumeTiming();
  }
}

// Changes, one at a time, of random tunnels

/// The machines, ready, over inputs of their own.
struct Running {
  explicit Running(std::uint32_t tunnels) : inputs(tunnels), order(tunnels) {
    agent = Zel::makePtr<TunnelIntfSnmpAgent>(mib, inputs.dir, inputs.ifMib, inputs.ikeStatus);
    agent->hasNotificationActiveIs(true);
    tasks.run();
    std::ranges::generate(order, [ifIndex = 0U]() mutable { return ifIndex += 2; });
    std::ranges::shuffle(order, std::mt19937(1));
  }

  /// The ifIndex of the next tunnel, in a random order that visits all.
  std::uint32_t next() {
    position = position + 1 == order.size() ? 0 : position + 1;
    return order[position];
  }

  Tasks const tasks;
  Inputs inputs;
  std::vector<std::uint32_t> order;
  std::size_t position = 0;
  Zel::Ptr<TunnelMib> const mib = Zel::makePtr<TunnelMib>("tunnelMib");
  Zel::Ptr<TunnelIntfSnmpAgent> agent;
};

/// Kept while a benchmark of as many tunnels is called again, with more changes: making them takes
/// longer than most.
Running & runningWith(std::uint32_t tunnels) {
  static std::unique_ptr<Running> kept;
  if (!kept || kept->order.size() != tunnels) {
    kept.reset();
    kept = std::make_unique<Running>(tunnels);
  }
  return *kept;
}

/// `Change` makes `Count` changes of one tunnel and says whether the tables show them. The tables
/// have as many rows afterwards as before.
template <auto Change, int Count>
void change(benchmark::State & state) {
  auto const tunnels = static_cast<std::uint32_t>(state.range(0));
  auto & running = runningWith(tunnels);
  for ([[maybe_unused]] auto const _ : state)
    if (!Change(running, running.next()))
      return state.SkipWithError("a change does not show");
  if (!isComplete(*running.agent, tunnels))
    state.SkipWithError("a table is not complete");
  state.counters["changes"] = Count;
}

/// Another source address, and back when the same tunnel is next: its row gets another key.
bool changeAddress(Running & running, std::uint32_t ifIndex) {
  auto const & status = running.inputs.status(ifIndex);
  auto const usual = ip4(localOf(ifIndex));
  status->srcAddrIs(status->srcAddr() == usual ? ip4(localOf(ifIndex) + 0x10000) : usual);
  running.tasks.run();
  return running.mib->tunnelInetConfigTable()[inetKeyOf(*status)] != nullptr;
}

/// A value that no row stores.
bool changeHopLimit(Running & running, std::uint32_t ifIndex) {
  auto const & status = running.inputs.status(ifIndex);
  auto const hopLimit = static_cast<std::uint8_t>(status->hopLimit() ^ 1);
  status->hopLimitIs(hopLimit);
  running.tasks.run();
  return running.mib->tunnelIfTable(ifIndex)->hopLimit() == hopLimit;
}

/// IPsec is switched off and on.
bool changeIpsec(Running & running, std::uint32_t ifIndex) {
  auto const & status = running.inputs.status(ifIndex);
  status->ipsecIs(false);
  running.tasks.run();
  auto const gone = running.mib->ipsecTunnelIfTable(ifIndex) == nullptr;
  status->ipsecIs(true);
  running.tasks.run();
  return gone && running.mib->ipsecTunnelIfTable(ifIndex) != nullptr;
}

/// The status goes and comes again: of all three tables.
bool changeStatus(Running & running, std::uint32_t ifIndex) {
  running.inputs.dir->intfStatusDel(intfIdOf(ifIndex));
  running.tasks.run();
  auto const gone = running.mib->tunnelIfTable(ifIndex) == nullptr;
  running.inputs.dir->intfStatusIs(intfIdOf(ifIndex), running.inputs.status(ifIndex));
  running.tasks.run();
  return gone && running.mib->tunnelIfTable(ifIndex) != nullptr;
}

/// Gives the interface an ifIndex while its status is away, so that no row is left behind.
bool moveTo(Running & running, Zel::Ptr<Status> const & status, std::uint32_t ifIndex) {
  auto const & inputs = running.inputs;
  inputs.dir->intfStatusDel(status->intfId());
  inputs.ifMib->ifIndexByIntfIdDel(status->intfId());
  inputs.ifMib->ifIndexByIntfIdIs(status->intfId(), ifIndex);
  inputs.dir->intfStatusIs(status->intfId(), status);
  running.tasks.run();
  return running.mib->tunnelIfTable(ifIndex) != nullptr;
}

/// Another ifIndex, and back: of all three tables.
bool changeIfIndex(Running & running, std::uint32_t ifIndex) {
  auto const & status = running.inputs.status(ifIndex);
  return moveTo(running, status, ifIndex - 1) && moveTo(running, status, ifIndex);
}

struct Named {
  char const * name;
  void (*run)(benchmark::State &);
};

constexpr Named starts[] = {
    {"startAll", start<makeAll, isComplete>},
    {"startMaps", startMaps<inScanOrder>},
    {"startMapsDrawn", startMaps<inDrawnOrder>},
    {"startTunnelIf", start<makeTunnelIf, hasTunnelIf>},
    {"startInetConfig", start<makeInetConfig, hasInetConfig>},
    {"startIpsec", start<makeIpsec, hasIpsec>},
};
constexpr Named changes[] = {
    {"changeHopLimit", change<changeHopLimit, 1>}, {"changeAddress", change<changeAddress, 1>},
    {"changeIpsec", change<changeIpsec, 2>},       {"changeStatus", change<changeStatus, 2>},
    {"changeIfIndex", change<changeIfIndex, 8>},
};

void registerFor(std::uint32_t tunnels) {
  for (auto const & [name, run] : starts) // once: the next one would find memory in another state
    benchmark::RegisterBenchmark(name, run)
        ->Arg(tunnels)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
  for (auto const & [name, run] : changes)
    benchmark::RegisterBenchmark(name, run)->Arg(tunnels)->Unit(benchmark::kNanosecond);
}

} // namespace

int main(int argc, char ** argv) {
  for (auto const tunnels : {1000U, 10'000U, 100'000U})
    registerFor(tunnels);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

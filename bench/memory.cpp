// What the machines need of the heap: by component, and over a long series of random changes. Every
// allocation of the process is counted with all the room that the daemon's malloc gives it. Prints
// JSON.
#include "bench/MachineInputs.h"
#include "bench/Tunnels.h"
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <malloc.h>
#include <new>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

namespace {

std::int64_t inUse = 0;

} // namespace

void * operator new(std::size_t size) {
  auto * const memory = std::malloc(size);
  if (memory == nullptr)
    throw std::bad_alloc();
  inUse += static_cast<std::int64_t>(malloc_usable_size(memory));
  return memory;
}
void operator delete(void * memory) noexcept {
  if (memory != nullptr)
    inUse -= static_cast<std::int64_t>(malloc_usable_size(memory));
  std::free(memory);
}
void operator delete(void * memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

using namespace Bench;
using namespace TunnelIntfSnmp;
using Json = nlohmann::ordered_json;

/// Bytes that `make` took and kept.
template <class Make>
std::int64_t bytesOf(Make make) {
  auto const before = inUse;
  make();
  return inUse - before;
}

// By component

/// `machine` is what stays when its rows have been taken off.
struct TableMemory {
  std::int64_t rows;
  std::int64_t machine;
};

/// The rows are measured in a table that no machine fills.
template <class FillRows, class MakeMachine>
TableMemory memoryOf(std::uint32_t tunnels, FillRows fillRows, MakeMachine makeMachine) {
  auto alone = Zel::makePtr<TunnelMib>("alone");
  auto const rows = bytesOf([&] {
    for (std::uint32_t ifIndex = 2; ifIndex <= 2 * tunnels; ifIndex += 2)
      fillRows(*alone, ifIndex);
  });
  alone = nullptr;

  auto const mib = Zel::makePtr<TunnelMib>("tunnelMib");
  Tasks const tasks;
  decltype(makeMachine(mib)) machine;
  auto const all = bytesOf([&] {
    machine = makeMachine(mib);
    machine->hasNotificationActiveIs(true);
    tasks.run();
  });
  if (!machine->ready())
    throw std::runtime_error("a machine is not ready");
  return {rows, all - rows};
}

TableMemory tunnelIfMemory(std::uint32_t tunnels, Inputs const & inputs) {
  return memoryOf(
      tunnels,
      [&](TunnelMib & mib, std::uint32_t ifIndex) {
        mib.tunnelIfTableIs(ifIndex, inputs.status(ifIndex));
      },
      [&](auto const & mib) { return tunnelIfTableSmFactory(mib, inputs.dir, inputs.ifMib, {}); });
}

TableMemory inetConfigMemory(std::uint32_t tunnels, Inputs const & inputs) {
  return memoryOf(
      tunnels,
      [&](TunnelMib & mib, std::uint32_t ifIndex) {
        mib.tunnelInetConfigTableIs(
            tunnelInetConfigTableEntryFactory(inetKeyOf(*inputs.status(ifIndex)), ifIndex));
      },
      [&](auto const & mib) {
        return tunnelInetConfigTableSmFactory(mib, inputs.dir, inputs.ifMib, {});
      });
}

TableMemory ipsecMemory(std::uint32_t tunnels, Inputs const & inputs) {
  return memoryOf(
      tunnels,
      [&](TunnelMib & mib, std::uint32_t ifIndex) {
        mib.ipsecTunnelIfTableIs(ifIndex, inputs.status(ifIndex), inputs.ikeStatus);
      },
      [&](auto const & mib) {
        return ipsecTunnelIfTableSmFactory(mib, inputs.dir, inputs.ifMib, inputs.ikeStatus, {});
      });
}

/// The store of TunnelInetConfigTableSm, without the entries, which are the rows'.
std::int64_t storeMemory(std::uint32_t tunnels, Inputs const & inputs) {
  using Store = FlowaCode::TunnelInetConfigTableSm::LocalAttrStore;
  auto const store = Zel::makePtr<Store>();
  std::vector<Zel::Ptr<TunnelInetConfigTableEntry const>> entries;
  for (std::uint32_t ifIndex = 2; ifIndex <= 2 * tunnels; ifIndex += 2)
    entries.push_back(
        tunnelInetConfigTableEntryFactory(inetKeyOf(*inputs.status(ifIndex)), ifIndex));
  return bytesOf([&] {
    for (auto const & entry : entries)
      store->tunnelInetConfigByIfIndexIs(entry->ifIndex())->valueIs(entry);
  });
}

/// Bytes for one tunnel, by component, in the order in which a tunnel goes through them.
Json byComponent(std::uint32_t tunnels) {
  Inputs inputs;
  inputs.statuses.reserve(tunnels); // the benchmark's own
  auto const statuses = bytesOf([&] { inputs.addStatuses(tunnels); });
  auto const ifIndexes = bytesOf([&] { inputs.addIfIndexes(tunnels); });
  auto const ikeRecords = bytesOf([&] { inputs.addIkeRecords(tunnels); });
  auto const tunnelIf = tunnelIfMemory(tunnels, inputs);
  auto const inetConfig = inetConfigMemory(tunnels, inputs);
  auto const ipsec = ipsecMemory(tunnels, inputs);
  auto const store = storeMemory(tunnels, inputs);

  auto const each = [&](std::int64_t bytes) {
    return static_cast<double>(bytes) / static_cast<double>(tunnels);
  };
  return {{"inputs: statuses and their directory", each(statuses)},
          {"inputs: ifIndex map", each(ifIndexes)},
          {"inputs: IKE records", each(ikeRecords)},
          {"tunnelIfTable: rows", each(tunnelIf.rows)},
          {"tunnelIfTable: machine", each(tunnelIf.machine)},
          {"tunnelInetConfigTable: rows", each(inetConfig.rows)},
          {"tunnelInetConfigTable: store of what was written", each(store)},
          {"tunnelInetConfigTable: rest of the machine", each(inetConfig.machine - store)},
          {"velmoraIpsecTunnelIfTable: rows", each(ipsec.rows)},
          {"velmoraIpsecTunnelIfTable: machine", each(ipsec.machine)}};
}

// Over random changes

class Churn {
public:
  explicit Churn(std::uint32_t tunnels) : tunnels_(tunnels), inputs_(tunnels) {
    agent_->hasNotificationActiveIs(true);
    tasks_.run();
  }

  void run(std::uint64_t changes) {
    for (std::uint64_t change = 0; change != changes; ++change)
      changeOne();
    tasks_.run();
  }
  /// Undoes what is not as at the beginning, so that two moments can be compared.
  void restore() {
    for (std::uint32_t ifIndex = 2; ifIndex <= 2 * tunnels_; ifIndex += 2) {
      inputs_.ifMib->ifIndexByIntfIdIs(intfIdOf(ifIndex), ifIndex);
      inputs_.dir->intfStatusIs(intfIdOf(ifIndex), inputs_.status(ifIndex));
      inputs_.status(ifIndex)->srcAddrIs(ip4(localOf(ifIndex)));
      inputs_.status(ifIndex)->ipsecIs(true);
    }
    tasks_.run();
    if (!isComplete(*agent_, tunnels_))
      throw std::runtime_error("after the changes a table is not complete");
  }

private:
  std::uint32_t random(std::uint32_t first, std::uint32_t last) {
    return std::uniform_int_distribution(first, last)(random_);
  }

  void changeOne() {
    auto const ifIndex = 2 * random(1, tunnels_);
    auto const & status = inputs_.status(ifIndex);
    switch (random(0, 3)) {
    case 0:
      return status->srcAddrIs(ip4(localOf(ifIndex) + 0x10000 * random(0, 9)));
    case 1:
      return status->ipsecIs(!status->ipsec());
    case 2:
      return toggleStatus(ifIndex);
    case 3:
      return toggleIfIndex(ifIndex);
    }
  }
  void toggleStatus(std::uint32_t ifIndex) {
    auto const intfId = intfIdOf(ifIndex);
    if (inputs_.dir->intfStatus().find(intfId) != nullptr)
      inputs_.dir->intfStatusDel(intfId);
    else
      inputs_.dir->intfStatusIs(intfId, inputs_.status(ifIndex));
  }
  /// An ifIndex goes after its status: before it, it would leave rows behind.
  void toggleIfIndex(std::uint32_t ifIndex) {
    auto const intfId = intfIdOf(ifIndex);
    if (inputs_.ifMib->ifIndexByIntfId().find(intfId) == nullptr)
      return inputs_.ifMib->ifIndexByIntfIdIs(intfId, ifIndex);
    inputs_.dir->intfStatusDel(intfId);
    inputs_.ifMib->ifIndexByIntfIdDel(intfId);
  }

  std::uint32_t const tunnels_;
  Tasks const tasks_;
  Inputs inputs_;
  Zel::Ptr<TunnelMib> const mib_ = Zel::makePtr<TunnelMib>("tunnelMib");
  Zel::Ptr<TunnelIntfSnmpAgent> const agent_ =
      Zel::makePtr<TunnelIntfSnmpAgent>(mib_, inputs_.dir, inputs_.ifMib, inputs_.ikeStatus);
  std::mt19937 random_{1};
};

Json overChanges(std::uint32_t tunnels, std::uint64_t changes) {
  Churn churn(tunnels);
  auto const atStart = inUse;
  churn.run(changes / 10);
  churn.restore();
  auto const afterTenth = inUse;
  churn.run(changes - changes / 10);
  churn.restore();
  auto const atEnd = inUse;
  return {{"tunnels", tunnels},      {"changes", changes},
          {"bytesAtStart", atStart}, {"bytesAfterTenth", afterTenth},
          {"bytesAtEnd", atEnd},     {"growth", atEnd - afterTenth}};
}

} // namespace

int main(int argc, char ** argv) {
  std::uint32_t tunnels = 100'000;
  std::uint64_t changes = 1'000'000;
  CLI::App app("Measures the heap that the machines need; prints JSON.", "benchMemory");
  app.add_option("--tunnels", tunnels, "How many tunnels")->capture_default_str();
  app.add_option("--changes", changes, "How many random changes")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  try {
    auto const components = byComponent(tunnels);
    fmt::print("{}\n", Json{{"tunnels", tunnels},
                            {"bytesPerTunnel", components},
                            {"changes", overChanges(tunnels, changes)}}
                           .dump());
    return 0;
  } catch (std::exception const & error) {
    fmt::print(stderr, "benchMemory: {}\n", error.what());
    return 1;
  }
}

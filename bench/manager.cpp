// The manager of the benchmarks: asks an agent on loopback, one request after the other, and
// measures the CPU time that the agent's process uses meanwhile, and that of its subagent where it
// has one, or how long each answer takes. Any
// answer that is not the expected one ends it: a wrong answer has no speed.
#include "bench/Tunnels.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fmt/format.h>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;
using Oid = std::vector<oid>;
using Clock = std::chrono::steady_clock;

constexpr long longestWaitUs = 60'000'000;

struct Arguments {
  std::string address;
  pid_t pid = 0;
  pid_t subagent = 0; // none
  std::string table;
  std::uint32_t rows = 0;
  std::string operation;
  std::uint64_t varbinds = 0;
  double seconds = 0;
  std::uint32_t seed = 1;
};

struct PduFree {
  void operator()(netsnmp_pdu * pdu) const { snmp_free_pdu(pdu); }
};
using Pdu = std::unique_ptr<netsnmp_pdu, PduFree>;

/// One SNMPv2c session. Never sends a request twice.
class Session {
public:
  explicit Session(std::string const & address) {
    netsnmp_session settings;
    snmp_sess_init(&settings);
    std::string peer = "udp:" + address;
    std::string community = "public";
    settings.version = SNMP_VERSION_2c;
    settings.peername = peer.data();
    settings.community = reinterpret_cast<u_char *>(community.data());
    settings.community_len = community.size();
    settings.timeout = longestWaitUs;
    settings.retries = 0;
    session_ = snmp_sess_open(&settings);
    if (session_ == nullptr)
      throw std::runtime_error(fmt::format("cannot open a session to {}", address));
  }
  Session(Session const &) = delete;
  Session & operator=(Session const &) = delete;
  ~Session() { snmp_sess_close(session_); }

  /// The answer to a request of that type for one name. Raises std::runtime_error for none.
  Pdu ask(int type, Oid const & name, long repetitions = 0) {
    auto * const request = snmp_pdu_create(type);
    if (type == SNMP_MSG_GETBULK) {
      request->non_repeaters = 0;
      request->max_repetitions = repetitions;
    }
    snmp_add_null_var(request, name.data(), name.size());
    netsnmp_pdu * response = nullptr;
    auto const status = snmp_sess_synch_response(session_, request, &response);
    Pdu answer(response);
    if (status != STAT_SUCCESS || response->errstat != SNMP_ERR_NOERROR)
      throw std::runtime_error(
          fmt::format("no answer: status {}, error {}", status, response ? response->errstat : 0));
    return answer;
  }

private:
  void * session_;
};

/// What an agent's process has used of the CPU so far.
class CpuClock {
public:
  explicit CpuClock(pid_t pid) {
    if (clock_getcpuclockid(pid, &clock_) != 0)
      throw std::runtime_error(fmt::format("there is no process {}", pid));
  }
  std::chrono::nanoseconds now() const {
    timespec time{};
    clock_gettime(clock_, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }

private:
  clockid_t clock_{};
};

/// FNV-1a over everything that was answered.
class Digest {
public:
  void add(void const * bytes, std::size_t size) {
    for (auto const * byte = static_cast<u_char const *>(bytes); size-- != 0; ++byte)
      value_ = (value_ ^ *byte) * 0x100000001B3U;
  }
  std::string text() const { return fmt::format("{:016x}", value_); }

private:
  std::uint64_t value_ = 0xCBF29CE484222325U;
};

class Manager {
public:
  explicit Manager(Arguments const & arguments)
      : table_(Bench::table(arguments.table)),
        rows_(arguments.rows),
        entry_(table_.entry.begin(), table_.entry.end()),
        session_(arguments.address),
        random_(arguments.seed) {}

  std::uint64_t cells() const { return std::uint64_t{rows_} * table_.columns.size(); }

  /// One GETBULK walk over the first `varbinds` instances of the table.
  void walk(std::uint64_t varbinds, long mostRepetitions,
            std::function<void(netsnmp_variable_list const &)> const & see) {
    Oid name = entry_;
    for (auto left = varbinds; left != 0;) {
      auto const repetitions = std::min<long>(mostRepetitions, static_cast<long>(left));
      auto const answer = session_.ask(SNMP_MSG_GETBULK, name, repetitions);
      for (auto const * varbind = answer->variables; varbind; varbind = varbind->next_variable) {
        requireInTable(*varbind);
        see(*varbind);
        --left;
        if (varbind->next_variable == nullptr)
          name.assign(varbind->name, varbind->name + varbind->name_length);
      }
    }
  }

  /// Whatever the table has, every instance once.
  Json check() {
    Digest digest;
    Oid last;
    walk(cells(), 50, [&](netsnmp_variable_list const & varbind) {
      digest.add(varbind.name, varbind.name_length * sizeof(oid));
      digest.add(&varbind.type, 1);
      digest.add(varbind.val.string, varbind.val_len);
      last.assign(varbind.name, varbind.name + varbind.name_length);
    });
    auto const behind = session_.ask(SNMP_MSG_GETNEXT, last);
    if (isInTable(*behind->variables))
      throw std::runtime_error("there are more rows than there should be");
    return {{"varbinds", cells()}, {"digest", digest.text()}};
  }

  void get() {
    auto const answer = session_.ask(SNMP_MSG_GET, instance(anyColumn(), existingRow()));
    requireType(*answer, [](u_char type) { return type == ASN_INTEGER || type == ASN_OCTET_STR; });
  }
  void miss() {
    auto const answer = session_.ask(SNMP_MSG_GET, instance(anyColumn(), existingRow() - 1));
    requireType(*answer, [](u_char type) { return type == SNMP_NOSUCHINSTANCE; });
  }
  void next() {
    auto const column = anyColumn();
    auto const ifIndex = existingRow(2);
    auto const answer = session_.ask(SNMP_MSG_GETNEXT, instance(column, ifIndex - 2));
    auto const wanted = instance(column, ifIndex);
    auto const & found = *answer->variables;
    if (snmp_oid_compare(found.name, found.name_length, wanted.data(), wanted.size()) != 0)
      throw std::runtime_error("a GETNEXT found another row");
  }
  /// A GET whose answer may also be that there is no such row yet. True if and only if it is there.
  bool poll() {
    auto const answer = session_.ask(SNMP_MSG_GET, instance(anyColumn(), existingRow()));
    return answer->variables->type != SNMP_NOSUCHINSTANCE;
  }

private:
  /// The ifIndex of a random row, from that one on.
  std::uint32_t existingRow(std::uint32_t first = 1) {
    return 2 * std::uniform_int_distribution<std::uint32_t>(first, rows_)(random_);
  }
  unsigned int anyColumn() {
    auto const last = table_.columns.size() - 1;
    return table_.columns[std::uniform_int_distribution<std::size_t>(0, last)(random_)];
  }
  Oid instance(unsigned int column, std::uint32_t ifIndex) const {
    auto name = entry_;
    name.push_back(column);
    name.resize(name.size() + table_.indexLength);
    table_.index(ifIndex, name.data() + entry_.size() + 1);
    return name;
  }
  bool isInTable(netsnmp_variable_list const & varbind) const {
    return varbind.type != SNMP_ENDOFMIBVIEW && varbind.name_length > entry_.size() &&
           std::equal(entry_.begin(), entry_.end(), varbind.name);
  }
  void requireInTable(netsnmp_variable_list const & varbind) const {
    if (!isInTable(varbind))
      throw std::runtime_error("the walk left the table too early");
  }
  static void requireType(netsnmp_pdu const & answer, bool (*isWanted)(u_char)) {
    if (!isWanted(answer.variables->type))
      throw std::runtime_error(fmt::format("an answer of type {}", answer.variables->type));
  }

  Bench::Table const & table_;
  std::uint32_t const rows_;
  Oid const entry_;
  Session session_;
  std::mt19937 random_;
};

/// Walks from the table's beginning, again and again, until it has seen that many.
void bulk(Manager & manager, std::uint64_t varbinds, long repetitions) {
  for (auto left = varbinds; left != 0;) {
    auto const part = std::min(left, manager.cells());
    manager.walk(part, repetitions, [](netsnmp_variable_list const &) {});
    left -= part;
  }
}

void repeat(std::uint64_t times, std::function<void()> const & operation) {
  while (times-- != 0)
    operation();
}

void operate(Manager & manager, std::string const & operation, std::uint64_t varbinds) {
  if (operation == "bulk50")
    bulk(manager, varbinds, 50);
  else if (operation == "bulk10")
    bulk(manager, varbinds, 10);
  else if (operation == "get")
    repeat(varbinds, [&] { manager.get(); });
  else if (operation == "miss")
    repeat(varbinds, [&] { manager.miss(); });
  else
    repeat(varbinds, [&] { manager.next(); });
}

Json measure(Manager & manager, Arguments const & arguments) {
  manager.poll(); // the first request of a session pays for its set-up
  CpuClock const cpu(arguments.pid);
  CpuClock const subagent(arguments.subagent != 0 ? arguments.subagent : arguments.pid);
  auto const before = cpu.now();
  auto const subagentBefore = subagent.now();
  operate(manager, arguments.operation, arguments.varbinds);
  Json measured{{"varbinds", arguments.varbinds}, {"cpuNs", (cpu.now() - before).count()}};
  if (arguments.subagent != 0)
    measured["subagentNs"] = (subagent.now() - subagentBefore).count();
  return measured;
}

std::sig_atomic_t volatile stopped = 0;

double quantile(std::vector<double> const & sorted, double share) {
  auto const position = static_cast<std::size_t>(share * static_cast<double>(sorted.size()));
  return sorted[std::min(position, sorted.size() - 1)];
}

/// GETs of random rows, each sent when the one before is answered, until SIGTERM or the time is up.
Json latency(Manager & manager, double seconds) {
  std::signal(SIGTERM, [](int) { stopped = 1; });
  fmt::print("polling\n");
  std::fflush(stdout);
  std::vector<double> waits;
  std::uint64_t found = 0;
  auto const begin = Clock::now();
  auto const end = begin + std::chrono::duration<double>(seconds);
  do {
    auto const sent = Clock::now();
    found += manager.poll() ? 1 : 0;
    waits.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
  } while (stopped == 0 && Clock::now() < end);
  auto const took = std::chrono::duration<double>(Clock::now() - begin).count();
  std::ranges::sort(waits);
  return {{"count", waits.size()},
          {"found", found},
          {"seconds", took},
          {"p50Us", quantile(waits, 0.5)},
          {"p99Us", quantile(waits, 0.99)},
          {"maxUs", waits.back()}};
}

Json run(Arguments const & arguments) {
  Manager manager(arguments);
  if (arguments.operation == "check")
    return manager.check();
  if (arguments.operation == "latency")
    return latency(manager, arguments.seconds);
  return measure(manager, arguments);
}

void prepareLibrary() {
  for (auto const flag : {NETSNMP_DS_LIB_DONT_READ_CONFIGS, NETSNMP_DS_LIB_DONT_PERSIST_STATE})
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, flag, 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, "/dev/null");
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS, "/dev/null");
  setenv("MIBS", "", 1);
  init_snmp("benchManager");
}

} // namespace

int main(int argc, char ** argv) {
  Arguments arguments;
  CLI::App app("Asks an agent for a table of tunnels and measures it; prints JSON.",
               "benchManager");
  app.add_option("--address", arguments.address, "The agent, 127.0.0.1:PORT")->required();
  app.add_option("--pid", arguments.pid, "The agent's process")->required();
  app.add_option("--subagent", arguments.subagent, "The process that it has the answers from");
  app.add_option("--table", arguments.table, "Which table")->required();
  app.add_option("--rows", arguments.rows, "How many tunnels there are")
      ->required()
      ->check(CLI::Range(2, 1'000'000));
  app.add_option("--operation", arguments.operation, "What to ask")
      ->required()
      ->check(CLI::IsMember({"check", "bulk50", "bulk10", "get", "miss", "next", "latency"}));
  app.add_option("--varbinds", arguments.varbinds, "How many instances to ask for");
  app.add_option("--seconds", arguments.seconds, "How long to measure latency");
  app.add_option("--seed", arguments.seed, "Chooses the random rows");
  CLI11_PARSE(app, argc, argv);
  try {
    prepareLibrary();
    fmt::print("{}\n", run(arguments).dump());
    return 0;
  } catch (std::exception const & error) {
    fmt::print(stderr, "benchManager: {} {} of {} rows: {}\n", arguments.operation, arguments.table,
               arguments.rows, error.what());
    return 1;
  }
}

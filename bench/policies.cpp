// What following IPsec policies costs: a change of one of N policies until the flag of the one of N
// tunnels that it is for shows it, and a reading of all policies in which nothing has changed.
// Prints JSON.
//
// The policies are the kernel's own, in a network namespace that ends with this program; making
// them is not in the figures, the kernel's part in receiving them is. The links are made up.
#include "bench/Steps.h"
#include "bench/Tunnels.h"
#include "platform/Kiln.h"
#include "sources/linux/IpsecPolicies.h"
#include "statedb/Publishers.h"
#include "statedb/StateDb.h"
#include "tests/support/TestLoop.h"
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <optional>
#include <random>
#include <sched.h>
#include <string>

namespace {

using namespace Bench;
using Sources::Linux::IpsecPolicies;

/// As the daemon has it.
constexpr std::chrono::milliseconds share{2};
constexpr int changes = 200;

std::string textOf(std::uint32_t address) {
  auto const octets = octetsOf(address);
  return fmt::format("{}.{}.{}.{}", octets[0], octets[1], octets[2], octets[3]);
}
Plexa::IpGenAddr addressOf(std::uint32_t address) {
  return Plexa::IpGenAddr(Plexa::Ip4Addr{octetsOf(address)});
}

/// The policy for the tunnel of that index.
std::string policyLine(std::uint32_t index, char const * verb, char const * action) {
  return fmt::format("xfrm policy {} src {}/32 dst {}/32 proto gre dir out {}\n", verb,
                     textOf(localOf(index)), textOf(remoteOf(index)), action);
}
constexpr char esp[] = "tmpl proto esp mode transport";
constexpr char block[] = "action block";

void ip(std::string const & lines) {
  auto * const batch = popen("ip -batch -", "w");
  require(batch != nullptr, "the command ip cannot be started");
  std::fwrite(lines.data(), 1, lines.size(), batch);
  require(pclose(batch) == 0, "the policies cannot be made");
}

/// So many tunnels, and for each a policy that demands ESP.
class Followed {
public:
  explicit Followed(std::uint32_t tunnels);

  /// All policies, read at once.
  Json start();
  Json reread();
  /// Nanoseconds for each, and how much was looked at.
  Json change();

private:
  bool isIpsec(std::uint32_t index) const {
    return (*database_.tunnelIntfStatusDir()->intfStatus().find(Plexa::IntfId(index)))->ipsec();
  }
  /// Runs what there is to do, each step by itself.
  void settle(Steps & steps);

  std::uint32_t const tunnels_;
  Zel::Ptr<Kiln::TaskScheduler> const scheduler_ =
      Zel::makePtr<Kiln::TaskScheduler>(std::chrono::steady_clock::now, share);
  TestLoop loop_;
  StateDb::StateDb database_;
  StateDb::Publishers publishers_{database_};
  StateDb::Publisher publisher_{publishers_};
  Sources::Links links_;
  Sources::Ike::BoundLinks boundLinks_;
  std::optional<IpsecPolicies> policies_;
};

Followed::Followed(std::uint32_t tunnels) : tunnels_(tunnels) {
  Kiln::TaskSchedulerRoot::schedulerIs(scheduler_);
  std::string lines;
  for (std::uint32_t index = 1; index <= tunnels; ++index) {
    Plexa::IntfId const intfId(index);
    links_.linkIs({.intfId = intfId,
                   .name = fmt::format("gre{}", index),
                   .kind = "gre",
                   .local = addressOf(localOf(index)),
                   .remote = addressOf(remoteOf(index))});
    publisher_.tunnelIs(intfId, index, {});
    lines += policyLine(index, "add", esp);
  }
  ip(lines);
  policies_.emplace(
      Sources::Surroundings{loop_, publishers_, links_, boundLinks_}, [] {}, [](Plexa::IntfId) {});
}

Json Followed::start() {
  Steps steps;
  steps.run([this] { policies_->start(); });
  require(isIpsec(1) && isIpsec(tunnels_), "the policies do not show");
  return steps.figures();
}

Json Followed::reread() {
  auto const before = policies_->publisher().changes();
  Steps steps;
  steps.run([this] { policies_->reread(); });
  settle(steps);
  require(!policies_->isReading(), "the reading does not end");
  require(policies_->publisher().changes() == before, "something has changed");
  return steps.figures();
}

Json Followed::change() {
  std::mt19937 random(1);
  auto const looks = policies_->policyWork().looks;
  auto const links = policies_->linkWork().links;
  std::int64_t all = 0;
  for (int i = 0; i != changes; ++i) {
    auto const index = 1 + static_cast<std::uint32_t>(random() % tunnels_);
    auto const was = isIpsec(index);
    ip(policyLine(index, "update", was ? block : esp));
    auto const began = cpuNow();
    loop_.runOnce();
    all += cpuNow() - began;
    require(isIpsec(index) != was, "a change does not show");
  }
  auto const each = [](std::uint64_t count) { return static_cast<double>(count) / changes; };
  return {{"changeNs", static_cast<double>(all) / changes},
          {"looksAtPolicies", each(policies_->policyWork().looks - looks)},
          {"looksAtLinks", each(policies_->linkWork().links - links)}};
}

void Followed::settle(Steps & steps) {
  for (auto more = true; more;) {
    auto const wasReady = steps.runIf([this] { return loop_.runOnce(); });
    auto const hasRun = steps.runIf([this] { return scheduler_->runOne(); });
    more = wasReady || hasRun;
  }
}

Json policies(std::uint32_t tunnels) {
  require(unshare(CLONE_NEWNET) == 0, "a network namespace cannot be made: run it as root");
  Followed followed(tunnels);
  Json figures{{"start", followed.start()}, {"reread", followed.reread()}};
  figures.update(followed.change());
  return figures;
}

} // namespace

int main(int argc, char ** argv) {
  CLI::App app("What following IPsec policies costs.");
  std::uint32_t tunnels = 0;
  app.add_option("tunnels", tunnels, "So many tunnels, and as many policies")->required();
  CLI11_PARSE(app, argc, argv);
  try {
    std::printf("%s\n", policies(tunnels).dump(2).c_str());
    return 0;
  } catch (std::exception const & error) {
    std::fprintf(stderr, "benchPolicies: %s\n", error.what());
    return 1;
  }
}

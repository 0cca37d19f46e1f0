// What every source must do, with connections for things.
#include "sources/vici/ViciSource.h"
#include "tests/sources/ContractTests.h"
#include "tests/sources/vici/ViciBytes.h"
#include "tests/sources/vici/ViciPeer.h"
#include "tests/support/TemporaryFolder.h"
#include <fmt/format.h>

namespace {

/// The source's start does not wait for the daemon, which here is on the same loop.
class Awaited final : public Sources::Source {
public:
  Awaited(std::string const & options, Sources::Surroundings const & surroundings)
      : source_(options, surroundings),
        loop_(dynamic_cast<TestLoop &>(surroundings.loop)) {}

  std::string name() const override { return source_.name(); }
  void start() override {
    source_.start();
    auto const scheduler = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
    while (loop_.runReady() || scheduler->runOne()) {
    }
  }
  void reread() override { source_.reread(); }
  Sources::SourceStatus status() const override { return source_.status(); }

private:
  Sources::ViciSource source_;
  TestLoop & loop_;
};

/// Thing N is the connection "cN", which is bound to the link of that id. Its value is the state of
/// its SA, of which there are four.
class ConnectionsWorld final : public SourceWorld {
public:
  std::unique_ptr<Sources::Source> makeSource(Sources::Surroundings const & surroundings) override {
    loop_ = &dynamic_cast<TestLoop &>(surroundings.loop);
    peer_ = std::make_unique<ViciPeer>(*loop_, path_);
    peer_->sas = sas_;
    peer_->listen();
    for (std::uint32_t id = 1; id <= 3; ++id)
      surroundings.links.linkIs(
          {.intfId = Plexa::IntfId(id), .name = {}, .kind = "xfrm", .ifId = id});
    return std::make_unique<Awaited>(":" + path_, surroundings);
  }
  void thingIs(int number, int value) override {
    static constexpr std::pair<char const *, char const *> states[] = {
        {"CONNECTING", "CREATED"},
        {"ESTABLISHED", "CREATED"},
        {"DELETING", "INSTALLED"},
        {"ESTABLISHED", "INSTALLED"}};
    auto const & [ike, child] = states[value % 4];
    auto const name = fmt::format("c{}", number);
    sas_[name] =
        ViciBytes::sa(name, ike, {{"net", child, {{"if-id-out", fmt::format("{:08x}", number)}}}});
    tell();
  }
  void thingDel(int number) override {
    sas_.erase(fmt::format("c{}", number));
    tell();
  }

  std::vector<std::string> records(int number) const override {
    return {fmt::format("/ikeStatus/ipsecTunnelInfo/{}", number),
            fmt::format("/ikeStatus/appliedProfiles/c{0}/appliedIntfId/{0}", number)};
  }
  /// Its profile, and the claim that it is protected.
  std::size_t changes(int number) const override { return records(number).size() + 2; }
  std::string member(int number) const override { return records(number).back() + "/connState"; }
  nlohmann::json shown(int value) const override {
    static constexpr char const * states[] = {"connecting", "ikeUp", "closing", "up"};
    return states[value % 4];
  }
  Zel::PtrInterface const * object(StateDb::StateDb const & database, int number) const override {
    Plexa::IntfId const key(static_cast<std::uint64_t>(number));
    auto const & profiles = database.ikeStatus()->appliedProfiles();
    return (*profiles.find(fmt::format("c{}", number)))->appliedIntfId().find(key)->get();
  }
  std::pair<std::string, nlohmann::json> foreign() const override {
    return {"/ikeStatus/ipsecTunnelInfo/987654321", {{"profileName", "another's"}}};
  }

private:
  /// The event, and the time in which such are gathered.
  void tell() {
    if (!peer_)
      return;
    peer_->sas = sas_;
    peer_->event("ike-updown");
    loop_->runReady();
    loop_->advance(Sources::ViciSource::gathering);
  }

  TemporaryFolder const folder_;
  std::string const path_ = folder_.file("charon.vici");
  std::map<std::string, std::string> sas_;
  TestLoop * loop_ = nullptr;
  std::unique_ptr<ViciPeer> peer_;
};

std::unique_ptr<SourceWorld> makeWorld() {
  return std::make_unique<ConnectionsWorld>();
}

INSTANTIATE_TEST_SUITE_P(Vici, SourceContract, testing::Values(SourceKind{"vici", makeWorld}));

} // namespace

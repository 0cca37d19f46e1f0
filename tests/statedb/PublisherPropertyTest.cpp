// Several publishers, claims, patches and full reads at random, against a plain account of what
// each of them does. TEST_SEED repeats a failed run.
#include "tests/statedb/PublisherFixture.h"
#include <map>
#include <optional>
#include <random>
#include <set>

namespace {

using Status = StateDb::Publisher::Status;
using Connection = StateDb::Publisher::Connection;
using Claim = StateDb::Claim<Status>;
using Ids = std::uint64_t;

/// What the database should hold. Whatever has a publisher in it is about one of them.
struct World {
  using Profile = std::map<Ids, Connection>;
  struct Account {
    std::map<Ids, unsigned> statuses; ///< its own, with their kinds
    std::map<Ids, unsigned> indexes;
    std::set<std::string> profiles;
    std::set<std::pair<std::string, Ids>> connections;
    std::set<Ids> claims;
  };

  std::map<Ids, std::optional<Status>> statuses;
  std::map<Ids, std::uint32_t> indexes;
  std::map<std::string, Profile> profiles;
  std::map<Ids, std::vector<std::pair<std::size_t, Claim>>> claims; // in order of arrival
  std::map<Ids, std::optional<Status>> published;                   // under a claim
  std::vector<Account> accounts{3};

  Status ruling(Ids id, Status status) const {
    if (auto const found = claims.find(id); found != claims.end())
      for (auto const & [who, claim] : found->second)
        claim.applyTo(status);
    return status;
  }
  bool isPublished(Ids id) const {
    return std::ranges::any_of(accounts, [&](auto & one) { return one.statuses.contains(id); });
  }
  void putStatus(std::size_t who, Ids id, std::optional<Status> const & status, unsigned kind) {
    accounts[who].statuses[id] = kind;
    if (claims.contains(id))
      published[id] = status;
    statuses[id] = status ? ruling(id, *status) : status;
  }
  void delStatus(std::size_t who, Ids id) {
    if (accounts[who].statuses.erase(id) != 0 && statuses.erase(id) != 0)
      published.erase(id);
  }
  void putIndex(std::size_t who, Ids id, std::uint32_t index, unsigned kind) {
    accounts[who].indexes[id] = kind;
    indexes[id] = index;
  }
  void delIndex(std::size_t who, Ids id) {
    if (accounts[who].indexes.erase(id) != 0)
      indexes.erase(id);
  }
  void putConnection(std::size_t who, std::string const & profile, Ids id, Connection connection) {
    accounts[who].profiles.insert(profile);
    accounts[who].connections.insert({profile, id});
    profiles[profile][id] = connection;
  }
  void delConnection(std::size_t who, std::string const & profile, Ids id) {
    if (accounts[who].connections.erase({profile, id}) != 0 && profiles.contains(profile))
      profiles[profile].erase(id);
  }
  void delProfile(std::size_t who, std::string const & profile) {
    std::erase_if(accounts[who].connections, [&](auto & key) { return key.first == profile; });
    if (accounts[who].profiles.erase(profile) != 0)
      profiles.erase(profile);
  }
  void putClaim(std::size_t who, Ids id, Claim const & claim) {
    auto fields = claim.fields();
    if (!claims.contains(id))
      published[id] = isPublished(id) && statuses.contains(id) ? statuses[id] : std::nullopt;
    accounts[who].claims.insert(id);
    auto & all = claims[id];
    auto const held = std::ranges::find(all, who, [](auto & one) { return one.first; });
    if (held != all.end())
      fields |= std::exchange(held->second, claim).fields();
    else
      all.emplace_back(who, claim);
    apply(id, fields);
  }
  void delClaim(std::size_t who, Ids id) {
    if (accounts[who].claims.erase(id) == 0)
      return;
    auto & all = claims[id];
    auto const held = std::ranges::find(all, who, [](auto & one) { return one.first; });
    auto const fields = held->second.fields();
    all.erase(held);
    apply(id, fields);
    if (all.empty()) {
      claims.erase(id);
      published.erase(id);
    }
  }
  bool claimIsSo(std::size_t who, Ids id, Claim const & claim) {
    auto const found = claims.find(id);
    if (found == claims.end())
      return false;
    auto const & all = found->second;
    auto const held = std::ranges::find(all, who, [](auto & one) { return one.first; });
    if (held == all.end() || !(held->second == claim))
      return false;
    auto const before = statuses;
    apply(id, claim.fields());
    return std::exchange(statuses, before) == before;
  }
  void apply(Ids id, Zel::FieldSet fields) {
    if (isPublished(id) && published[id] && statuses.contains(id) && statuses[id])
      Zel::copyFields(*statuses[id], ruling(id, *published[id]), fields);
  }
};

/// Hears one status.
class Listener final : public Zel::Notifiee {
public:
  explicit Listener(Zel::Ptr<Interface::TunnelIntfStatus> record)
      : record_(std::move(record)),
        before_(record_->values()) {
    notifierIs(record_.get());
  }
  void onNotification(Zel::Notification const & notification) override {
    heard_.emplace_back(notification.attribute().name);
  }
  /// True if and only if each attribute that has changed was told once, and no other.
  bool hasHeardWhatChanged() const {
    std::vector<std::string> changed;
    Zel::forEachField<Status>([&](auto const & field, std::size_t) {
      if (!(before_.*field.member == record_->values().*field.member))
        changed.emplace_back(field.name);
    });
    return changed == heard_;
  }

private:
  Zel::Ptr<Interface::TunnelIntfStatus> const record_;
  Status const before_;
  std::vector<std::string> heard_;
};

class Publishing : public PublisherFixture, public testing::WithParamInterface<RunMode> {
protected:
  Publishing() {
    Kiln::TaskSchedulerRoot::schedulerIs(scheduler);
    for (auto i = world.accounts.size(); i != 0; --i)
      all.push_back(std::make_unique<StateDb::Publisher>(publishers));
  }

  unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }
  Ids anyId() { return 1 + below(5); }
  std::string anyProfile() { return below(2) == 0 ? "a" : "b"; }
  Status anyStatus() {
    return {.hopLimit = static_cast<std::uint8_t>(below(2)),
            .tos = static_cast<std::uint8_t>(below(3)),
            .ipsec = below(2) == 0};
  }
  std::optional<Status> anyStatusOrNull() {
    return below(6) == 0 ? std::nullopt : std::optional(anyStatus());
  }
  Connection anyConnection() { return {below(2) == 0 ? ConnState::up : ConnState::down}; }
  Claim anyClaim() {
    auto claim = Claim().with<&Status::ipsec>(below(2) == 0);
    return below(2) == 0 ? claim : claim.with<&Status::tos>(static_cast<std::uint8_t>(below(3)));
  }

  /// A single change by a publisher, to the database and to the account of it. What it is about is
  /// added to `touched`.
  void change(std::size_t who, std::set<std::string> & touched) {
    auto & one = *all[who];
    auto const key = anyId();
    auto const kind = below(4) == 0 ? 1u : 0u;
    auto const which = below(8);
    if (!mayDo(who, which, key))
      return;
    switch (which) {
    case 0: {
      auto const status = anyStatus();
      one.tunnelIs(id(key), 7, status, kind);
      world.putIndex(who, key, 7, kind);
      world.putStatus(who, key, status, kind);
      touched.insert({fmt::format("s{}", key), fmt::format("i{}", key)});
      break;
    }
    case 1:
      one.tunnelDel(id(key));
      world.delStatus(who, key);
      world.delIndex(who, key);
      touched.insert({fmt::format("s{}", key), fmt::format("i{}", key)});
      break;
    case 2: {
      auto const status = anyStatusOrNull();
      one.statusIs(id(key), status, kind);
      world.putStatus(who, key, status, kind);
      touched.insert(fmt::format("s{}", key));
      break;
    }
    case 3:
      one.statusDel(id(key));
      world.delStatus(who, key);
      touched.insert(fmt::format("s{}", key));
      break;
    case 4: {
      auto const index = 1 + below(3);
      one.ifIndexIs(id(key), index, kind);
      world.putIndex(who, key, index, kind);
      touched.insert(fmt::format("i{}", key));
      break;
    }
    case 5: {
      auto const claim = anyClaim();
      one.statusClaimIs(id(key), claim);
      world.putClaim(who, key, claim);
      touched.insert(fmt::format("c{}", key));
      break;
    }
    case 6:
      one.statusClaimDel(id(key));
      world.delClaim(who, key);
      touched.insert(fmt::format("c{}", key));
      break;
    default:
      one.ifIndexDel(id(key));
      world.delIndex(who, key);
      touched.insert(fmt::format("i{}", key));
    }
  }

  /// While a commit is under way: false for what ends otherwise if the commit has not come so far.
  /// What is not the publisher's yet is not removed, and a claim that comes and goes restores what
  /// others did to its members.
  bool mayDo(std::size_t who, unsigned which, Ids key) const {
    auto const & account = ownedBefore ? *ownedBefore : world.accounts[who];
    auto const hasStatus = account.statuses.contains(key);
    auto const hasIndex = account.indexes.contains(key);
    return !ownedBefore || which == 0 || which == 2 || which == 4 ||
           (which == 1 && hasStatus && hasIndex) || (which == 3 && hasStatus) ||
           (which == 7 && hasIndex);
  }

  /// A single change in the profiles.
  void changeProfile(std::size_t who, std::set<std::string> & touched) {
    auto & one = *all[who];
    auto const profile = anyProfile();
    auto const key = anyId();
    switch (below(4)) {
    case 0:
      one.profileDel(profile);
      world.delProfile(who, profile);
      touched.insert({"p" + profile, "lost" + profile});
      break;
    case 1:
      one.profileIs(profile);
      world.accounts[who].profiles.insert(profile);
      world.profiles[profile];
      touched.insert("p" + profile);
      break;
    case 2: {
      auto const connection = anyConnection();
      one.connectionIs(profile, id(key), connection);
      world.putConnection(who, profile, key, connection);
      touched.insert({"p" + profile, fmt::format("{}{}", profile, key)});
      break;
    }
    default:
      one.connectionDel(profile, id(key));
      world.delConnection(who, profile, key);
      touched.insert(fmt::format("{}{}", profile, key));
    }
  }

  /// What somebody does by patch.
  void meddle() {
    auto const key = anyId();
    auto const status = fmt::format("{}/{}", statuses, key);
    auto const there = world.statuses.contains(key);
    switch (below(4)) {
    case 0:
      patch("add", status, {{"tos", 3}});
      world.statuses[key] = tos(3);
      break;
    case 1:
      if (there && world.statuses[key]) {
        patch("replace", status + "/ipsec", true);
        world.statuses[key]->ipsec = true;
      }
      break;
    case 2:
      if (there) {
        patch("remove", status);
        world.statuses.erase(key);
      }
      break;
    default:
      patch("add", fmt::format("{}/{}", indexes, key), 99);
      world.indexes[key] = 99;
    }
  }

  /// What a full read will do at its commit.
  struct Reading {
    std::set<std::string> touched; ///< by the publisher itself, since it began
    std::set<std::string> seen;    ///< found as it is
    std::map<std::string, std::function<void()>> toPut;
  };

  bool isNewer(Reading const & reading, std::string const & name) const {
    return reading.touched.contains(name);
  }
  void note(Reading & reading, std::string const & name, bool isSo, std::function<void()> put) {
    if (isNewer(reading, name))
      return;
    reading.seen.erase(name);
    reading.toPut.erase(name);
    if (isSo)
      reading.seen.insert(name);
    else
      reading.toPut[name] = std::move(put);
  }

  void find(std::size_t who, StateDb::FullRead & read, Reading & reading) {
    auto const & account = world.accounts[who];
    auto const key = anyId();
    auto const kind = below(4) == 0 ? 1u : 0u;
    switch (below(4)) {
    case 0: {
      auto const status = anyStatusOrNull();
      read.statusIs(id(key), status, kind);
      auto const own = account.statuses.find(key);
      auto const wanted = status ? world.ruling(key, *status) : status;
      auto const isSo = own != account.statuses.end() && own->second == kind &&
                        world.statuses.contains(key) && world.statuses[key] == wanted &&
                        (!status || !world.claims.contains(key) || world.published[key] == status);
      note(reading, fmt::format("s{}", key), isSo,
           [=, this] { world.putStatus(who, key, status, kind); });
      break;
    }
    case 1: {
      auto const index = 1 + below(3);
      read.ifIndexIs(id(key), index, kind);
      auto const own = account.indexes.find(key);
      auto const isSo = own != account.indexes.end() && own->second == kind &&
                        world.indexes.contains(key) && world.indexes[key] == index;
      note(reading, fmt::format("i{}", key), isSo,
           [=, this] { world.putIndex(who, key, index, kind); });
      break;
    }
    case 2: {
      auto const claim = anyClaim();
      read.statusClaimIs(id(key), claim);
      note(reading, fmt::format("c{}", key), world.claimIsSo(who, key, claim),
           [=, this] { world.putClaim(who, key, claim); });
      break;
    }
    default: {
      auto const profile = anyProfile();
      auto const connection = anyConnection();
      read.connectionIs(profile, id(key), connection);
      if (isNewer(reading, "lost" + profile))
        break;
      note(reading, "p" + profile, false, [=, this] {
        world.accounts[who].profiles.insert(profile);
        world.profiles[profile];
      });
      note(reading, fmt::format("{}{}", profile, key), false,
           [=, this] { world.putConnection(who, profile, key, connection); });
    }
    }
  }

  /// The commit, once for all.
  void account(std::size_t who, Reading & reading) {
    auto const isFound = [&](std::string const & name) {
      return isNewer(reading, name) || reading.seen.contains(name) || reading.toPut.contains(name);
    };
    auto const before = world.accounts[who];
    for (auto const & [key, kind] : before.statuses)
      if (!isFound(fmt::format("s{}", key)))
        world.delStatus(who, key);
    for (auto const & [key, kind] : before.indexes)
      if (!isFound(fmt::format("i{}", key)))
        world.delIndex(who, key);
    for (auto const & profile : before.profiles)
      if (!isFound("p" + profile))
        world.delProfile(who, profile);
    for (auto const & [profile, key] : before.connections)
      if (!isFound(fmt::format("{}{}", profile, key)))
        world.delConnection(who, profile, key);
    for (auto const key : before.claims)
      if (!isFound(fmt::format("c{}", key)))
        world.delClaim(who, key);
    // "a5" < "c5" < "i5" < "pa" < "s5", but claims come last
    for (auto const isClaim : {false, true})
      for (auto const & [name, put] : reading.toPut)
        if (!isNewer(reading, name) && (name.front() == 'c') == isClaim)
          put();
  }

  void readFully(std::size_t who) {
    Reading reading;
    auto read = all[who]->beginFullRead();
    for (auto i = below(12); i != 0; --i)
      switch (below(6)) {
      case 0:
        change(who, reading.touched);
        break;
      case 1:
        changeProfile(who, reading.touched);
        break;
      case 2:
        meddle();
        break;
      case 3: {
        std::set<std::string> others;
        change((who + 1) % all.size(), others);
        break;
      }
      default:
        find(who, read, reading);
      }
    for (auto const & name : reading.touched) {
      reading.toPut.erase(name);
      if (name.starts_with("lost"))
        std::erase_if(reading.toPut, [&](auto const & one) {
          return one.first.starts_with(name.substr(4)) && !isNewer(reading, one.first);
        });
    }
    if (below(8) == 0)
      return; // dropped
    if (GetParam().synchronous) {
      account(who, reading);
      std::move(read).commit(atOnce);
      return;
    }
    commitInRuns(who, std::move(read), reading);
  }

  /// With single changes of the publisher between the runs. They are newer, whether their turn had
  /// come or not, so it is as if the commit had been all there was before them.
  void commitInRuns(std::size_t who, StateDb::FullRead read, Reading & reading) {
    bool done = false;
    ownedBefore = world.accounts[who];
    account(who, reading);
    std::move(read).commit(inRuns, [&] { done = true; });
    do {
      std::set<std::string> touched;
      if (below(3) == 0)
        change(who, touched);
    } while (scheduler->runOne());
    EXPECT_TRUE(done);
    ownedBefore.reset();
  }

  json expected() const {
    auto content = json::parse(R"({"tunnelIntfStatusDir": {"intfStatus": {}},
        "ifMib": {"ifIndexByIntfId": {}},
        "ikeStatus": {"ipsecTunnelInfo": {}, "appliedProfiles": {}}})");
    for (auto const & [key, status] : world.statuses)
      content["tunnelIntfStatusDir"]["intfStatus"][std::to_string(key)] =
          status ? json{{"srcAddr", ""},      {"dstAddr", ""},
                        {"mode", "unknown"},  {"hopLimit", status->hopLimit},
                        {"tos", status->tos}, {"ipsec", status->ipsec}}
                 : json();
    for (auto const & [key, index] : world.indexes)
      content["ifMib"]["ifIndexByIntfId"][std::to_string(key)] = index;
    for (auto const & [profile, connections] : world.profiles) {
      auto & records = content["ikeStatus"]["appliedProfiles"][profile]["appliedIntfId"];
      records = json::object();
      for (auto const & [key, connection] : connections)
        records[std::to_string(key)] = {{"connState", valueToStrep(connection.connState)}};
    }
    return content;
  }
  void expectCounts() const {
    for (std::size_t who = 0; who != all.size(); ++who) {
      auto const & account = world.accounts[who];
      auto const counts = all[who]->counts();
      EXPECT_EQ(counts.statuses, account.statuses.size());
      EXPECT_EQ(counts.ifIndexes, account.indexes.size());
      EXPECT_EQ(counts.profiles, account.profiles.size());
      EXPECT_EQ(counts.connections, account.connections.size());
      EXPECT_EQ(counts.statusClaims, account.claims.size());
    }
  }

  std::mt19937 random{testSeed()};
  Zel::Ptr<TestScheduler> const scheduler =
      Zel::makePtr<TestScheduler>(GetParam().yield, testSeed());
  World world;
  std::optional<World::Account> ownedBefore; ///< the commit that is under way
  std::vector<std::unique_ptr<StateDb::Publisher>> all;
};

TEST_P(Publishing, DoesWhatIsToldOfIt) {
  for (int step = 0; step != 3000 && !HasFailure(); ++step) {
    std::vector<Zel::Ptr<Listener>> listeners;
    for (auto const & [key, status] : database.tunnelIntfStatusDir()->intfStatus())
      if (status)
        listeners.push_back(Zel::makePtr<Listener>(status));
    auto const who = below(static_cast<unsigned>(all.size()));
    std::set<std::string> touched;
    switch (below(6)) {
    case 0:
    case 1:
      change(who, touched);
      break;
    case 2:
      changeProfile(who, touched);
      break;
    case 3:
      meddle();
      break;
    default:
      listeners.clear(); // several changes in a row
      readFully(who);
    }
    for (auto const & listener : listeners)
      EXPECT_TRUE(listener->hasHeardWhatChanged()) << "in step " << step;
    ASSERT_EQ(read(""), expected()) << "after step " << step;
    expectCounts();
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, Publishing, testing::ValuesIn(runModes),
                         [](auto const & mode) { return mode.param.name; });

} // namespace

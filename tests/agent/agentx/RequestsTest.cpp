// A master's requests answered by modules that are registered with net-snmp: from message to
// message, through the session, the daemon's engine and net-snmp's agent. The modules are the
// test's own. TEST_SEED repeats a random run.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "agent/SnmpEngine.h"
#include "agent/agentx/Requests.h"
#include "agent/iterator/HostIterator.h"
#include "tests/agent/ToyTable.h"
#include "tests/agent/agentx/ScriptedMaster.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestScheduler.h"
#include <gmock/gmock.h>

namespace {

using namespace Agent::AgentX;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t number = 77; // of the session

Oid const base{1, 3, 6, 1, 4, 1, 32473, 9};
Oid below(std::initializer_list<std::uint32_t> rest) {
  auto name = base;
  name.insert(name.end(), rest.begin(), rest.end());
  return name;
}
/// A cell of the table with rows 1, 3, 5 and 13 in columns 2, 3 and 4; the very last cell fails.
Oid cell(std::uint32_t column, std::uint32_t row) {
  return below({1, 1, column, row});
}
std::vector<unsigned long> asLongs(Oid const & oid) {
  return {oid.begin(), oid.end()};
}

/// A scalar that answers what the test says, and notes the steps of each SET.
class Scalar {
public:
  Scalar(Oid const & name, int modes, char const * context = nullptr) {
    auto longs = asLongs(name);
    registration_ = netsnmp_create_handler_registration("scalar", &Scalar::handle, longs.data(),
                                                        longs.size(), modes);
    registration_->handler->myvoid = this;
    if (context != nullptr)
      registration_->contextName = strdup(context);
    EXPECT_EQ(MIB_REGISTERED_OK, netsnmp_register_scalar(registration_));
  }
  Scalar(Scalar const &) = delete;
  Scalar & operator=(Scalar const &) = delete;
  ~Scalar() {
    // net-snmp 5.9.3 reads the name of a context after it has freed it: one that is named goes
    // with net-snmp.
    if (registration_->contextName == nullptr)
      netsnmp_unregister_handler(registration_);
  }

  std::function<void(netsnmp_request_info &)> get = [](netsnmp_request_info & request) {
    long const value = 5;
    snmp_set_var_typed_value(request.requestvb, ASN_INTEGER, &value, sizeof value);
  };
  std::vector<int> steps;
  int failingStep = -1;
  bool delegates = false;
  netsnmp_delegated_cache * delegated = nullptr;

private:
  static int handle(netsnmp_mib_handler * handler, netsnmp_handler_registration * registration,
                    netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
    // The scalar helper stands in front: what is ours is the last one.
    auto & self = *static_cast<Scalar *>(handler->myvoid);
    if (agent->mode == MODE_GET && self.delegates) {
      requests->delegated = 1;
      self.delegated =
          netsnmp_create_delegated_cache(handler, registration, agent, requests, nullptr);
    } else if (agent->mode == MODE_GET)
      self.get(*requests);
    else {
      self.steps.push_back(agent->mode);
      if (agent->mode == self.failingStep)
        netsnmp_request_set_error(requests, agent->mode == MODE_SET_UNDO ? SNMP_ERR_UNDOFAILED
                                                                         : SNMP_ERR_GENERR);
    }
    return SNMP_ERR_NOERROR;
  }

  netsnmp_handler_registration * registration_;
};

ToyShape tableShape() {
  ToyShape shape;
  shape.root = asLongs(below({1}));
  shape.rows = {{1}, {3}, {5}, {13}};
  shape.cell = [](unsigned int column, Wire::Oid const & index) {
    return column == 4 && index[0] == 13 ? Cell::failure : Cell::value;
  };
  return shape;
}

/// The process has one net-snmp, and so all tests have one engine, with its modules and its master.
struct World {
  TemporaryFolder folder;
  TestLoop loop;
  ScriptedMaster master{folder.path() / "master"};
  std::optional<Agent::SnmpEngine> engine{std::in_place, loop,
                                          Agent::SnmpSettings{"", master.address()}};
  std::optional<ToyTable> table{std::in_place, tableShape()};
  std::optional<Scalar> writable{std::in_place, below({2}), HANDLER_CAN_RWRITE};
  std::optional<Scalar> readable{std::in_place, below({3}), HANDLER_CAN_RONLY};
  std::optional<Scalar> inRed{std::in_place, below({2}), HANDLER_CAN_RONLY, "red"};

  World() {
    EXPECT_EQ(1U, Agent::installHostIterator());
    EXPECT_EQ("agentx:" + master.address(), engine->listen(""));
  }
  ~World() {
    engine->stopServing();
    inRed.reset();
    readable.reset();
    writable.reset();
    table.reset();
    engine.reset();
  }
};

std::unique_ptr<World> world;

class TheWorld final : public testing::Environment {
public:
  void SetUp() override { world = std::make_unique<World>(); }
  void TearDown() override { world.reset(); }
};
[[maybe_unused]] auto * const theWorld = testing::AddGlobalTestEnvironment(new TheWorld);

class AgentXRequests : public testing::Test {
protected:
  /// Each test has a session of its own.
  AgentXRequests() { openSession(); }
  ~AgentXRequests() override {
    world->writable->steps.clear();
    world->writable->failingStep = -1;
    world->readable->delegates = false;
    world->readable->get = Scalar(below({99}), HANDLER_CAN_RONLY).get;
  }

  void openSession() {
    for (int i = 0; i != 100 && !world->master.accept(); ++i) {
      world->loop.advance(std::chrono::milliseconds(10));
      world->loop.runReady();
    }
    regions.clear();
    while (world->engine->agentx()->state != SessionStatus::State::serving) {
      turn();
      auto const message = world->master.next();
      if (!message)
        break;
      if (auto const * registration = std::get_if<Registration>(&message->second))
        regions.push_back(registration->region);
      world->master.answer(*message, number);
      turn();
    }
    ASSERT_EQ(SessionStatus::State::serving, world->engine->agentx()->state);
  }
  /// The next test's, or this one's next, is a new one.
  void TearDown() override { loseSession(); }
  void loseSession() {
    world->master.hangUp();
    turn();
  }
  void turn() {
    do {
      world->loop.advance(std::chrono::milliseconds(0));
    } while (world->loop.runReady());
  }

  void put(Body const & body, std::uint32_t transaction = 1) {
    world->master.put({.session = number, .transaction = transaction, .packet = ++packet}, body);
    turn();
  }
  std::optional<ScriptedMaster::Message> answer() { return world->master.next(); }
  Response ask(Body const & body, std::uint32_t transaction = 1) {
    put(body, transaction);
    auto const message = answer();
    if (!message) {
      ADD_FAILURE() << "no answer";
      return {};
    }
    EXPECT_EQ(packet, message->first.packet);
    EXPECT_EQ(transaction, message->first.transaction);
    return std::get<Response>(message->second);
  }
  Response get(std::vector<Oid> const & names, std::string const & context = "") {
    Get get{context, {}};
    for (auto const & name : names)
      get.ranges.push_back({name, false, {}});
    return ask(get);
  }
  Response getNext(std::vector<SearchRange> ranges) { return ask(GetNext{"", std::move(ranges)}); }

  /// Name and type of each, "9.1.1.2.1 integer"-like, below the base.
  static std::vector<std::pair<Oid, ValueType>> told(Response const & response) {
    EXPECT_EQ(Error::none, response.error) << errorText(response.error);
    std::vector<std::pair<Oid, ValueType>> all;
    for (auto const & one : response.varBinds)
      all.emplace_back(one.name, one.type);
    return all;
  }
  static std::vector<VarBind> setting(std::vector<Oid> const & names) {
    std::vector<VarBind> all;
    for (auto const & name : names)
      all.push_back({name, ValueType::integer, std::uint32_t{9}});
    return all;
  }

  std::vector<Region> regions;
  std::uint32_t packet = 1000;
};
using Told = std::pair<Oid, ValueType>;
constexpr auto text = ValueType::octetString;
constexpr auto over = ValueType::endOfMibView;

TEST_F(AgentXRequests, RegistersWhatModulesRegister) {
  EXPECT_THAT(regions,
              ElementsAre(Region{"", below({1}), 127, 0, 0}, Region{"", below({2}), 127, 0, 0},
                          Region{"", below({3}), 127, 0, 0}, Region{"red", below({2}), 127, 0, 0}));
}

TEST_F(AgentXRequests, RegistersAndUnregistersWhatModulesDoLater) {
  std::optional<Scalar> later(std::in_place, below({7}), HANDLER_CAN_RONLY);
  turn();
  auto const registration = answer();
  ASSERT_TRUE(registration);
  EXPECT_EQ(below({7}), std::get<Registration>(registration->second).region.subtree);
  world->master.answer(*registration, number);
  turn();
  later.reset();
  turn();
  auto const unregistration = answer();
  ASSERT_TRUE(unregistration);
  EXPECT_EQ(below({7}), std::get<Unregistration>(unregistration->second).region.subtree);
}

TEST_F(AgentXRequests, GetsCellsInTheOrderAskedFor) {
  EXPECT_THAT(told(get({cell(3, 5), cell(2, 1), cell(2, 2), below({1}), {1, 3, 6, 1, 4, 1, 1}})),
              ElementsAre(Told{cell(3, 5), text}, Told{cell(2, 1), text},
                          Told{cell(2, 2), ValueType::noSuchInstance},
                          Told{below({1}), ValueType::noSuchObject},
                          Told{{1, 3, 6, 1, 4, 1, 1}, ValueType::noSuchObject}));
}

TEST_F(AgentXRequests, GetsNothingWhenAskedForNothing) {
  EXPECT_THAT(told(get({})), IsEmpty());
  EXPECT_THAT(told(getNext({})), IsEmpty());
  EXPECT_THAT(told(ask(GetBulk{"", 0, 10, {}})), IsEmpty());
}

TEST_F(AgentXRequests, GetsManyCells) {
  std::vector<Oid> const names(500, cell(2, 3));
  auto const response = get(names);
  EXPECT_EQ(std::vector(500, Told(cell(2, 3), text)), told(response));
}

TEST_F(AgentXRequests, TellsWhichCellFails) {
  auto const response = get({cell(2, 1), cell(4, 13), cell(2, 3)});
  EXPECT_EQ(Error::generic, response.error);
  EXPECT_EQ(2, response.index);
  EXPECT_THAT(response.varBinds, IsEmpty());
}

TEST_F(AgentXRequests, CarriesValuesOfEveryType) {
  auto const as = [this](u_char type, void const * value, std::size_t size) {
    world->readable->get = [=](netsnmp_request_info & request) {
      snmp_set_var_typed_value(request.requestvb, type, value, size);
    };
    auto const response = get({below({3, 0})});
    EXPECT_EQ(1U, response.varBinds.size());
    EXPECT_EQ(type, static_cast<u_char>(response.varBinds.at(0).type));
    return response.varBinds.at(0).value;
  };
  using Value = decltype(VarBind::value);
  long const minus = -2;
  EXPECT_EQ(Value(std::uint32_t{0xFFFFFFFE}), as(ASN_INTEGER, &minus, sizeof minus));
  u_long const large = 4294967295;
  for (u_char const type : {ASN_COUNTER, ASN_GAUGE, ASN_TIMETICKS})
    EXPECT_EQ(Value(std::uint32_t{4294967295}), as(type, &large, sizeof large));
  counter64 const counter{1, 2};
  EXPECT_EQ(Value(std::uint64_t{0x100000002}), as(ASN_COUNTER64, &counter, sizeof counter));
  EXPECT_EQ(Value(std::string("a\0b", 3)), as(ASN_OCTET_STR, "a\0b", 3));
  EXPECT_EQ(Value(std::string()), as(ASN_OCTET_STR, "", 0));
  EXPECT_EQ(Value(std::string("\x7f\0\0\1", 4)), as(ASN_IPADDRESS, "\x7f\0\0\1", 4));
  oid const name[] = {1, 3, 4294967295};
  EXPECT_EQ(Value(Oid{1, 3, 4294967295}), as(ASN_OBJECT_ID, name, sizeof name));
}

TEST_F(AgentXRequests, RefusesAValueThatAgentXCannotCarry) {
  world->readable->get = [](netsnmp_request_info & request) {
    float const value = 1;
    snmp_set_var_typed_value(request.requestvb, ASN_OPAQUE_FLOAT, &value, sizeof value);
  };
  EXPECT_EQ(Error::generic, get({below({3, 0})}).error);
}

TEST_F(AgentXRequests, StepsThroughTheTableWithinARange) {
  EXPECT_THAT(told(getNext({{cell(2, 1), false, below({2})}})),
              ElementsAre(Told{cell(2, 3), text}));
  EXPECT_THAT(told(getNext({{below({1}), false, below({2})}, {cell(2, 2), false, {}}})),
              ElementsAre(Told{cell(2, 1), text}, Told{cell(2, 3), text}));
}

TEST_F(AgentXRequests, DoesNotStepToTheEndOfARangeOrBeyond) {
  EXPECT_THAT(told(getNext({{cell(2, 1), false, cell(2, 3)},
                            {cell(2, 1), false, cell(2, 2)},
                            {cell(2, 1), false, cell(2, 4)}})),
              ElementsAre(Told{cell(2, 1), over}, Told{cell(2, 1), over}, Told{cell(2, 3), text}));
}

TEST_F(AgentXRequests, StepsFromModuleToModuleAndToTheEnd) {
  EXPECT_THAT(told(getNext({{below({2}), false, {}}, {below({2, 0}), false, {}}})),
              ElementsAre(Told{below({2, 0}), ValueType::integer},
                          Told{below({3, 0}), ValueType::integer}));
  EXPECT_THAT(told(getNext({{below({3, 0}), false, {}}})), ElementsAre(Told{below({3, 0}), over}));
}

TEST_F(AgentXRequests, IncludesTheStartOfARangeIfItExists) {
  EXPECT_THAT(told(getNext({{cell(2, 3), true, {}},
                            {cell(2, 2), true, {}},
                            {cell(2, 3), false, {}},
                            {below({1}), true, {}},
                            {cell(2, 3), true, cell(2, 3)},
                            {below({2, 0}), true, below({3})}})),
              ElementsAre(Told{cell(2, 3), text}, Told{cell(2, 3), text}, Told{cell(2, 5), text},
                          Told{cell(2, 1), text}, Told{cell(2, 3), text},
                          Told{below({2, 0}), ValueType::integer}));
}

TEST_F(AgentXRequests, TellsWhichStepFails) {
  auto const response = getNext({{cell(2, 1), true, {}}, {cell(4, 5), false, {}}});
  EXPECT_EQ(Error::generic, response.error);
  EXPECT_EQ(2, response.index);
  auto const included = getNext({{cell(2, 1), false, {}}, {cell(4, 13), true, {}}});
  EXPECT_EQ(Error::generic, included.error);
  EXPECT_EQ(2, included.index);
}

TEST_F(AgentXRequests, RepeatsStepsForAGetBulk) {
  EXPECT_THAT(told(ask(GetBulk{"",
                               1,
                               3,
                               {{below({2}), false, {}},
                                {cell(2, 1), true, cell(2, 13)},
                                {cell(3, 3), false, cell(3, 13)}}})),
              ElementsAre(Told{below({2, 0}), ValueType::integer},          // once
                          Told{cell(2, 1), text}, Told{cell(3, 5), text},   // first
                          Told{cell(2, 3), text}, Told{cell(3, 5), over},   // second
                          Told{cell(2, 5), text}, Told{cell(3, 5), over})); // third
}

TEST_F(AgentXRequests, EndsAGetBulkWhenAllNamesAreAtTheirEnds) {
  EXPECT_THAT(told(ask(GetBulk{"", 0, 65535, {{cell(2, 3), false, cell(2, 13)}}})),
              ElementsAre(Told{cell(2, 5), text}, Told{cell(2, 5), over}));
  EXPECT_THAT(told(ask(GetBulk{"", 9, 9, {{cell(2, 1), false, {}}}})),
              ElementsAre(Told{cell(2, 3), text}));
  EXPECT_THAT(told(ask(GetBulk{"", 0, 0, {{cell(2, 1), false, {}}}})), IsEmpty());
}

TEST_F(AgentXRequests, ShortensAGetBulkThatWouldHaveTooManyAnswers) {
  // An end of its own for each keeps one name going.
  std::vector<SearchRange> ranges(400, {below({3, 0}), false, {}});
  ranges.front() = {cell(2, 0), false, cell(2, 13)};
  EXPECT_EQ(1200U, ask(GetBulk{"", 0, 65535, ranges}).varBinds.size());
}

TEST_F(AgentXRequests, ServesContexts) {
  EXPECT_THAT(told(get({below({2, 0}), below({3, 0})}, "red")),
              ElementsAre(Told{below({2, 0}), ValueType::integer},
                          Told{below({3, 0}), ValueType::noSuchObject}));
  EXPECT_THAT(told(get({below({2, 0})}, "blue")),
              ElementsAre(Told{below({2, 0}), ValueType::noSuchObject}));
  EXPECT_THAT(told(ask(GetNext{"red", {{base, false, {}}}})),
              ElementsAre(Told{below({2, 0}), ValueType::integer}));
}

// Octets that a master should not send

/// Octets of a request that says something about the modules.
std::string randomRequest(std::mt19937 & random, std::uint32_t packet) {
  auto const name = [&random] {
    auto oid = cell(2 + random() % 3, random() % 7);
    oid.resize(oid.size() - random() % 5);
    return oid;
  };
  std::vector<SearchRange> ranges;
  for (auto count = random() % 5; count != 0; --count)
    ranges.push_back({name(), random() % 2 == 0, random() % 2 == 0 ? Oid() : name()});
  std::array<Body, 7> const bodies{Get{"", ranges},
                                   GetNext{"", ranges},
                                   GetBulk{"red", 1, 9, ranges},
                                   TestSet{"", {{below({2, 0}), ValueType::integer, 7U}}},
                                   CommitSet{},
                                   UndoSet{},
                                   CleanupSet{}};
  std::string octets;
  auto const order = random() % 2 == 0 ? ByteOrder::big : ByteOrder::little;
  encode(octets, {.order = order, .session = number, .transaction = 1, .packet = packet},
         bodies.at(random() % bodies.size()));
  return octets;
}

TEST_F(AgentXRequests, OutlivesMessagesThatAreWrongAnywhere) {
  std::mt19937 random(testSeed());
  int lost = 0;
  for (int i = 0; i != 3000; ++i) {
    auto octets = randomRequest(random, ++packet);
    for (auto changes = random() % 4; changes != 0; --changes)
      octets[random() % octets.size()] = static_cast<char>(random());
    world->master.putOctets(octets);
    turn();
    while (answer()) {
    }
    if (world->engine->agentx()->state == SessionStatus::State::serving)
      continue;
    ++lost;
    openSession();
  }
  EXPECT_GT(lost, 0); // some changes are past mending
  loseSession();
  openSession();
  EXPECT_THAT(told(get({cell(2, 1)})), ElementsAre(Told{cell(2, 1), text}));
}

// SETs, in steps

TEST_F(AgentXRequests, RefusesToSetWhatIsReadOnly) {
  auto const test = ask(TestSet{"", setting({below({2, 0}), below({3, 0})})});
  EXPECT_EQ(17, static_cast<int>(test.error)); // notWritable, RFC 3416 section 3
  EXPECT_EQ(2, test.index);
  put(CleanupSet{});
  EXPECT_FALSE(answer());
  EXPECT_THAT(world->writable->steps,
              testing::Not(testing::Contains(static_cast<int>(MODE_SET_ACTION))));
}

TEST_F(AgentXRequests, SetsInTheStepsOfNetSnmp) {
  EXPECT_EQ(Error::none, ask(TestSet{"", setting({below({2, 0})})}).error);
  EXPECT_THAT(world->writable->steps, ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2));
  EXPECT_EQ(Error::none, ask(CommitSet{}).error);
  EXPECT_THAT(world->writable->steps,
              ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION));
  put(CleanupSet{});
  EXPECT_FALSE(answer());
  EXPECT_THAT(world->writable->steps,
              ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_COMMIT));
}

TEST_F(AgentXRequests, UndoesASet) {
  ask(TestSet{"", setting({below({2, 0})})});
  ask(CommitSet{});
  EXPECT_EQ(Error::none, ask(UndoSet{}).error);
  EXPECT_THAT(world->writable->steps,
              ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION, MODE_SET_UNDO));
}

TEST_F(AgentXRequests, FreesASetThatIsNotCommitted) {
  ask(TestSet{"", setting({below({2, 0})})});
  put(CleanupSet{});
  EXPECT_THAT(world->writable->steps,
              ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_FREE));
}

TEST_F(AgentXRequests, TellsTheStepAtWhichASetFails) {
  for (auto const step : {MODE_SET_RESERVE1, MODE_SET_RESERVE2}) {
    world->writable->failingStep = step;
    auto const test = ask(TestSet{"", setting({below({2, 0})})});
    EXPECT_EQ(Error::generic, test.error);
    EXPECT_EQ(1, test.index);
    put(CleanupSet{});
    EXPECT_EQ(MODE_SET_FREE, world->writable->steps.back());
  }
  world->writable->failingStep = MODE_SET_ACTION;
  ask(TestSet{"", setting({below({2, 0})})});
  EXPECT_EQ(Error::commitFailed, ask(CommitSet{}).error);
  EXPECT_EQ(Error::none, ask(UndoSet{}).error);
  EXPECT_EQ(MODE_SET_UNDO, world->writable->steps.back());
  world->writable->failingStep = MODE_SET_UNDO;
  ask(TestSet{"", setting({below({2, 0})})});
  ask(CommitSet{});
  EXPECT_EQ(Error::undoFailed, ask(UndoSet{}).error);
}

TEST_F(AgentXRequests, RefusesStepsOfNoSet) {
  EXPECT_EQ(Error::commitFailed, ask(CommitSet{}).error);
  EXPECT_EQ(Error::undoFailed, ask(UndoSet{}).error);
  put(CleanupSet{});
  EXPECT_FALSE(answer());
  ask(TestSet{"", setting({below({2, 0})})});
  EXPECT_EQ(Error::processingError, ask(TestSet{"", setting({below({2, 0})})}).error);
  ask(CommitSet{});
  EXPECT_EQ(Error::commitFailed, ask(CommitSet{}).error);
  EXPECT_THAT(world->writable->steps,
              ElementsAre(MODE_SET_RESERVE1, MODE_SET_RESERVE2, MODE_SET_ACTION));
}

TEST_F(AgentXRequests, KeepsSetsApartAndAnswersBetweenTheirSteps) {
  EXPECT_EQ(Error::none, ask(TestSet{"", setting({below({2, 0})})}, 1).error);
  EXPECT_EQ(Error::none, ask(TestSet{"", setting({below({2, 0})})}, 2).error);
  EXPECT_THAT(told(get({below({2, 0})})), ElementsAre(Told{below({2, 0}), ValueType::integer}));
  EXPECT_EQ(Error::none, ask(CommitSet{}, 2).error);
  put(CleanupSet{}, 1);
  EXPECT_EQ(MODE_SET_FREE, world->writable->steps.back());
  put(CleanupSet{}, 2);
  EXPECT_EQ(MODE_SET_COMMIT, world->writable->steps.back());
}

TEST_F(AgentXRequests, RefusesMoreSetsThanAMasterNeeds) {
  for (std::uint32_t transaction = 1; transaction <= mostSets; ++transaction)
    EXPECT_EQ(Error::none, ask(TestSet{"", setting({below({2, 0})})}, transaction).error);
  EXPECT_EQ(Error::resourceUnavailable,
            ask(TestSet{"", setting({below({2, 0})})}, mostSets + 1).error);
}

TEST_F(AgentXRequests, UndoesSetsWhoseMasterGoes) {
  ask(TestSet{"", setting({below({2, 0})})}, 1);
  ask(CommitSet{}, 1);
  ask(TestSet{"", setting({below({2, 0})})}, 2);
  world->writable->steps.clear();
  loseSession();
  EXPECT_THAT(world->writable->steps, ElementsAre(MODE_SET_UNDO, MODE_SET_FREE));
  openSession();
  EXPECT_EQ(Error::commitFailed, ask(CommitSet{}, 2).error);
}

// Handlers that take their time

class AgentXDelegation : public AgentXRequests {
protected:
  void delegate() {
    world->readable->delegates = true;
    put(Get{"", {{below({3, 0}), false, {}}}});
    ASSERT_FALSE(answer());
    world->readable->delegates = false;
  }
  /// What net-snmp's handlers do when they have their answer.
  void finish() {
    auto * const cache = netsnmp_handler_check_cache(world->readable->delegated);
    ASSERT_NE(nullptr, cache);
    cache->requests->delegated = 0;
    world->readable->get(*cache->requests);
    netsnmp_free_delegated_cache(cache);
  }
};

TEST_F(AgentXDelegation, DoesNotKeepOthersWaiting) {
  delegate();
  auto const late = packet;
  EXPECT_THAT(told(get({cell(2, 1)})), ElementsAre(Told{cell(2, 1), text}));
  finish();
  put(Get{"", {{cell(2, 3), false, {}}}}); // in this turn the engine looks
  std::vector<std::uint32_t> answered;
  while (auto const message = answer())
    answered.push_back(message->first.packet);
  EXPECT_THAT(answered, testing::UnorderedElementsAre(late, packet));
}

TEST_F(AgentXDelegation, OfALostSessionAnswersNobody) {
  delegate();
  loseSession();
  openSession();
  finish();
  put(Get{"", {{cell(2, 3), false, {}}}});
  EXPECT_EQ(packet, answer()->first.packet);
  EXPECT_FALSE(answer());
}

TEST_F(AgentXDelegation, RefusesMoreThanAFewHundred) {
  std::vector<netsnmp_delegated_cache *> caches;
  for (std::size_t i = 0; i != mostRequests; ++i) {
    delegate();
    caches.push_back(world->readable->delegated);
  }
  EXPECT_EQ(Error::processingError, get({cell(2, 1)}).error);
  for (auto * cache : caches) {
    world->readable->delegated = cache;
    finish();
  }
  put(Get{"", {{cell(2, 1), false, {}}}}); // in this turn the engine looks
  while (answer()) {
  }
  EXPECT_THAT(told(get({cell(2, 1)})), ElementsAre(Told{cell(2, 1), text}));
}

} // namespace

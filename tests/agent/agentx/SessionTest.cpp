// The session as it should be, and with a master that is not there.
#include "tests/agent/agentx/SessionFixture.h"

namespace Agent::AgentX {

namespace {

using State = SessionStatus::State;
using testing::HasSubstr;

TEST_F(AgentXSession, OpensRegistersAndServes) {
  EXPECT_EQ(State::closed, state());
  session.start();
  EXPECT_EQ(State::connecting, state());
  turn();
  EXPECT_EQ(State::opening, state());
  ASSERT_TRUE(master->accept());
  auto const opening = expect<Open>();
  EXPECT_EQ("tunnelsnmpd", std::get<Open>(opening.second).description);
  EXPECT_EQ(0U, opening.first.session);
  master->answer(opening, number);
  turn();
  EXPECT_EQ(State::registering, state());
  auto const registration = expect<Registration>();
  EXPECT_EQ(number, registration.first.session);
  EXPECT_EQ(tunnels, std::get<Registration>(registration.second).region);
  master->answer(registration, number);
  turn();
  EXPECT_EQ(State::serving, state());
  EXPECT_EQ(number, session.status().session);
  EXPECT_EQ(1U, session.status().sessions);
  EXPECT_EQ("", lastError());
}

TEST_F(AgentXSession, ServesWithoutRegions) {
  session.removeRegion(tunnels);
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, RegistersAndUnregistersWhileItServes) {
  serve();
  session.addRegion(vendor);
  EXPECT_EQ(State::registering, state());
  auto const registration = expect<Registration>();
  EXPECT_EQ(vendor, std::get<Registration>(registration.second).region);
  master->answer(registration, number);
  turn();
  EXPECT_EQ(State::serving, state());
  session.removeRegion(vendor);
  auto const unregistration = expect<Unregistration>();
  EXPECT_EQ(vendor, std::get<Unregistration>(unregistration.second).region);
  session.removeRegion(vendor);
  turn();
  EXPECT_FALSE(master->next());
}

TEST_F(AgentXSession, UnregistersWhatWasRemovedBeforeItWasRegistered) {
  serve();
  session.addRegion(vendor);
  auto const registration = expect<Registration>();
  session.removeRegion(vendor);
  turn();
  EXPECT_FALSE(master->next());
  master->answer(registration, number);
  expect<Unregistration>();
}

TEST_F(AgentXSession, HandsRequestsToItsHostAndAnswersToTheMaster) {
  serve();
  Get const get{"", {{{1, 3}, false, {}}}};
  master->put(request(1), get);
  turn();
  ASSERT_EQ(1U, host.requests.size());
  EXPECT_EQ(Body(get), host.requests[0].second);
  EXPECT_FALSE(master->next()); // it may take its time
  Response const response{0, Error::none, 0, {{{1, 3}, ValueType::noSuchObject, {}}}};
  session.answer(host.requests[0].first, response);
  auto const answer = expect<Response>();
  EXPECT_EQ(1U, answer.first.packet);
  EXPECT_EQ(5U, answer.first.transaction);
  EXPECT_EQ(Body(response), answer.second);
}

TEST_F(AgentXSession, AnswersInTheByteOrderOfTheRequest) {
  serve();
  for (auto const order : {ByteOrder::little, ByteOrder::big}) {
    master->put(request(1, order), CommitSet{});
    turn();
    session.answer(host.requests.back().first, {});
    EXPECT_EQ(order, expect<Response>().first.order);
  }
}

TEST_F(AgentXSession, UnderstandsAMasterOfTheOtherByteOrder) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  auto opening = expect<Open>();
  opening.first.order = ByteOrder::little;
  master->answer(opening, number);
  turn();
  EXPECT_EQ(number, session.status().session);
}

TEST_F(AgentXSession, UnderstandsMessagesThatComeOctetByOctet) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  auto header = expect<Open>().first;
  header.session = number;
  std::string octets;
  encode(octets, header, Response{});
  for (auto const octet : octets) {
    EXPECT_EQ(State::opening, state());
    master->putOctets({octet});
    turn();
  }
  EXPECT_EQ(State::registering, state());
}

TEST_F(AgentXSession, TakesAFewMessagesInATurn) {
  serve();
  for (std::uint32_t packet = 0; packet != 40; ++packet)
    master->put(request(packet), CommitSet{});
  loop.runOnce();
  EXPECT_EQ(messagesInTurn, static_cast<int>(host.requests.size()));
  loop.runOnce();
  EXPECT_EQ(messagesInTurn, static_cast<int>(host.requests.size())); // the rest is not forgotten:
  loop.advance(milliseconds(0));
  loop.advance(milliseconds(0));
  EXPECT_EQ(40U, host.requests.size());
}

// Masters that are not there

TEST_F(AgentXSession, WaitsForAMasterThatIsNotThereYet) {
  master.reset();
  session.start();
  EXPECT_EQ(State::waiting, state());
  EXPECT_THAT(lastError(), HasSubstr("Failed to connect to the agentx master at unix:" + path +
                                     ": No such file or directory"));
  pass(milliseconds(60000));
  EXPECT_EQ(State::waiting, state());
  master.emplace(path);
  comeBack();
}

TEST_F(AgentXSession, TriesTwiceASecondAtMostIfEachConnectionEndsAtOnce) {
  session.start();
  int connections = 0;
  for (int i = 0; i != 1000; ++i) {
    pass(milliseconds(10));
    if (master->accept())
      ++connections;
    master->hangUp();
  }
  EXPECT_GE(connections, 18);
  EXPECT_LE(connections, 24);
}

TEST_F(AgentXSession, WaitsForAMasterThatTakesNoMoreConnections) {
  master.reset();
  master.emplace(path, 0);
  ScriptedMaster & full = *master;
  Session other(loop, MasterAddress(full.address()), host);
  other.start(); // takes the one place
  session.start();
  EXPECT_EQ(State::waiting, state());
  EXPECT_THAT(lastError(), HasSubstr("it takes no more connections"));
  ASSERT_TRUE(full.accept());
  other.close();
  comeBack();
}

TEST_F(AgentXSession, TellsWhyATcpMasterCannotBeReached) {
  std::optional<ScriptedMaster> tcp(std::in_place, 16);
  auto const address = tcp->address();
  tcp.reset();
  Session other(loop, MasterAddress(address), host);
  other.start();
  loop.runReady(milliseconds(1000));
  EXPECT_EQ(State::waiting, other.status().state);
  EXPECT_THAT(other.status().lastError, HasSubstr(address + ": Connection refused"));
}

// What a listener drops whose queue is full: the system sends it again and again, for minutes.
TEST_F(AgentXSession, GivesUpATcpMasterThatDoesNotAnswer) {
  ScriptedMaster tcp(0);
  Session first(loop, MasterAddress(tcp.address()), host);
  first.start();
  loop.runReady(milliseconds(1000));
  ASSERT_EQ(State::opening, first.status().state);
  Session second(loop, MasterAddress(tcp.address()), host);
  second.start();
  EXPECT_EQ(State::connecting, second.status().state);
  EXPECT_FALSE(loop.runReady());
  loop.advance(connectPatience);
  EXPECT_EQ(State::waiting, second.status().state);
  EXPECT_THAT(second.status().lastError, HasSubstr("no answer"));
  second.close();
  EXPECT_EQ(State::closed, second.status().state);
}

TEST_F(AgentXSession, ServesATcpMaster) {
  ScriptedMaster tcp(16);
  Session other(loop, MasterAddress(tcp.address()), host);
  other.start();
  loop.runReady(milliseconds(1000));
  ASSERT_TRUE(tcp.accept());
  loop.runReady(milliseconds(1000));
  auto const message = tcp.next();
  ASSERT_TRUE(message);
  tcp.answer(*message, number);
  loop.runReady(milliseconds(1000));
  EXPECT_EQ(State::serving, other.status().state);
}

} // namespace

} // namespace Agent::AgentX

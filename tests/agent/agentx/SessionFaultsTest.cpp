// The session against a master that is silent, dies, refuses, stops reading or talks nonsense, in
// each of the session's states.
#include "platform/Lumo.h"
#include "tests/agent/agentx/SessionFixture.h"
#include "tests/support/FailingMemory.h"

namespace Agent::AgentX {

namespace {

using State = SessionStatus::State;
using testing::HasSubstr;

// Masters that are silent

TEST_F(AgentXSession, LeavesAMasterThatDoesNotOpenTheSession) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  expect<Open>();
  pass(exchangePatience - milliseconds(10));
  EXPECT_EQ(State::opening, state());
  pass(milliseconds(10));
  EXPECT_THAT(lastError(), HasSubstr("it does not answer"));
  EXPECT_TRUE(master->hasEnded());
  comeBack();
}

TEST_F(AgentXSession, TriesAgainThoughThereWasNoMemoryForATimer) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  expect<Open>();
  {
    FailingMemory const none(0, FailingMemory::Fails::always);
    loop.advance(exchangePatience);
  }
  EXPECT_TRUE(FailingMemory::hasFailed());
  EXPECT_EQ(State::waiting, state());
  pass(lastResortPeriod);
  comeBack();
}

TEST_F(AgentXSession, LeavesAMasterThatDoesNotAnswerARegistration) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  expect<Registration>();
  pass(exchangePatience);
  auto const closing = expect<Close>();
  EXPECT_EQ(CloseReason::timeouts, std::get<Close>(closing.second).reason);
  EXPECT_EQ(1, host.lost);
  comeBack();
}

TEST_F(AgentXSession, PingsAMasterAndLeavesOneThatDoesNotAnswer) {
  serve();
  for (int i = 0; i != 3; ++i) {
    pass(pingPeriod);
    master->answer(expect<Ping>(), number);
    turn();
  }
  EXPECT_EQ(State::serving, state());
  pass(pingPeriod + exchangePatience);
  EXPECT_EQ(1, host.lost);
  EXPECT_EQ(0U, session.status().session);
  comeBack();
  EXPECT_EQ(2U, session.status().sessions);
}

TEST_F(AgentXSession, LeavesAMasterThatStopsWithinAMessage) {
  serve();
  std::string octets;
  encode(octets, request(1), GetNext{"", {{{1, 3}, false, {}}}});
  master->putOctets(octets.substr(0, octets.size() / 2));
  pass(pingPeriod + exchangePatience);
  EXPECT_THAT(lastError(), HasSubstr("it does not answer"));
  EXPECT_TRUE(host.requests.empty());
  comeBack();
}

TEST_F(AgentXSession, LeavesAMasterThatDoesNotRead) {
  serve();
  Response response;
  response.varBinds.assign(2, {{1, 3}, ValueType::octetString, std::string(200000, 'x')});
  int answers = 0;
  for (; answers != 20 && host.lost == 0; ++answers)
    session.answer(request(1), response);
  EXPECT_THAT(lastError(), HasSubstr("it does not read"));
  EXPECT_GE(answers, 5);
  session.answer(request(1), response); // too late, and nothing happens
  comeBack();
}

TEST_F(AgentXSession, SendsTheRestWhenTheMasterReads) {
  serve();
  Response const response{
      0, Error::none, 0, {{{1, 3}, ValueType::octetString, std::string(900000, 'x')}}};
  session.answer(request(1), response);
  session.answer(request(2), response);
  for (std::uint32_t packet : {1, 2}) {
    std::optional<ScriptedMaster::Message> message;
    for (int i = 0; i != 1000 && !message; ++i) {
      turn();
      message = master->next();
    }
    ASSERT_TRUE(message);
    EXPECT_EQ(packet, message->first.packet);
    EXPECT_EQ(Body(response), message->second);
  }
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, AnswersGenErrInPlaceOfWhatIsTooLarge) {
  serve();
  Response response;
  response.varBinds.push_back({{1, 3}, ValueType::octetString, std::string(largestPayload, 'x')});
  session.answer(request(1), response);
  EXPECT_EQ(Error::generic, std::get<Response>(expect<Response>().second).error);
}

// Masters that go

class AgentXSessionLoss : public AgentXSession, public testing::WithParamInterface<State> {
protected:
  void bringTo(State until) {
    session.start();
    turn();
    ASSERT_TRUE(master->accept());
    if (until == State::opening)
      return;
    open();
    if (until == State::registering)
      return;
    registerRegion();
    ASSERT_EQ(until, state());
  }
};

TEST_P(AgentXSessionLoss, IsFollowedByANewSession) {
  bringTo(GetParam());
  auto const wasOpen = GetParam() != State::opening;
  master->hangUp();
  master.reset();
  turn();
  EXPECT_EQ(State::waiting, state());
  EXPECT_NE("", lastError());
  EXPECT_EQ(wasOpen ? 1 : 0, host.lost);
  master.emplace(path);
  comeBack();
}

TEST_P(AgentXSessionLoss, EndsAtOnceWhenItIsClosed) {
  bringTo(GetParam());
  session.close();
  EXPECT_EQ(State::closed, state());
  EXPECT_EQ(0U, loop.timers());
  pass(milliseconds(1000));
  EXPECT_FALSE(master->accept());
  std::optional<ScriptedMaster::Message> last;
  while (auto message = master->next())
    last = std::move(message);
  EXPECT_TRUE(master->hasEnded());
  if (GetParam() != State::opening) {
    ASSERT_TRUE(last);
    EXPECT_EQ(Body(Close{CloseReason::shutdown}), last->second);
  }
}

TEST_P(AgentXSessionLoss, FollowsOctetsThatAreNoMessage) {
  bringTo(GetParam());
  master->putOctets(std::string(headerSize, 'x'));
  turn();
  EXPECT_EQ(State::waiting, state());
  EXPECT_THAT(lastError(), HasSubstr("it sends version 120 of AgentX"));
  comeBack();
}

TEST_P(AgentXSessionLoss, FollowsALengthThatIsTooLarge) {
  bringTo(GetParam());
  std::string octets;
  encode(octets, request(1), CommitSet{});
  octets.replace(16, 4, "\x7f\xff\xff\xfc");
  master->putOctets(octets);
  turn();
  EXPECT_THAT(lastError(), HasSubstr("a message of 2147483644 octets"));
  comeBack();
}

INSTANTIATE_TEST_SUITE_P(InEachState, AgentXSessionLoss,
                         testing::Values(State::opening, State::registering, State::serving),
                         [](auto const & one) { return std::string(stateText(one.param)); });

TEST_F(AgentXSession, ComesBackWhenTheMasterClosesTheSession) {
  serve();
  master->put(request(1), Close{CloseReason::byManager});
  turn();
  EXPECT_THAT(lastError(), HasSubstr("it closes the session: by its manager"));
  comeBack();
}

TEST_F(AgentXSession, ForgetsRequestsOfASessionThatIsLost) {
  serve();
  master->put(request(1), CommitSet{});
  turn();
  master->hangUp();
  turn();
  EXPECT_EQ(1, host.lost);
  comeBack();
  turn();
  EXPECT_FALSE(master->next());
}

TEST_F(AgentXSession, ClosesAtOnceThoughTheMasterDoesNotRead) {
  serve();
  Response const response{
      0, Error::none, 0, {{{1, 3}, ValueType::octetString, std::string(900000, 'x')}}};
  session.answer(request(1), response);
  session.close();
  EXPECT_EQ(State::closed, state());
  EXPECT_EQ(0U, loop.timers());
}

// Masters that refuse

TEST_F(AgentXSession, TriesAgainWhenTheSessionIsRefused) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  master->answer(expect<Open>(), 0, {.error = Error::openFailed, .varBinds = {}});
  turn();
  EXPECT_EQ(State::waiting, state());
  EXPECT_THAT(lastError(), HasSubstr("it refuses the session: openFailed"));
  comeBack();
}

class AgentXRefusal : public AgentXSession, public testing::WithParamInterface<Error> {};

TEST_P(AgentXRefusal, OfARegistrationIsToldAndTriedAgain) {
  session.addRegion(vendor);
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  registerRegion(GetParam());
  registerRegion();
  EXPECT_EQ(State::registering, state());
  auto const & regions = session.status().regions;
  EXPECT_EQ(RegionStatus::State::refused, regions[0].state);
  EXPECT_EQ(GetParam(), regions[0].reason);
  EXPECT_EQ(RegionStatus::State::registered, regions[1].state);
  EXPECT_THAT(lastError(), HasSubstr("refuses 1.3.6.1.2.1.10.131: " + errorText(GetParam())));

  pass(shortestRefusalPause);
  auto const again = expect<Registration>();
  EXPECT_EQ(tunnels, std::get<Registration>(again.second).region);
  master->answer(again, number, {.error = GetParam(), .varBinds = {}});
  turn();
  pass(2 * shortestRefusalPause);
  registerRegion();
  EXPECT_EQ(State::serving, state());
}

INSTANTIATE_TEST_SUITE_P(Of, AgentXRefusal,
                         testing::Values(Error::duplicateRegistration, Error::unsupportedContext,
                                         Error::requestDenied, static_cast<Error>(999)),
                         [](auto const & one) {
                           auto text = errorText(one.param);
                           std::erase(text, ' ');
                           return text;
                         });

TEST_F(AgentXSession, TriesARefusedRegistrationOnceAMinuteInTheEnd) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  int tries = 0;
  for (int second = 0; second != 600; ++second) {
    while (auto const message = master->next()) {
      auto const isRegistration = std::holds_alternative<Registration>(message->second);
      tries += isRegistration ? 1 : 0;
      master->answer(
          *message, number,
          {.error = isRegistration ? Error::duplicateRegistration : Error::none, .varBinds = {}});
    }
    pass(milliseconds(1000));
  }
  EXPECT_GE(tries, 15);
  EXPECT_LE(tries, 22);
}

TEST_F(AgentXSession, BeginsAnewWhenTheMasterHasForgottenTheSession) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  registerRegion(Error::notOpen);
  EXPECT_THAT(lastError(), HasSubstr("it does not know the session"));
  comeBack();
}

// Masters that talk nonsense

TEST_F(AgentXSession, RefusesRequestsOfAnotherSession) {
  serve();
  auto header = request(3);
  header.session = number + 1;
  EXPECT_EQ(Error::notOpen, answerTo(header, Get{}));
  EXPECT_TRUE(host.requests.empty());
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, RefusesRequestsBeforeTheSessionIsOpen) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  auto const opening = expect<Open>();
  EXPECT_EQ(Error::notOpen, answerTo(request(1), Get{}));
  master->answer(opening, number);
  registerRegion();
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, ServesRequestsWhileARegionIsRefused) {
  session.addRegion(vendor);
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  registerRegion();
  registerRegion(Error::duplicateRegistration);
  master->put(request(1), Get{});
  turn();
  EXPECT_EQ(1U, host.requests.size());
}

TEST_F(AgentXSession, RefusesRequestsThatAreMalformed) {
  serve();
  std::string octets;
  encode(octets, request(9), Ping{"a context"}); // a name where a GET has another one
  octets[1] = static_cast<char>(Type::get);
  octets[2] = 0x10;
  master->putOctets(octets);
  auto const [header, body] = expect<Response>();
  EXPECT_EQ(9U, header.packet);
  EXPECT_EQ(Error::parseError, std::get<Response>(body).error);
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, RefusesTypesThatItDoesNotKnow) {
  serve();
  std::string octets;
  encode(octets, request(9), CommitSet{});
  octets[1] = 99;
  master->putOctets(octets);
  EXPECT_EQ(Error::parseError, std::get<Response>(expect<Response>().second).error);
  EXPECT_EQ(State::serving, state());
}

TEST_F(AgentXSession, LeavesAMasterWhoseAnswerIsMalformed) {
  serve();
  std::string octets;
  encode(octets, request(9), Ping{"a context"});
  octets[1] = static_cast<char>(Type::response);
  octets[2] = 0x10;
  master->putOctets(octets);
  turn();
  EXPECT_THAT(lastError(), HasSubstr("it sends a malformed answer"));
  comeBack();
}

TEST_F(AgentXSession, LeavesAMasterThatSpeaksAsASubagent) {
  serve();
  master->put(request(9), Open{0, {}, "another subagent"});
  auto const closing = expect<Close>();
  EXPECT_EQ(CloseReason::protocolError, std::get<Close>(closing.second).reason);
  EXPECT_THAT(lastError(), HasSubstr("it speaks as a subagent does"));
  comeBack();
}

TEST_F(AgentXSession, IgnoresSecondAnswersAndAnswersToNothing) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  auto const opening = expect<Open>();
  master->answer(opening, number);
  master->answer(opening, number + 1);
  registerRegion();
  auto const before = Lumo::counter("agentx-answers-unexpected");
  master->put(request(12345), Response{});
  turn();
  EXPECT_EQ(before + 1, Lumo::counter("agentx-answers-unexpected"));
  EXPECT_EQ(State::serving, state());
  EXPECT_EQ(number, session.status().session);
}

TEST_F(AgentXSession, IgnoresAnswersInAnotherSession) {
  session.start();
  turn();
  ASSERT_TRUE(master->accept());
  open();
  registerRegion(Error::none, number + 1);
  EXPECT_EQ(State::registering, state());
  pass(exchangePatience);
  comeBack();
}

} // namespace

} // namespace Agent::AgentX

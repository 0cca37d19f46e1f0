// A session and its master, turn by turn. Time is the test's own.
#pragma once

#include "agent/agentx/Session.h"
#include "tests/agent/agentx/ScriptedMaster.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestLoop.h"
#include <gmock/gmock.h>

namespace Agent::AgentX {

using std::chrono::milliseconds;

inline constexpr std::uint32_t number = 77; // of the session

class RecordingHost final : public Session::Host {
public:
  void asked(Header const & header, Body body) override {
    requests.emplace_back(header, std::move(body));
  }
  void turnEnded() override { ++turns; }
  void sessionLost() override { ++lost; }

  std::vector<std::pair<Header, Body>> requests;
  int turns = 0;
  int lost = 0;
};

inline Region const tunnels{"", {1, 3, 6, 1, 2, 1, 10, 131}, 127, 0, 0};
inline Region const vendor{"", {1, 3, 6, 1, 4, 1, 32473}, 127, 0, 0};

class AgentXSession : public testing::Test {
protected:
  using State = SessionStatus::State;

  AgentXSession() {
    master.emplace(path);
    session.addRegion(tunnels);
  }

  State state() const { return session.status().state; }
  std::string lastError() const { return session.status().lastError; }
  /// Lets the session do all that it can do without time.
  void turn() {
    do {
      loop.advance(milliseconds(0));
    } while (loop.runReady());
  }
  void pass(milliseconds time) {
    for (; time.count() > 0; time -= milliseconds(10)) {
      loop.advance(milliseconds(10));
      turn();
    }
  }

  /// The next message that the master gets, which must be of that kind.
  template <class Message>
  ScriptedMaster::Message expect() {
    turn();
    auto message = master->next();
    if (!message || !std::holds_alternative<Message>(message->second)) {
      ADD_FAILURE() << "no such message: "
                    << (message ? static_cast<int>(message->second.index()) : -1);
      return {};
    }
    return *std::move(message);
  }
  void open(std::uint32_t as = number) {
    master->answer(expect<Open>(), as);
    turn();
  }
  void registerRegion(Error error = Error::none, std::uint32_t as = number) {
    master->answer(expect<Registration>(), as, {.error = error, .varBinds = {}});
    turn();
  }
  void serve() {
    session.start();
    comeBack();
  }
  /// From the connection on, which comes within the longest pause.
  void comeBack() {
    pass(longestPause);
    ASSERT_TRUE(master->accept());
    open();
    registerRegion();
    ASSERT_EQ(State::serving, state());
  }
  Header request(std::uint32_t packet, ByteOrder order = ByteOrder::big) const {
    return {.order = order, .session = number, .transaction = 5, .packet = packet};
  }
  /// What the master gets as the answer to that message.
  Error answerTo(Header const & header, Body const & body) {
    master->put(header, body);
    auto const [answer, response] = expect<Response>();
    EXPECT_EQ(header.packet, answer.packet);
    EXPECT_EQ(header.order, answer.order);
    return std::get<Response>(response).error;
  }

  TemporaryFolder folder;
  std::string const path = folder.path() / "master";
  TestLoop loop;
  RecordingHost host;
  std::optional<ScriptedMaster> master;
  Session session{loop, MasterAddress("unix:" + path), host};
};

} // namespace Agent::AgentX

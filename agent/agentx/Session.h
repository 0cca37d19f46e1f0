// A session with an AgentX master (RFC 2741): connects, opens, registers, answers, keeps alive, and
// does it all anew when the master goes, for as long as it lives. It never waits for the master: a
// connection that is not accepted, an answer that does not come and a socket that is not read are
// deadlines and buffers, and everything else goes on meanwhile.
//
// States:
//
// | state       | what holds                                          | goes on to            |
// |-------------|-----------------------------------------------------|-----------------------|
// | closed      | nothing is tried: before start() and after close()  | connecting            |
// | waiting     | no connection; a timer runs until the next try      | connecting            |
// | connecting  | the system connects; connectPatience runs           | opening               |
// | opening     | the Open is sent; exchangePatience runs             | registering, serving  |
// | registering | the session is open; some region is not registered; | serving               |
// |             | requests for the others are answered                |                       |
// | serving     | every region is registered                          | registering, when one |
// |             |                                                     | is added              |
//
// From each of the last four a fault leads to waiting, and from all of them close() to closed.
#pragma once

#include "agent/agentx/MasterAddress.h"
#include "agent/agentx/Pdu.h"
#include "agent/agentx/SessionStatus.h"
#include "agent/agentx/Stream.h"
#include "os/Loop.h"
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::AgentX {

/// Between two tries to connect: the pause doubles from the first to the second, and is short
/// again when a session has lasted for a pingPeriod.
inline constexpr std::chrono::milliseconds shortestPause{100};
inline constexpr std::chrono::milliseconds longestPause{500};
/// The same for registrations that were refused. A master may write a line about each.
inline constexpr std::chrono::milliseconds shortestRefusalPause{100};
inline constexpr std::chrono::milliseconds longestRefusalPause{60000};
/// When there was no memory for the timer of a try.
inline constexpr std::chrono::milliseconds lastResortPeriod{2000};
inline constexpr std::chrono::milliseconds connectPatience{3000};
/// For the answer to an Open, a registration or a ping: a master may be busy, or stopped for a
/// while.
inline constexpr std::chrono::milliseconds exchangePatience{10000};
inline constexpr std::chrono::milliseconds pingPeriod{15000};
/// A master that lets more octets wait does not read.
inline constexpr std::size_t mostUnsent = 2 * largestPayload;
/// Messages that are served in one turn of the loop.
inline constexpr int messagesInTurn = 16;

class Session {
public:
  /// Who answers the master.
  class Host {
  public:
    virtual ~Host() = default;
    /// A request: Get, GetNext, GetBulk or one of the four of a SET. Session::answer() is for now
    /// or for later.
    virtual void asked(Header const & header, Body body) = 0;
    /// Some requests were handed over, and for now there are no more.
    virtual void turnEnded() = 0;
    /// What was asked needs no answer any more, and SETs that are under way do not end.
    virtual void sessionLost() = 0;
  };

  /// The host must outlive it. Its calls come from the loop, or from close().
  Session(Os::Loop & loop, MasterAddress address, Host & host);
  Session(Session const &) = delete;
  Session & operator=(Session const &) = delete;
  ~Session();

  void addRegion(Region const & region);
  /// Nothing happens when there is no such region.
  void removeRegion(Region const & region);

  /// Tries to connect from now on, whether there is memory or not. Requires: closed. Raises
  /// std::bad_alloc when there is none at first.
  void start();
  /// Says farewell, if that can be sent at once, and hangs up.
  void close();

  /// Answers a request: once, unless the session was lost meanwhile. A response that is larger than
  /// a message may be goes as a genErr.
  void answer(Header const & request, Response response);

  SessionStatus const & status() const { return status_; }
  std::string const & address() const { return status_.address; }

private:
  /// A message of ours that an answer is due to.
  struct Exchange {
    Type type;
    Region region; // of a registration
    Os::Loop::Handle deadline;
  };
  using State = SessionStatus::State;

  void connect();
  void failToConnect(std::string_view reason);
  void connected();
  void opened(Header const & header, Response const & response);

  void read();
  void work();
  void take(Stream::Message const & message);
  void takeRequest(Header const & header, Body body);
  void takeResponse(Header const & header, Response const & response);
  void refuse(Header const & header, Error error);

  void registerRegions();
  void registered(Region const & region, Error error);
  void tryRefusedLater();
  void tryRefused();
  bool hasRefused() const;
  void lookAtRegions();
  void ping();

  void ask(Type type, Body const & body, Region const & region = {});
  void send();
  void watch();
  template <class Call>
  void guarded(Call call);

  void hangUp(CloseReason reason, std::string_view why);
  template <class Words>
  void lose(Words words);
  void tryWhenStuck();
  void disconnect();
  void stateIs(State state);
  void complain(std::string text);
  RegionStatus * find(Region const & region);
  bool isOpen() const {
    return status_.state == State::registering || status_.state == State::serving;
  }

  Os::Loop & loop_;
  MasterAddress const address_;
  Host & host_;
  SessionStatus status_;
  std::vector<std::string> said_; // complaints since all was well; each is reported once

  std::unique_ptr<Stream> stream_;
  std::uint32_t lastPacket_ = 0;
  std::map<std::uint32_t, Exchange> exchanges_;
  bool inTurn_ = false;
  Os::Loop::Handle reading_;
  Os::Loop::Handle writing_;
  Os::Loop::Handle nextTurn_; // while whole messages wait in the stream
  Os::Loop::Handle timer_;    // of the state: the next try, the end of connecting, the next ping
  std::chrono::milliseconds pause_ = shortestPause;
  Os::Loop::Handle refusalTimer_;
  // Made at the start, for when there is no memory for a timer.
  Os::Loop::Handle lastResort_;
  bool isStuck_ = false;
  std::chrono::milliseconds refusalPause_ = shortestRefusalPause;
};

} // namespace Agent::AgentX

// The session's life in the order of its states, then what arrives, then what is sent.
#include "agent/agentx/Session.h"
#include "agent/Report.h"
#include "platform/zel/Exceptions.h"
#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <utility>

namespace Agent::AgentX {

namespace {

Lumo::Counter sessionsLost("agentx-sessions-lost");
Lumo::Counter registrationsRefused("agentx-registrations-refused");
Lumo::Counter messagesRefused("agentx-messages-refused");
Lumo::Counter answersUnexpected("agentx-answers-unexpected");

constexpr char const * description = "tunnelsnmpd";
/// What a master can have us say before it is well again.
constexpr std::size_t mostComplaints = 16;

/// What became of a connection that the system has made meanwhile.
int errorOf(int descriptor) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

std::string_view reasonText(CloseReason reason) {
  switch (reason) {
  case CloseReason::other:
    return "without a reason";
  case CloseReason::parseError:
    return "parse error";
  case CloseReason::protocolError:
    return "protocol error";
  case CloseReason::timeouts:
    return "too many time-outs";
  case CloseReason::shutdown:
    return "shutdown";
  case CloseReason::byManager:
    return "by its manager";
  }
  return "unknown reason";
}

} // namespace

Session::Session(Os::Loop & loop, MasterAddress address, Host & host)
    : loop_(loop),
      address_(std::move(address)),
      host_(host) {
  status_.address = address_.text();
  status_.since = std::chrono::system_clock::now();
}

Session::~Session() {
  close();
}

void Session::addRegion(Region const & region) {
  status_.regions.push_back({region});
  if (!isOpen())
    return;
  registerRegions();
  lookAtRegions();
  send();
}

void Session::removeRegion(Region const & region) {
  auto * const known = find(region);
  if (known == nullptr)
    return;
  auto const wasRegistered = known->state == RegionStatus::State::registered;
  status_.regions.erase(status_.regions.begin() + (known - status_.regions.data()));
  if (!isOpen())
    return;
  if (wasRegistered)
    ask(Type::unregistration, Unregistration{region}, region);
  lookAtRegions();
  send();
}

void Session::start() {
  lastResort_ = loop_.every(lastResortPeriod, [this] { tryWhenStuck(); });
  pause_ = shortestPause;
  connect();
}

void Session::close() {
  if (isOpen()) {
    ask(Type::close, Close{CloseReason::shutdown});
    try {
      stream_->flush();
    } catch (StreamLost const &) {
      // It has gone first.
    }
  }
  disconnect();
  lastResort_.reset();
  stateIs(State::closed);
}

void Session::answer(Header const & request, Response response) {
  if (!isOpen())
    return;
  if (!stream_->put(request, std::move(response)))
    (void)stream_->put(request, Response{.error = Error::generic, .varBinds = {}}); // it is small
  if (!inTurn_)
    send();
}

void Session::connect() {
  stateIs(State::connecting);
  try {
    stream_ = std::make_unique<Stream>(address_.connect());
    writing_ = loop_.writable(stream_->descriptor(), [this] { connected(); });
    timer_ = loop_.after(connectPatience, [this] { failToConnect("no answer"); });
  } catch (std::exception const & error) {
    failToConnect(error.what());
  }
}

void Session::failToConnect(std::string_view reason) {
  lose([&] {
    return fmt::format("Failed to connect to the agentx master at {}: {}", address(), reason);
  });
}

void Session::connected() {
  if (auto const error = errorOf(stream_->descriptor()); error != 0) {
    failToConnect(std::strerror(error));
    return;
  }
  writing_.reset();
  timer_.reset();
  stateIs(State::opening);
  guarded([this] {
    ask(Type::open, Open{0, {}, description});
    send();
  });
}

void Session::opened(Header const & header, Response const & response) {
  if (response.error != Error::none)
    throw StreamLost(fmt::format("it refuses the session: {}", errorText(response.error)));
  status_.session = header.session;
  ++status_.sessions;
  stateIs(State::registering);
  timer_ = loop_.after(pingPeriod, [this] { ping(); });
  registerRegions();
  lookAtRegions();
}

void Session::read() {
  guarded([this] { stream_->receive(); });
  if (stream_)
    work();
}

// A few messages at a time, so that a master that asks without end takes its place among the
// others.
void Session::work() {
  nextTurn_.reset();
  inTurn_ = true;
  guarded([this] {
    for (int count = 0; count != messagesInTurn && stream_; ++count) {
      auto const message = stream_->next();
      if (!message)
        break;
      take(*message);
    }
  });
  inTurn_ = false;
  host_.turnEnded();
  send();
}

void Session::take(Stream::Message const & message) {
  auto const & header = message.header;
  auto decoded = decodeBody(header, message.payload);
  if (auto const * malformed = std::get_if<Malformed>(&decoded)) {
    if (header.type == Type::response)
      throw StreamLost(fmt::format("it sends a malformed answer: {}", malformed->reason));
    refuse(header, Error::parseError);
    return;
  }
  auto & body = std::get<Body>(decoded);
  if (auto const * response = std::get_if<Response>(&body))
    takeResponse(header, *response);
  else if (auto const * closing = std::get_if<Close>(&body))
    throw StreamLost(fmt::format("it closes the session: {}", reasonText(closing->reason)));
  else if (header.type >= Type::get && header.type <= Type::cleanupSet)
    takeRequest(header, std::move(body));
  else
    hangUp(CloseReason::protocolError, "it speaks as a subagent does");
}

void Session::takeRequest(Header const & header, Body body) {
  if (isOpen() && header.session == status_.session)
    host_.asked(header, std::move(body));
  else
    refuse(header, Error::notOpen);
}

void Session::takeResponse(Header const & header, Response const & response) {
  auto const found = exchanges_.find(header.packet);
  if (found == exchanges_.end() ||
      (found->second.type != Type::open && header.session != status_.session)) {
    answersUnexpected.inc();
    return;
  }
  auto const exchange = std::move(exchanges_.extract(found).mapped());
  if (response.error == Error::notOpen)
    throw StreamLost("it does not know the session");
  if (exchange.type == Type::open)
    opened(header, response);
  else if (exchange.type == Type::registration)
    registered(exchange.region, response.error);
  else if (exchange.type == Type::ping) {
    pause_ = shortestPause;
    timer_ = loop_.after(pingPeriod, [this] { ping(); });
  }
}

// A CleanupSet has no answer (RFC 2741 section 7.2.4.4).
void Session::refuse(Header const & header, Error error) {
  messagesRefused.inc();
  if (header.type != Type::cleanupSet)
    (void)stream_->put(header, Response{.error = error, .varBinds = {}});
}

void Session::registerRegions() {
  for (auto & one : status_.regions)
    if (one.state == RegionStatus::State::unasked) {
      ask(Type::registration, Registration{0, one.region}, one.region);
      one.state = RegionStatus::State::asked;
    }
}

void Session::registered(Region const & region, Error error) {
  auto * const one = find(region);
  if (one == nullptr) { // it was removed meanwhile
    if (error == Error::none)
      ask(Type::unregistration, Unregistration{region}, region);
    return;
  }
  one->state =
      error == Error::none ? RegionStatus::State::registered : RegionStatus::State::refused;
  one->reason = error;
  if (error != Error::none) {
    registrationsRefused.inc();
    complain(fmt::format("the AgentX master at {} refuses {}: {}; trying again", address(),
                         oidText(region.subtree), errorText(error)));
    tryRefusedLater();
  }
  lookAtRegions();
}

void Session::tryRefusedLater() {
  if (refusalTimer_)
    return;
  refusalTimer_ = loop_.after(refusalPause_, [this] {
    refusalTimer_.reset();
    tryRefused();
  });
  refusalPause_ = std::min(2 * refusalPause_, longestRefusalPause);
}

void Session::tryRefused() {
  for (auto & one : status_.regions)
    if (one.state == RegionStatus::State::refused)
      one.state = RegionStatus::State::unasked;
  guarded([this] {
    registerRegions();
    send();
  });
}

bool Session::hasRefused() const {
  return std::ranges::any_of(status_.regions, [](RegionStatus const & one) {
    return one.state == RegionStatus::State::refused;
  });
}

void Session::lookAtRegions() {
  auto const isWhole = std::ranges::all_of(status_.regions, [](RegionStatus const & one) {
    return one.state == RegionStatus::State::registered;
  });
  stateIs(isWhole ? State::serving : State::registering);
  if (!isWhole)
    return;
  refusalPause_ = shortestRefusalPause;
  if (!std::exchange(said_, {}).empty())
    report(fmt::format("the AgentX master at {} is served", address()));
}

void Session::ping() {
  guarded([this] {
    ask(Type::ping, Ping{});
    send();
  });
}

void Session::ask(Type type, Body const & body, Region const & region) {
  auto const packet = ++lastPacket_;
  (void)stream_->put({.session = status_.session, .transaction = packet, .packet = packet}, body);
  if (type == Type::close)
    return;
  exchanges_.insert_or_assign(packet, Exchange{type, region, loop_.after(exchangePatience, [this] {
                                                 hangUp(CloseReason::timeouts,
                                                        "it does not answer");
                                               })});
}

void Session::send() {
  guarded([this] {
    if (!stream_)
      return;
    stream_->flush();
    if (stream_->unsent() > mostUnsent)
      throw StreamLost("it does not read");
  });
  guarded([this] { watch(); });
}

void Session::watch() {
  if (!stream_)
    return;
  if (stream_->hasNext()) {
    reading_.reset();
    nextTurn_ = loop_.after(std::chrono::milliseconds(0), [this] { work(); });
  } else if (!reading_)
    reading_ = loop_.readable(stream_->descriptor(), [this] { read(); });
  if (stream_->unsent() == 0)
    writing_.reset();
  else if (!writing_)
    writing_ = loop_.writable(stream_->descriptor(), [this] { send(); });
}

// Whatever goes wrong here, the session is made anew.
template <class Call>
void Session::guarded(Call call) {
  try {
    call();
  } catch (std::exception const & error) {
    lose([&] { return fmt::format("the AgentX master at {}: {}", address(), error.what()); });
  }
}

void Session::hangUp(CloseReason reason, std::string_view why) {
  if (isOpen()) {
    (void)stream_->put({.session = status_.session, .packet = ++lastPacket_}, Close{reason});
    guarded([this] { stream_->flush(); });
  }
  if (stream_)
    lose([&] { return fmt::format("the AgentX master at {}: {}", address(), why); });
}

// Works without memory, too: nobody else would try again.
template <class Words>
void Session::lose(Words words) {
  sessionsLost.inc();
  auto text = Zel::wordsOf(words);
  disconnect();
  stateIs(State::waiting);
  try {
    timer_ = loop_.after(pause_, [this] { connect(); });
    pause_ = std::min(2 * pause_, longestPause);
    complain(std::move(text));
  } catch (std::exception const &) {
    isStuck_ = !timer_;
  }
}

void Session::tryWhenStuck() {
  if (std::exchange(isStuck_, false) && status_.state == State::waiting && !timer_)
    connect();
  if (isOpen() && !refusalTimer_ && hasRefused())
    tryRefused();
}

void Session::disconnect() {
  auto const wasOpen = isOpen();
  nextTurn_.reset();
  reading_.reset();
  writing_.reset();
  timer_.reset();
  refusalTimer_.reset();
  refusalPause_ = shortestRefusalPause;
  exchanges_.clear();
  stream_.reset();
  status_.session = 0;
  for (auto & one : status_.regions)
    one.state = RegionStatus::State::unasked;
  if (!wasOpen)
    return;
  stateIs(State::closed); // no answers from here on
  host_.sessionLost();
}

void Session::stateIs(State state) {
  if ((state == State::serving) != (status_.state == State::serving))
    status_.since = std::chrono::system_clock::now();
  status_.state = state;
}

void Session::complain(std::string text) {
  auto const isNew = std::ranges::find(said_, text) == said_.end();
  if (isNew && said_.size() < mostComplaints) {
    report(text);
    said_.push_back(text);
  }
  status_.lastError = std::move(text);
}

RegionStatus * Session::find(Region const & region) {
  auto const found = std::ranges::find(status_.regions, region, &RegionStatus::region);
  return found == status_.regions.end() ? nullptr : &*found;
}

} // namespace Agent::AgentX

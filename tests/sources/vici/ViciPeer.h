// A strongSwan as its vici socket shows it, on the loop that the source is on. It answers as a real
// one does, unless the test has it do otherwise.
#pragma once

#include "os/Descriptor.h"
#include "os/Loop.h"
#include "sources/vici/Message.h"
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class ViciPeer {
public:
  /// One connection to it.
  struct Session {
    Os::Descriptor socket;
    Sources::Vici::Segments input = {};
    std::string output = {};
    std::set<std::string> registered = {};
    bool isEnding = false; ///< when all is sent
    Os::Loop::Handle readable = nullptr;
    Os::Loop::Handle writable = nullptr;
  };
  using Packet = Sources::Vici::Packet;
  using PacketType = Sources::Vici::PacketType;

  /// Is not there until it listens.
  ViciPeer(Os::Loop & loop, std::string path) : loop_(loop), path_(std::move(path)) {}
  ViciPeer(ViciPeer const &) = delete;
  ViciPeer & operator=(ViciPeer const &) = delete;

  /// The daemon starts. `backlog` connections may wait to be taken.
  void listen(int backlog = 16);
  /// The daemon ends: its connections are closed, and its socket is gone.
  void end();
  /// From now on nothing is taken or answered, though connections may come; or again it is.
  void stoppedIs(bool stopped);

  // What it has to say: messages of events.
  std::vector<std::string> connections;
  std::map<std::string, std::string> sas; ///< by any name
  std::string version = "5.9.8";
  std::set<std::string> unknown; ///< commands and events that it does not know

  /// Called for each packet. True: the test has answered it.
  std::function<bool(Session &, Packet const &)> instead;
  /// Octets after which every connection is closed, in all.
  std::size_t mostOctets = SIZE_MAX;

  /// Tells those who registered for it.
  void event(std::string_view name, std::string_view message = {});
  /// Sends any octets at all to those who registered for that event.
  void sendTo(std::string_view registered, std::string_view octets);
  void send(Session & session, std::string_view octets);
  void answer(Session & session, Packet const & packet);
  /// Hangs up on those who registered for that event.
  void closeFor(std::string_view registered);

  /// The names of the registrations and requests that it has got, in order.
  std::vector<std::string> heard;
  /// How often security associations were listed.
  int listings = 0;
  int accepted = 0;
  std::size_t octets = 0; ///< sent
  std::size_t sessions() const { return sessions_.size(); }

private:
  void accept();
  void receive(Session & session);
  void flush(Session & session);
  void close(Session & session);
  void list(Session & session, std::string_view event, std::string const & message);

  Os::Loop & loop_;
  std::string const path_;
  Os::Descriptor listener_;
  Os::Loop::Handle acceptable_;
  std::list<Session> sessions_;
  bool isStopped_ = false;
};

// An AgentX master of a few lines, for tests: it does what the test tells it and nothing else.
#pragma once

#include "agent/agentx/Pdu.h"
#include "os/Descriptor.h"
#include <optional>
#include <string>
#include <utility>

/// Nothing here waits: the test lets the subagent's loop turn in between.
class ScriptedMaster {
public:
  using Message = std::pair<Agent::AgentX::Header, Agent::AgentX::Body>;

  /// Listens at the path, with room for so many who wait to be accepted.
  explicit ScriptedMaster(std::string path, int backlog = 16);
  /// Listens on a port of loopback that is free.
  explicit ScriptedMaster(int backlog);
  ScriptedMaster(ScriptedMaster const &) = delete;
  ScriptedMaster & operator=(ScriptedMaster const &) = delete;
  ~ScriptedMaster();

  /// In the notation of the command line.
  std::string address() const;

  /// Takes the next connection in place of the last one. False when nobody has come.
  bool accept();
  /// The next message that has arrived; nothing when there is none. One that is malformed fails the
  /// test.
  std::optional<Message> next();
  /// True if and only if the other side has hung up.
  bool hasEnded();

  void put(Agent::AgentX::Header const & header, Agent::AgentX::Body const & body);
  void putOctets(std::string const & octets);
  /// Answers a message of the subagent's in that session.
  void answer(Message const & message, std::uint32_t session,
              Agent::AgentX::Response const & response = {});
  void hangUp() { connection_ = Os::Descriptor(); }

private:
  void receive();

  std::string const path_;
  Os::Descriptor listener_;
  Os::Descriptor connection_;
  std::string arrived_;
  bool ended_ = false;
};

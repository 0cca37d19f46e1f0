// A network namespace of the test's own, real links in it, and a linux source that watches them.
//
// The kernel announces a change before the command that makes it ends, so a test need not wait.
#pragma once

#include "platform/Lumo.h"
#include "sources/linux/LinuxSource.h"
#include "tests/sources/SourceHost.h"
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>

/// Puts the process into a new, empty network namespace. Says why not where none may be made, and
/// nothing otherwise.
std::string enterNewNetwork();
/// Runs the ip command; a failure is the test's.
void ip(std::string const & arguments);
/// Runs several, one a line, as fast as possible.
void ipBatch(std::string const & lines);
/// True if and only if the command succeeded.
bool ipSucceeds(std::string const & arguments);
/// The link's index as text; fails the test when there is no such link.
std::string idOf(std::string const & link);

/// Each test begins in a new, empty namespace; it is skipped where none may be made.
class KernelLinks : public testing::Test, protected SourceHost {
protected:
  void SetUp() override;

  /// Makes the source and starts it.
  void start(std::string_view options = "kinds=+vxlan",
             int receiveBuffer = Sources::LinuxSource::defaultReceiveBuffer);
  /// Lets the time of the next regular full read come, and the read be made.
  void passFullReadPeriod() {
    loop.advance(Sources::LinuxSource::fullReadPeriod);
    settle();
  }
  void reread() {
    source->reread();
    settle();
  }

  /// What is published under that id: the status, null when there is none.
  nlohmann::json status(std::string const & id) const {
    return at("/tunnelIntfStatusDir/intfStatus/" + id);
  }
  nlohmann::json ifIndex(std::string const & id) const {
    return at("/ifMib/ifIndexByIntfId/" + id);
  }
  /// The very object that is published.
  Zel::Ptr<Interface::TunnelIntfStatus> record(std::string const & id) const;
  /// True if and only if neither a status nor an ifIndex is published under that id.
  bool isGone(std::string const & id) const {
    return status(id).is_null() && ifIndex(id).is_null();
  }

  std::unique_ptr<Sources::Source> source;
};

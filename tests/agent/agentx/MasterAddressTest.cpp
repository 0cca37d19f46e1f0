// The notation of a master's address.
#include "agent/agentx/MasterAddress.h"
#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using Agent::AgentX::MasterAddress;

TEST(AgentXMasterAddress, TakesWhatNetSnmpTakes) {
  for (auto const * text :
       {"unix:/run/master", "/run/master", "UNIX:master", "master", "tcp:localhost:705",
        "tcp:127.0.0.1:705", "TCP:127.0.0.1", "tcp:705", "127.0.0.1:705", "localhost:705",
        "tcp6:[::1]:705", "tcp:[::1]:705", "tcp6:::1", "tcpv6:[::1]", "tcpipv6:[::1]:705"})
    EXPECT_EQ(text, MasterAddress(text).text());
}

TEST(AgentXMasterAddress, RefusesWhatItWouldHaveToLookUpOrCannotBe) {
  for (auto const * text :
       {"", "unix:", "tcp:", "tcp:master.example:705", "tcp:127.0.0.1:0", "tcp:127.0.0.1:65536",
        "tcp:127.0.0.1:", "tcp:127.0.0.1,705", "tcp:[::1", "tcp6:[]:705", "tcp:1.2.3.4.5:705"})
    EXPECT_THROW(MasterAddress{text}, std::invalid_argument) << text;
  EXPECT_THROW(MasterAddress(std::string(200, '/')), std::invalid_argument);
}

} // namespace

// Sources by the text that names them.
#include "sources/Registry.h"
#include "tests/sources/SourceHost.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

class MakeSource : public testing::Test, protected SourceHost {
protected:
  std::unique_ptr<Sources::Source> make(std::string_view text) {
    return Sources::makeSource(text, surroundings());
  }
};

TEST_F(MakeSource, NamesSourcesAsTheyWereAskedFor) {
  EXPECT_EQ(make("json:/etc/tunnels.json")->name(), "json:/etc/tunnels.json");
  EXPECT_EQ(make("json:tunnels:1.json")->name(), "json:tunnels:1.json");
  EXPECT_EQ(make("linux")->name(), "linux");
  for (auto const * text : {"vici", "vici:/run/a:b", "vici,bind=office@gre1",
                            "vici:/run/x,bind=office/gre@gre1,bind=office/x@gre2"})
    EXPECT_EQ(make(text)->name(), text);
}

TEST_F(MakeSource, OpensNothing) {
  for (auto const * text : {"json:/no/such/file", "vici:/no/such/socket"})
    EXPECT_EQ(make(text)->status().state, Sources::SourceStatus::State::stopped);
}

TEST_F(MakeSource, SaysWhatIsPossibleWhenItKnowsNoSuchSource) {
  for (auto const * text :
       {"", "json", "json:", "json:/etc/", "xml:/etc/tunnels", "linuxes", "vicious"}) {
    try {
      make(text);
      ADD_FAILURE() << text;
    } catch (std::invalid_argument const & error) {
      EXPECT_EQ(error.what(),
                "\"" + std::string(text) +
                    "\" is no source; use json:FILE, linux, linux:kinds=..., "
                    "linux:ipsec=states, vici, or vici:SOCKET, like json:/etc/tunnels.json");
    }
  }
}

} // namespace

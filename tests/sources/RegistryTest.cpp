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
}

TEST_F(MakeSource, OpensNothing) {
  EXPECT_EQ(make("json:/no/such/file")->status().state, Sources::SourceStatus::State::stopped);
}

TEST_F(MakeSource, SaysWhatIsPossibleWhenItKnowsNoSuchSource) {
  for (auto const * text : {"", "json", "json:", "json:/etc/", "xml:/etc/tunnels", "linuxes"}) {
    try {
      make(text);
      ADD_FAILURE() << text;
    } catch (std::invalid_argument const & error) {
      EXPECT_EQ(error.what(), "\"" + std::string(text) +
                                  "\" is no source; use json:FILE, linux, or linux:kinds=..., like "
                                  "json:/etc/tunnels.json");
    }
  }
}

} // namespace

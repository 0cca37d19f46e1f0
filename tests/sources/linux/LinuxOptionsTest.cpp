// What may follow "linux:".
#include "sources/linux/LinuxOptions.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Sources::Linux {
namespace {

using testing::HasSubstr;

std::string errorOf(std::string_view text) {
  try {
    linuxOptionsFromText(text);
  } catch (std::invalid_argument const & error) {
    return error.what();
  }
  return "accepted";
}

TEST(LinuxOptions, HaveTheUsualKindsAndNoStatesWhenNothingIsSaid) {
  auto const options = linuxOptionsFromText("");
  EXPECT_TRUE(options.kinds.has(TunnelKind::gre));
  EXPECT_FALSE(options.kinds.has(TunnelKind::vxlan));
  EXPECT_FALSE(options.hasStates);
}

TEST(LinuxOptions, MayBeOneOrBothInAnyOrder) {
  EXPECT_TRUE(linuxOptionsFromText("ipsec=states").hasStates);
  EXPECT_TRUE(linuxOptionsFromText("ipsec=states").kinds.has(TunnelKind::gre));
  for (auto const * text : {"kinds=+vxlan,-vti,ipsec=states", "ipsec=states,kinds=+vxlan,-vti"}) {
    auto const options = linuxOptionsFromText(text);
    EXPECT_TRUE(options.hasStates) << text;
    EXPECT_TRUE(options.kinds.has(TunnelKind::vxlan)) << text;
    EXPECT_FALSE(options.kinds.has(TunnelKind::vti)) << text;
  }
  EXPECT_FALSE(linuxOptionsFromText("kinds=+vxlan").hasStates);
}

TEST(LinuxOptions, SayWhatIsPossibleInsteadOfWhatTheyDoNotKnow) {
  EXPECT_EQ(errorOf("ipsec=yes"), "source linux: unknown option \"ipsec=yes\": write ipsec=states");
  EXPECT_THAT(errorOf("states"), HasSubstr("write ipsec=states, or kinds="));
  EXPECT_THAT(errorOf("kinds=+vxlan,other=1"), HasSubstr("unknown option \"other=1\""));
  EXPECT_THAT(errorOf("ipsec=states,+vxlan"), HasSubstr("\"ipsec=states,+vxlan\""));
  EXPECT_THAT(errorOf("kinds=+vxlan,,ipsec=states"), HasSubstr("\"\""));
  EXPECT_EQ(errorOf("kinds=+vxlan,kinds=-vti"),
            "source linux: \"kinds\" is given twice: write it once");
  EXPECT_EQ(errorOf("ipsec=states,ipsec=states"),
            "source linux: \"ipsec\" is given twice: write it once");
}

} // namespace
} // namespace Sources::Linux

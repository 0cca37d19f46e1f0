// The names of the kinds and the option that chooses among them.
#include "sources/linux/TunnelKind.h"
#include <gmock/gmock.h>
#include <stdexcept>

namespace {

using Sources::Linux::TunnelKind;
using Sources::Linux::TunnelKindSet;
using testing::AllOf;
using testing::HasSubstr;

std::string errorOf(std::string_view options) {
  try {
    TunnelKindSet::fromOptions(options);
  } catch (std::invalid_argument const & error) {
    return error.what();
  }
  return "accepted";
}

TEST(TunnelKind, HasTheKernelsNameAndIsFoundByIt) {
  EXPECT_EQ(kindName(TunnelKind::gre), "gre");
  EXPECT_EQ(kindName(TunnelKind::xfrm), "xfrm");
  EXPECT_EQ(kindName(TunnelKind::wireguard), "wireguard");
  for (std::size_t i = 0; i != Sources::Linux::tunnelKinds; ++i) {
    auto const kind = static_cast<TunnelKind>(i);
    EXPECT_EQ(Sources::Linux::tunnelKindFromName(kindName(kind)), kind);
  }
  EXPECT_EQ(Sources::Linux::tunnelKindFromName("bridge"), std::nullopt);
  EXPECT_EQ(Sources::Linux::tunnelKindFromName(""), std::nullopt);
}

TEST(TunnelKindSet, HoldsTheKindsThatCarryIpUnlessToldOtherwise) {
  auto const kinds = TunnelKindSet::fromOptions("");
  for (auto const kind : {TunnelKind::gre, TunnelKind::ip6gre, TunnelKind::ipip, TunnelKind::sit,
                          TunnelKind::ip6tnl, TunnelKind::vti, TunnelKind::vti6, TunnelKind::xfrm})
    EXPECT_TRUE(kinds.has(kind)) << kindName(kind);
  for (auto const kind :
       {TunnelKind::gretap, TunnelKind::ip6gretap, TunnelKind::erspan, TunnelKind::ip6erspan,
        TunnelKind::vxlan, TunnelKind::geneve, TunnelKind::wireguard})
    EXPECT_FALSE(kinds.has(kind)) << kindName(kind);
}

TEST(TunnelKindSet, TakesKindsInAndOut) {
  auto const kinds = TunnelKindSet::fromOptions("kinds=+vxlan,+gretap,-vti");
  EXPECT_TRUE(kinds.has(TunnelKind::vxlan));
  EXPECT_TRUE(kinds.has(TunnelKind::gretap));
  EXPECT_FALSE(kinds.has(TunnelKind::vti));
  EXPECT_TRUE(kinds.has(TunnelKind::vti6));
  EXPECT_FALSE(kinds.has(TunnelKind::geneve));
}

TEST(TunnelKindSet, RefusesAnUnknownKindAndListsTheKnownOnes) {
  EXPECT_THAT(errorOf("kinds=+bridge"),
              AllOf(HasSubstr("\"+bridge\""),
                    HasSubstr("gre ip6gre ipip sit ip6tnl vti vti6 xfrm gretap ip6gretap erspan "
                              "ip6erspan vxlan geneve wireguard")));
}

TEST(TunnelKindSet, RefusesAChoiceWithoutSignOrKind) {
  EXPECT_THAT(errorOf("kinds=vxlan"), HasSubstr("\"vxlan\""));
  EXPECT_THAT(errorOf("kinds=+"), HasSubstr("\"+\""));
  EXPECT_THAT(errorOf("kinds="), HasSubstr("\"\""));
  EXPECT_THAT(errorOf("kinds=+vxlan,"), HasSubstr("\"\""));
  EXPECT_THAT(errorOf("kinds=+vxlan, +gretap"), HasSubstr("\" +gretap\""));
}

TEST(TunnelKindSet, RefusesAnotherOption) {
  EXPECT_THAT(errorOf("kind=+vxlan"), HasSubstr("unknown option \"kind=+vxlan\""));
}

} // namespace

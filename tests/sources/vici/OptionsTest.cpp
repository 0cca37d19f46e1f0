// What follows "vici" on the command line.
#include "sources/vici/Options.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace {

using Sources::Vici::Options;

std::string fault(std::string const & text) {
  try {
    Options::fromText(text);
    return "";
  } catch (std::invalid_argument const & error) {
    return error.what();
  }
}

TEST(ViciOptions, HaveStrongSwansOwnSocketWhereNoneIsNamed) {
  EXPECT_EQ(Options::fromText(""), (Options{"/run/charon.vici", {}}));
  EXPECT_EQ(Options::fromText(",bind=a@b"), (Options{"/run/charon.vici", {{"a", "", "b"}}}));
  EXPECT_EQ(Options::fromText(":bind=a@b"), (Options{"/run/charon.vici", {{"a", "", "b"}}}));
}

TEST(ViciOptions, NameASocketAndBindings) {
  EXPECT_EQ(Options::fromText(":/run/a:b"), (Options{"/run/a:b", {}}));
  EXPECT_EQ(Options::fromText(":/run/x,bind=a@b,bind=a/k@c,bind=a/k@d"),
            (Options{"/run/x", {{"a", "", "b"}, {"a", "k", "c"}, {"a", "k", "d"}}}));
}

TEST(ViciOptions, SayWhatIsWrong) {
  EXPECT_EQ(fault(":"), "source vici: the path of the socket is empty");
  EXPECT_EQ(fault(":,bind=a@b"), "source vici: the path of the socket is empty");
  EXPECT_EQ(fault(":" + std::string(107, 'x')), "");
  EXPECT_EQ(fault(":" + std::string(108, 'x')),
            "source vici: the path of the socket is longer than 107 characters");
  for (auto const * option : {"", "wind=a@b", "/run/other", "bind"})
    for (auto const * before : {",", ":/run/x,", ":bind=a@b,"})
      EXPECT_EQ(fault(std::string(before) + option),
                "source vici: \"" + std::string(option) +
                    "\" is no option; use bind=CONNECTION[/CHILD]@INTERFACE");
  EXPECT_EQ(fault(":wind=a@b"),
            "source vici: \"wind=a@b\" is no option; use bind=CONNECTION[/CHILD]@INTERFACE");
  EXPECT_EQ(fault(":bind=a@b,bind=a/k@b,bind=a@b"), "source vici: \"bind=a@b\" stands there twice");
  EXPECT_EQ(fault(":bind=a@"), "\"bind=a@\": write bind=CONNECTION[/CHILD]@INTERFACE");
  EXPECT_EQ(fault("x"), "source vici: \"x\" where ':' or ',' should stand");
}

} // namespace

// What every source must do, with vxlan links for tunnels.
#include "tests/sources/TunnelWorld.h"
#include "tests/sources/linux/KernelLinks.h"
#include <fmt/format.h>
#include <map>

namespace {

class LinksWorld : public TunnelWorld {
public:
  std::unique_ptr<Sources::Source> makeSource(Sources::Surroundings const & surroundings) override {
    return Sources::makeLinuxSource("kinds=+vxlan", surroundings);
  }
  void thingIs(int number, int hopLimit) override {
    auto const values = fmt::format("up type vxlan id {} ttl {}", number, hopLimit);
    if (ids_.contains(number))
      ip(fmt::format("link set vx{} {}", number, values));
    else
      ip(fmt::format("link add vx{} {} remote 10.0.0.2 dstport 4789", number, values));
    ids_[number] = idOf(fmt::format("vx{}", number));
  }
  void thingDel(int number) override { ip(fmt::format("link del vx{}", number)); }
  std::string whyNot() const override { return whyNot_; }

private:
  std::string intfId(int number) const override { return ids_.at(number); }

  std::string const whyNot_ = enterNewNetwork();
  std::map<int, std::string> ids_;
};

std::unique_ptr<SourceWorld> makeWorld() {
  return std::make_unique<LinksWorld>();
}

INSTANTIATE_TEST_SUITE_P(Linux, SourceContract, testing::Values(SourceKind{"linux", makeWorld}));

} // namespace

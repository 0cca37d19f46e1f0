// The child machines of a machine: those that are held longer than it, and what the loss of their
// input does, keys that came or went unheard included.
#include "tests/machines/EachMachine.h"
#include "tests/support/TraceRecorder.h"
#include <gmock/gmock.h>

namespace TunnelIntfSnmp {
namespace {

using Plexa::IntfId;
using ::testing::IsEmpty;

TYPED_TEST_SUITE(EachMachine, Machines);

// Children that outlive their machine

TYPED_TEST(EachMachine, HasChildrenThatMayBeHeldLongerThanItself) {
  for (auto const & mode : runModes) {
    World world(mode, testSeed());
    for (std::uint32_t id = 1; id <= 3; ++id)
      addEverywhere(world, id);
    auto machine = make<TypeParam>(world);
    world.scheduler->runOne();
    std::vector<Zel::Ptr<InputSm>> const children{machine->intfStatusSm0(),
                                                  this->ifIndexChild(*machine)};
    machine = nullptr;
    auto const rows = rowsOf<TypeParam>(world);
    TraceRecorder traces{{std::string(TypeParam::unitName), "all"}};
    addEverywhere(world, 4);
    (*world.dir->intfStatus().find(IntfId(2)))->ipsecIs(false);
    (*world.dir->intfStatus().find(IntfId(2)))->modeIs(Plexa::TunnelIntfMode::vti);
    world.dir->intfStatusDel(IntfId(1));
    for (auto const & child : children) {
      child->hasNotificationActiveIs(false);
      world.addIfIndex(5, 5);
      child->hasNotificationActiveIs(true);
      child->zelDoZombieReactors(true);
      child->doInputScan();
      child->doDeleteAll();
      child->doInitializeTask();
      EXPECT_FALSE(child->synchronous());
      EXPECT_FALSE(child->initialScanDone());
      EXPECT_GT(child->inputSize(), 0u);
    }
    world.settle();
    EXPECT_THAT(traces.lines(), IsEmpty()) << mode.name;
    EXPECT_EQ(rowsOf<TypeParam>(world), rows) << mode.name;
  }
}

template <class Child>
void expectAHeldChildDoesNothing(World & world, Zel::Ptr<Child> const & child) {
  ASSERT_TRUE(child);
  TraceRecorder traces{{"TunnelInetConfigTableSm", "all"}, {"IpsecTunnelIfTableSm", "all"}};
  child->doInputScan();
  child->doDeleteAll();
  child->hasNotificationActiveIs(false);
  (*world.dir->intfStatus().find(IntfId(1)))->ipsecIs(false);
  (*world.dir->intfStatus().find(IntfId(1)))->modeIs(Plexa::TunnelIntfMode::vti);
  child->hasNotificationActiveIs(true);
  child->zelDoZombieReactors(true);
  EXPECT_THAT(traces.lines(), IsEmpty());
}

TEST(StatusChild, MayBeHeldLongerThanItsMachine) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto inetConfig = make<TunnelInetConfigTableSm>(world);
  auto ipsec = make<IpsecTunnelIfTableSm>(world);
  auto const inetConfigChild = inetConfig->intfStatusSm0()->childSm(IntfId(1));
  auto const ipsecChild = ipsec->intfStatusSm0()->childSm(IntfId(1));
  inetConfig = nullptr;
  ipsec = nullptr;
  expectAHeldChildDoesNothing(world, inetConfigChild);
  expectAHeldChildDoesNothing(world, ipsecChild);
}

// The loss of an input

TYPED_TEST(EachMachine, TracesItsLossUnderTheNamesOfItsChildren) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto const machine = make<TypeParam>(world);
  TraceRecorder traces{{std::string(TypeParam::unitName), "9"}};
  machine->intfStatusSm0()->doDeleteAll();
  std::vector<std::string> objects;
  for (auto const & line : traces.lines())
    if (line.function == "doDeleteAll") {
      EXPECT_EQ(line.text, "");
      objects.push_back(line.object);
    }
  std::vector<std::string> expected{"IntfStatusSm0"};
  if constexpr (std::is_same_v<TypeParam, TunnelInetConfigTableSm>)
    expected.emplace_back("SrcAddrMAdstAddrMAmodeSm1");
  if constexpr (std::is_same_v<TypeParam, IpsecTunnelIfTableSm>)
    expected.emplace_back("IpsecSm1");
  EXPECT_EQ(objects, expected);
}

TEST(LossDeathTest, OfTheStatusesIsFatalToTheInetConfigMachineThatMissedOne) {
  World world(synchronous);
  auto const machine = make<TunnelInetConfigTableSm>(world);
  machine->hasNotificationActiveIs(false);
  world.addStatus(1);
  EXPECT_DEATH(machine->intfStatusSm0()->doDeleteAll(),
               "We missed notifications that happened to intfStatus before the enclosing entity "
               "got deleted");
}

TEST(Loss, OfTheStatusesMayFindTheIpsecMachineBehind) {
  World world(synchronous);
  addEverywhere(world, 1);
  auto const machine = make<IpsecTunnelIfTableSm>(world);
  machine->hasNotificationActiveIs(false);
  world.dir->intfStatusDel(IntfId(1));
  machine->intfStatusSm0()->doDeleteAll();
  EXPECT_EQ(rowsOf<IpsecTunnelIfTableSm>(world), 0u) << "the child was what it had heard of";
}

// The stamp is noted before the event is emitted, whatever the event does.
TEST(Loss, MayComeBehindAnEventThatRaised) {
  World world(synchronous);
  world.addTunnel(1, 10);
  auto const machine = make<TunnelIfTableSm>(world);
  EXPECT_THROW(world.ifMib->ifIndexByIntfIdDel(IntfId(1)), Zel::BadOptionalAccess);
  machine->ifIndexByIntfIdSm1()->doDeleteAll();
}

TEST(Loss, MayComeBehindAScanThatFoundNothingLeft) {
  World world(synchronous);
  world.addIfIndex(1, 10);
  world.ifMib->ifIndexByIntfIdDel(IntfId(1));
  world.addStatus(1);
  world.dir->intfStatusDel(IntfId(1));
  make<TunnelIfTableSm>(world)->doDeleteAll();
}

TEST(Loss, MayComeWhileAScanHasYieldedThoughAKeyWentUnheard) {
  World world(alwaysYield);
  for (std::uint32_t id = 1; id <= 6; ++id)
    world.addTunnel(id, id);
  auto const machine = make<TunnelIfTableSm>(world);
  auto const child = machine->intfStatusSm0();
  while (!machine->inputSmScanState()->scan(0) || !machine->initialScanDone() ||
         child->scanState() != InputSm::ScanState::yielded)
    ASSERT_TRUE(world.scheduler->runOne());
  world.mib->tunnelIfTableDelAll(); // so that the next key of the scan writes a row
  auto meddled = false;
  auto const listener = Zel::makePtr<OnChange>(*world.mib, [&](auto const &) {
    meddled = true;
    machine->hasNotificationActiveIs(false);
    world.dir->intfStatusDel(IntfId(1));
  });
  ASSERT_TRUE(world.scheduler->runOne());
  ASSERT_TRUE(meddled);
  ASSERT_EQ(child->scanState(), InputSm::ScanState::yielded);
  child->doDeleteAll();
}

} // namespace
} // namespace TunnelIntfSnmp

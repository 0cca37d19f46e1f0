// Counted objects, pointers, notification and the generic interface.
#include "platform/Lumo.h"
#include "platform/Zel.h"
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Zel::Attribute const colour{"colour", "U32"};
Zel::Attribute const byKey{"byKey", "Zel::HashMap2018"};

class Thing : public Zel::PtrInterface {
public:
  explicit Thing(int * destroyed = nullptr) : destroyed_(destroyed) {
    hasNotificationActiveIs(true);
  }
  ~Thing() override {
    if (destroyed_ != nullptr)
      ++*destroyed_;
    notify(colour);
  }
  void change() { notify(colour); }
  void changeKey(std::uint32_t key) { notify(byKey, key); }
  void changeContained() { tell(colour); }
  void changeKeyContained(std::uint32_t key) { tell(byKey, key); }

private:
  int * const destroyed_;
};

class Listener : public Zel::Notifiee {
public:
  using Call = std::function<void(Zel::Notification const &)>;
  Listener(Zel::PtrInterface const & object, Call call) : call_(std::move(call)) {
    notifierIs(&object);
  }
  void onNotification(Zel::Notification const & notification) override { call_(notification); }

private:
  Call call_;
};

// Pointers; the same in both modes of counting

class Counting : public testing::TestWithParam<bool> {
protected:
  Counting() { Zel::threadSafePtrsIs(GetParam()); }
  ~Counting() override { Zel::threadSafePtrsIs(false); }
};
INSTANTIATE_TEST_SUITE_P(Modes, Counting, testing::Bool(), [](auto const & mode) {
  return mode.param ? std::string("Atomic") : std::string("Plain");
});

TEST_P(Counting, KeepsAnObjectForAsLongAsAPointerRefersToIt) {
  int destroyed = 0;
  auto first = Zel::makePtr<Thing>(&destroyed);
  auto second = first;
  Zel::Ptr<Thing const> third(first);
  first = nullptr;
  second = nullptr;
  EXPECT_EQ(destroyed, 0);
  third = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST_P(Counting, SurvivesAssignmentToItselfAndFromWhatItHolds) {
  int destroyed = 0;
  auto pointer = Zel::makePtr<Thing>(&destroyed);
  pointer = *&pointer;
  EXPECT_EQ(destroyed, 0);
  auto moved = std::move(pointer);
  EXPECT_EQ(pointer, nullptr);
  moved = std::move(moved);
  EXPECT_EQ(destroyed, 0);
}

TEST_P(Counting, LetsAnObjectNotifyFromItsDestructor) {
  int destroyed = 0;
  int heard = 0;
  auto thing = Zel::makePtr<Thing>(&destroyed);
  auto const listener = Zel::makePtr<Listener>(*thing, [&](auto const & change) {
    ++heard;
    Zel::Ptr<Zel::PtrInterface const> const again(&change.source());
  });
  thing = nullptr;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(listener->notifier(), nullptr);
}

TEST_P(Counting, LetsAnObjectReferToItselfWhileItIsConstructed) {
  struct Selfish : Zel::PtrInterface {
    Selfish() { Zel::Ptr<Selfish> const self(this); }
  };
  EXPECT_NE(Zel::makePtr<Selfish>(), nullptr);
}

TEST(AtomicCounting, LosesNoCountToOtherThreads) {
  Zel::threadSafePtrsIs(true);
  int destroyed = 0;
  auto shared = Zel::makePtr<Thing>(&destroyed);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i != 4; ++i)
      threads.emplace_back([copy = shared] {
        for (int round = 0; round != 20000; ++round) {
          auto const another = copy;
          EXPECT_NE(another, nullptr);
        }
      });
    shared = nullptr;
  }
  EXPECT_EQ(destroyed, 1);
  Zel::threadSafePtrsIs(false);
}

TEST(PointerDeathTest, DiesOfDereferencingNull) {
  Zel::Ptr<Thing> const null;
  EXPECT_DEATH(null->change(), "fatal: object: null Zel::Ptr dereferenced \\(type .*Thing");
  EXPECT_DEATH((*null).change(), "null Zel::Ptr dereferenced");
}

TEST(OptionalValue, RaisesWhenItHasNothing) {
  Zel::Optional<int> const nothing;
  EXPECT_THROW(*nothing, Zel::BadOptionalAccess);
  EXPECT_EQ(*Zel::Optional<int>(3), 3);
  EXPECT_FALSE(nothing);
  EXPECT_EQ(nothing, std::nullopt);
}

// Notification

TEST(Notification, TellsEachNotifieeInTheOrderInWhichTheyCame) {
  auto const thing = Zel::makePtr<Thing>();
  std::vector<int> order;
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) { order.push_back(1); });
  auto const second = Zel::makePtr<Listener>(*thing, [&](auto const &) { order.push_back(2); });
  thing->change();
  EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(Notification, CarriesTheObjectTheAttributeAndTheKey) {
  auto const thing = Zel::makePtr<Thing>();
  auto const listener = Zel::makePtr<Listener>(*thing, [&](Zel::Notification const & change) {
    EXPECT_EQ(&change.source(), thing.get());
    EXPECT_EQ(&change.attribute(), &byKey);
    EXPECT_NE(&change.attribute(), &colour);
    EXPECT_EQ(change.key<std::uint32_t>(), 7u);
  });
  thing->changeKey(7);
}

TEST(NotificationDeathTest, DiesOfAWrongKeyType) {
  auto const thing = Zel::makePtr<Thing>();
  auto const listener = Zel::makePtr<Listener>(
      *thing, [&](Zel::Notification const & change) { change.key<std::string>(); });
  EXPECT_DEATH(thing->changeKey(7), "notified key is a .*, not a ");
  EXPECT_DEATH(thing->change(), "notified key is a ");
}

TEST(Notification, IsSilentWhileItIsSwitchedOff) {
  auto const thing = Zel::makePtr<Thing>();
  int heard = 0;
  auto const listener = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  thing->hasNotificationActiveIs(false);
  thing->change();
  thing->hasNotificationActiveIs(true);
  EXPECT_EQ(heard, 0);
}

TEST(Notification, PassesOverANotifieeThatLeftMeanwhile) {
  auto const thing = Zel::makePtr<Thing>();
  int heard = 0;
  Zel::Ptr<Listener> second;
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) { second = nullptr; });
  second = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  auto const third = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  thing->change();
  EXPECT_EQ(heard, 1);
}

TEST(Notification, PassesOverTheLastNotifieesWhoLeftMeanwhileAndOverNewcomers) {
  auto const thing = Zel::makePtr<Thing>();
  int heard = 0;
  auto const count = [&](auto const &) { ++heard; };
  Zel::Ptr<Listener> last, newcomer;
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) {
    last = nullptr;
    newcomer = Zel::makePtr<Listener>(*thing, count);
  });
  auto const second = Zel::makePtr<Listener>(*thing, count);
  last = Zel::makePtr<Listener>(*thing, count);
  thing->change();
  EXPECT_EQ(heard, 1) << "the second alone";
}

TEST(Notification, PassesOverANotifieeThatLeftInsideAnotherObjectsNotification) {
  auto const thing = Zel::makePtr<Thing>();
  auto const other = Zel::makePtr<Thing>();
  int heard = 0;
  Zel::Ptr<Listener> second;
  auto const ofOther = Zel::makePtr<Listener>(*other, [&](auto const &) { second = nullptr; });
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) { other->change(); });
  second = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  thing->change();
  EXPECT_EQ(heard, 0);
}

TEST(Notification, LetsANotifieeReleaseItself) {
  auto const thing = Zel::makePtr<Thing>();
  Zel::Ptr<Listener> self;
  int heard = 0;
  self = Zel::makePtr<Listener>(*thing, [&](auto const &) {
    self = nullptr;
    ++heard;
  });
  auto const other = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  thing->change();
  thing->change();
  EXPECT_EQ(heard, 3);
}

TEST(Notification, TellsANewcomerTheNextChangeNotThisOne) {
  auto const thing = Zel::makePtr<Thing>();
  std::vector<Zel::Ptr<Listener>> newcomers;
  int heard = 0;
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) {
    newcomers.push_back(Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; }));
  });
  thing->change();
  EXPECT_EQ(heard, 0);
  thing->change();
  EXPECT_EQ(heard, 1);
}

TEST(Notification, TellsAnInnerChangeInFullBeforeTheOuterGoesOn) {
  auto const thing = Zel::makePtr<Thing>();
  std::vector<std::string> order;
  auto const first = Zel::makePtr<Listener>(*thing, [&](Zel::Notification const & change) {
    order.push_back("first " + std::string(change.attribute().name));
    if (&change.attribute() == &colour)
      thing->changeKey(1);
  });
  auto const second = Zel::makePtr<Listener>(*thing, [&](Zel::Notification const & change) {
    order.push_back("second " + std::string(change.attribute().name));
  });
  thing->change();
  EXPECT_THAT(order, ElementsAre("first colour", "first byKey", "second byKey", "second colour"));
}

TEST(Notification, KeepsTheObjectAliveToTheEnd) {
  int destroyed = 0;
  auto thing = Zel::makePtr<Thing>(&destroyed);
  int heard = 0;
  auto const first = Zel::makePtr<Listener>(*thing, [&](auto const &) { thing = nullptr; });
  auto const second = Zel::makePtr<Listener>(*thing, [&](auto const &) {
    ++heard;
    EXPECT_EQ(destroyed, heard == 1 ? 0 : 1);
  });
  thing->change();
  EXPECT_EQ(heard, 2) << "the change, and what the destructor notifies";
  EXPECT_EQ(destroyed, 1);
}

TEST(Notification, TellsTheOthersAndThrowsTheFirstExceptionOn) {
  auto const thing = Zel::makePtr<Thing>();
  int heard = 0;
  auto const first =
      Zel::makePtr<Listener>(*thing, [&](auto const &) { throw std::runtime_error("first"); });
  auto const second = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  auto const third =
      Zel::makePtr<Listener>(*thing, [&](auto const &) { throw std::runtime_error("third"); });
  auto const fourth = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  auto const dropped = Lumo::counter("zel-exceptions-dropped");
  try {
    thing->change();
    FAIL();
  } catch (std::runtime_error const & error) {
    EXPECT_STREQ(error.what(), "first");
  }
  EXPECT_EQ(heard, 2);
  EXPECT_EQ(Lumo::counter("zel-exceptions-dropped"), dropped + 1);
}

TEST(Notification, OfADestructorDropsAndCountsEveryException) {
  auto thing = Zel::makePtr<Thing>();
  auto const fail = [](auto const &) { throw std::runtime_error("listener"); };
  auto const first = Zel::makePtr<Listener>(*thing, fail);
  auto const second = Zel::makePtr<Listener>(*thing, fail);
  auto const dropped = Lumo::counter("zel-exceptions-dropped");
  thing = nullptr;
  EXPECT_EQ(Lumo::counter("zel-exceptions-dropped"), dropped + 2);
}

TEST(Notification, CountsHowOftenAnObjectFellSilent) {
  auto const thing = Zel::makePtr<Thing>();
  auto const before = Zel::silencings();
  thing->hasNotificationActiveIs(true);
  EXPECT_EQ(Zel::silencings(), before);
  thing->hasNotificationActiveIs(false);
  thing->hasNotificationActiveIs(false);
  EXPECT_EQ(Zel::silencings(), before + 1);
}

TEST(Notification, ThatIsContainedTellsEverybodyAndReportsEachException) {
  auto const thing = Zel::makePtr<Thing>();
  std::vector<std::string> heard;
  auto const first =
      Zel::makePtr<Listener>(*thing, [](auto const &) { throw std::runtime_error("first"); });
  auto const second = Zel::makePtr<Listener>(*thing, [](auto const &) { throw 2; });
  auto const third = Zel::makePtr<Listener>(*thing, [&](Zel::Notification const & change) {
    heard.push_back(
        std::string(change.attribute().name) +
        (&change.attribute() == &byKey ? std::to_string(change.key<std::uint32_t>()) : ""));
  });
  std::vector<std::string> reported;
  auto const before =
      Zel::exceptionReporterIs([&](std::string_view where, std::exception const & what) {
        reported.push_back(fmt::format("{}: {}", where, what.what()));
      });
  auto const contained = Lumo::counter("zel-exceptions-contained");
  thing->changeContained();
  thing->changeKeyContained(7);
  EXPECT_THAT(heard, ElementsAre("colour", "byKey7"));
  std::string const colourOf = "a listener of Zel::PtrInterface's colour: ";
  std::string const byKeyOf = "a listener of Zel::PtrInterface's byKey: ";
  EXPECT_THAT(reported, ElementsAre(colourOf + "first", colourOf + "an exception of no known type",
                                    byKeyOf + "first", byKeyOf + "an exception of no known type"));
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 4);
  Zel::exceptionReporterIs(before);
  thing->changeContained();
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 6) << "without a reporter, too";
}

TEST(Exceptions, AreContainedAlsoWhereThereIsNoMemoryForWords) {
  std::string told;
  auto const before =
      Zel::exceptionReporterIs([&](std::string_view where, std::exception const & what) {
        told = std::string(where) + ": " + what.what();
      });
  Zel::contained([] { throw Zel::Exception("a fault"); },
                 []() -> std::string { throw std::bad_alloc(); });
  Zel::exceptionReporterIs(before);
  EXPECT_EQ("(no memory): a fault", told);
}

TEST(Notification, ThatIsContainedIsSilentWhileNotificationIsOff) {
  auto const thing = Zel::makePtr<Thing>();
  int heard = 0;
  auto const listener = Zel::makePtr<Listener>(*thing, [&](auto const &) { ++heard; });
  thing->hasNotificationActiveIs(false);
  thing->changeContained();
  thing->changeKeyContained(7);
  EXPECT_EQ(heard, 0);
}

TEST(Notification, LetsANotifieeChangeWhatItListensTo) {
  auto const one = Zel::makePtr<Thing>();
  auto const other = Zel::makePtr<Thing>();
  int heard = 0;
  auto const listener = Zel::makePtr<Listener>(*one, [&](auto const &) { ++heard; });
  listener->notifierIs(other.get());
  one->change();
  EXPECT_EQ(heard, 0);
  other->change();
  EXPECT_EQ(heard, 1);
  EXPECT_TRUE(one->notifieesEmpty());
  EXPECT_FALSE(other->notifieesEmpty());
}

// Types by name

Zel::Attribute const plain{"plain", "bool"};
Zel::Attribute const * const thingAttributes[] = {&plain};
Zel::Type const namedType{"Test::Named", thingAttributes, nullptr};
Zel::Type const * const types[] = {&namedType};
Zel::Module const module{"Test", "ns-", types, {}};

TEST(Types, AreKnownForAsLongAsTheirModuleLives) {
  EXPECT_EQ(Zel::typeByName("Test::Named"), nullptr);
  {
    Zel::zelModuleIs const known(module);
    EXPECT_EQ(Zel::typeByName("Test::Named"), &namedType);
    EXPECT_THROW(Zel::createByTypeName("Test::Named", "x"), Zel::GenericAccessError);
  }
  EXPECT_EQ(Zel::typeByName("Test::Named"), nullptr);
  EXPECT_THROW(Zel::createByTypeName("Test::Named", "x"), Zel::GenericAccessError);
}

TEST(TypesDeathTest, DieOfASecondDefinition) {
  Zel::zelModuleIs const known(module);
  EXPECT_DEATH(Zel::zelModuleIs{module}, "type Test::Named is defined twice");
}

// Value types

struct Pair {
  std::uint32_t first = 0;
  bool second = false;
  bool operator==(Pair const &) const = default;
  static constexpr std::string_view typeName = "Test::Pair";
  static constexpr auto fields() {
    return std::tuple{Zel::Field{"first", &Pair::first}, Zel::Field{"second", &Pair::second}};
  }
};

TEST(TextForm, IsWrittenAndReadBackExactly) {
  std::string const text = "Value('Test::Pair', ** {'first': 4294967295, 'second': True})";
  EXPECT_EQ(Zel::valueToStrep(Pair{4294967295, true}), text);
  EXPECT_EQ(Zel::strepToValue<Pair>(text), (Pair{4294967295, true}));
}

TEST(TextForm, RefusesEverythingElse) {
  for (std::string const text : {"", "Value('Test::Pair', ** {'first': 1, 'second': True}) ",
                                 "Value('Test::Pair', ** {'first': 01, 'second': True})",
                                 "Value('Test::Pair', ** {'first': +1, 'second': True})",
                                 "Value('Test::Pair', ** {'first': 1, 'second': true})",
                                 "Value('Test::Pair', ** {'first': 1,'second': True})",
                                 "Value('Test::Pair', ** {'second': True, 'first': 1})",
                                 "Value('Test::Pear', ** {'first': 1, 'second': True})"})
    EXPECT_THROW(Zel::strepToValue<Pair>(text), Zel::StrepError) << text;
}

TEST(TextForm, OfATextIsReadBackWhateverIsInIt) {
  for (std::string const text : {"", "plain", "it's", "\\", "\\'", "a\nb", "'', ** {'x': "}) {
    auto const written = Zel::valueToStrep(text);
    EXPECT_EQ(Zel::strepToValue<std::string>(written), text) << written;
  }
  EXPECT_EQ(Zel::valueToStrep(std::string("it's \\")), "'it\\'s \\\\'");
  for (std::string const broken : {"", "'", "x'", "'x", "'x\\'", "'x' ", "'x'y'"})
    EXPECT_THROW(Zel::strepToValue<std::string>(broken), Zel::StrepError) << broken;
}

TEST(Hashing, DependsOnEveryBitAndOnTheOrder) {
  EXPECT_NE(Zel::Hash().mix(1u).mix(2u).result(), Zel::Hash().mix(2u).mix(1u).result());
  EXPECT_NE(Zel::hashOf(std::string("a")), Zel::hashOf(std::string("b")));
  EXPECT_NE(Zel::hashOf(std::string("")), Zel::hashOf(std::string(1, '\0')));
  std::vector<int> buckets(256);
  for (std::uint32_t key = 0; key != 25600; ++key)
    ++buckets[Zel::hashOf(key) >> 24];
  for (auto const count : buckets)
    EXPECT_NEAR(count, 100, 60) << "consecutive keys spread over the top bits";
  EXPECT_NE(Zel::hashOf(std::uint64_t{1} << 32), Zel::hashOf(std::uint64_t{0}));
  EXPECT_NE(Zel::hashOf(1u, 7), Zel::hashOf(1u, 8));
}

} // namespace

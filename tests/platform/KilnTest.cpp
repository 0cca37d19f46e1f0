// The scheduler and its tasks, with a clock that stands still.
#include "platform/Kiln.h"
#include "platform/Flowa.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/TestScheduler.h"
#include <algorithm>
#include <compare>
#include <gmock/gmock.h>
#include <iterator>

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;

class Worker : public Zel::Notifiee {
public:
  Worker(Zel::Ptr<Kiln::TaskScheduler> const & scheduler, Kiln::TaskPriority priority,
         std::string name, std::function<void(Kiln::Task &)> work)
      : task(Zel::makePtr<Kiln::Task>(scheduler, priority, name)),
        work_(std::move(work)) {
    notifierIs(task.get());
  }
  void onNotification(Zel::Notification const & notification) override {
    EXPECT_EQ(&notification.attribute(), &Kiln::Task::runAttribute());
    work_(*task);
  }
  Zel::Ptr<Kiln::Task> task;

private:
  std::function<void(Kiln::Task &)> work_;
};

class Scheduler : public testing::Test {
protected:
  std::chrono::steady_clock::time_point now_{};
  Zel::Ptr<Kiln::TaskScheduler> scheduler_ = Zel::makePtr<Kiln::TaskScheduler>([this] {
    ++looks_;
    return now_;
  });
  int looks_ = 0;
  std::vector<std::string> ran_;

  /// What so many asks in a row say as have the scheduler look at the clock once.
  static std::vector<bool> asked(Kiln::Task const & task) {
    std::vector<bool> verdicts;
    std::generate_n(std::back_inserter(verdicts), 8, [&] { return task.taskShouldYield(); });
    return verdicts;
  }
  Zel::Ptr<Worker> worker(Kiln::TaskPriority priority, std::string const & name) {
    return Zel::makePtr<Worker>(scheduler_, priority, name,
                                [this](auto & task) { ran_.push_back(task.name()); });
  }
};

TEST_F(Scheduler, IsAsBeforeWhenThereIsNoMemoryForATask) {
  auto const one = worker(3, "one");
  long failures = 0;
  for (auto fails = true; fails; failures += fails ? 1 : 0) {
    try {
      FailingMemory const failing(failures, FailingMemory::Fails::once);
      one->task->scheduleTask();
    } catch (std::bad_alloc const &) {
    }
    fails = FailingMemory::hasFailed();
    EXPECT_EQ(one->task->taskScheduled(), !fails);
    EXPECT_EQ(scheduler_->scheduled(), fails ? 0u : 1u);
    EXPECT_EQ(scheduler_->runOne(), !fails);
  }
  EXPECT_GT(failures, 0);
  EXPECT_THAT(ran_, ElementsAre("one"));
}

TEST_F(Scheduler, RunsTheMostUrgentFirstAndEqualsInOrder) {
  auto const late = worker(5, "late");
  auto const first = worker(3, "first");
  auto const second = worker(3, "second");
  for (auto const & one : {late, first, second})
    one->task->scheduleTask();
  while (scheduler_->runOne()) {
  }
  EXPECT_THAT(ran_, ElementsAre("first", "second", "late"));
  EXPECT_EQ(scheduler_->runs(), 3u);
}

TEST_F(Scheduler, FinishesWhatARunBeganBeforeItsEqualsBegin) {
  auto const child = worker(3, "child");
  auto const abandoned = [&] { worker(3, "abandoned")->task->scheduleTask(); };
  auto const urgent = worker(1, "urgent");
  int left = 2;
  auto const parent = Zel::makePtr<Worker>(scheduler_, 3, "parent", [&](Kiln::Task & task) {
    ran_.push_back(task.name());
    if (--left < 0)
      return;
    abandoned();
    child->task->scheduleTask();
    task.scheduleTask();
    urgent->task->scheduleTask();
  });
  auto const waiting = worker(3, "waiting");
  parent->task->scheduleTask();
  waiting->task->scheduleTask();
  while (scheduler_->runOne()) {
  }
  EXPECT_THAT(ran_, ElementsAre("parent", "urgent", "child", "parent", "urgent", "child", "parent",
                                "waiting"));
}

TEST_F(Scheduler, RunsATaskOnceHoweverOftenItWasScheduled) {
  auto const one = worker(3, "one");
  one->task->scheduleTask();
  one->task->scheduleTask();
  EXPECT_TRUE(one->task->taskScheduled());
  EXPECT_EQ(scheduler_->scheduled(), 1u);
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_FALSE(scheduler_->runOne());
  EXPECT_FALSE(one->task->taskScheduled());
}

TEST_F(Scheduler, LetsATaskScheduleItselfAgain) {
  int left = 3;
  auto const one = Zel::makePtr<Worker>(scheduler_, 3, "one", [&](Kiln::Task & task) {
    EXPECT_TRUE(task.taskCurrentlyRunning());
    if (--left > 0)
      task.scheduleTask();
  });
  one->task->scheduleTask();
  while (scheduler_->runOne()) {
  }
  EXPECT_EQ(left, 0);
  EXPECT_EQ(one->task->runs(), 3u);
  EXPECT_FALSE(one->task->taskCurrentlyRunning());
}

TEST_F(Scheduler, AsksToYieldWhenTheShareOfARunIsUsed) {
  auto const one = Zel::makePtr<Worker>(scheduler_, 3, "one", [&](Kiln::Task & task) {
    EXPECT_THAT(asked(task), Each(false));
    now_ += std::chrono::microseconds(4999);
    EXPECT_THAT(asked(task), Each(false));
    now_ += std::chrono::microseconds(1);
    EXPECT_THAT(asked(task), Contains(true)) << "the clock is looked at";
    EXPECT_THAT(asked(task), Each(true)) << "from then on to the end of the run";
  });
  one->task->scheduleTask();
  scheduler_->runOne();
  EXPECT_EQ(scheduler_->share(), std::chrono::milliseconds(5));
}

TEST_F(Scheduler, LooksAtTheClockForEachEighthAskWhileLittleIsDoneBetween) {
  auto const quick = Zel::makePtr<Worker>(scheduler_, 3, "quick", [&](Kiln::Task & task) {
    looks_ = 0;
    for (int item = 0; item != 800; ++item) {
      now_ += std::chrono::microseconds(1);
      EXPECT_FALSE(task.taskShouldYield());
    }
    EXPECT_EQ(looks_, 100);
  });
  quick->task->scheduleTask();
  scheduler_->runOne();
}

TEST_F(Scheduler, LooksAtTheClockForEachAskWhileMuchIsDoneBetween) {
  auto const slow = Zel::makePtr<Worker>(scheduler_, 3, "slow", [&](Kiln::Task & task) {
    for (int item = 1; item != 5; ++item) {
      now_ += std::chrono::milliseconds(1);
      EXPECT_FALSE(task.taskShouldYield()) << item;
    }
    now_ += std::chrono::milliseconds(1);
    EXPECT_TRUE(task.taskShouldYield());
  });
  slow->task->scheduleTask();
  scheduler_->runOne();
}

TEST_F(Scheduler, GivesEachRunAShareOfItsOwn) {
  auto const hog = Zel::makePtr<Worker>(scheduler_, 3, "hog", [&](Kiln::Task & task) {
    now_ += std::chrono::seconds(1);
    EXPECT_THAT(asked(task), Contains(true));
  });
  auto const next = Zel::makePtr<Worker>(
      scheduler_, 3, "next", [&](Kiln::Task & task) { EXPECT_THAT(asked(task), Each(false)); });
  hog->task->scheduleTask();
  next->task->scheduleTask();
  scheduler_->runOne();
  scheduler_->runOne();
}

TEST_F(Scheduler, LooksAtTheClockForTheFirstAskOfEachRun) {
  auto const one = Zel::makePtr<Worker>(
      scheduler_, 3, "one", [&](Kiln::Task & task) { EXPECT_FALSE(task.taskShouldYield()); });
  auto const two = Zel::makePtr<Worker>(scheduler_, 3, "two", [&](Kiln::Task & task) {
    now_ += scheduler_->share();
    EXPECT_TRUE(task.taskShouldYield());
  });
  one->task->scheduleTask();
  two->task->scheduleTask();
  scheduler_->runOne();
  scheduler_->runOne();
}

TEST_F(Scheduler, AlwaysAsksToYieldOutsideAnyRun) {
  EXPECT_TRUE(worker(3, "one")->task->taskShouldYield());
}

TEST_F(Scheduler, CountsWork) {
  auto const one = worker(3, "one");
  one->task->taskWorkCountInc(5);
  one->task->taskWorkCountInc(2);
  one->task->taskWorkPendingIs(9);
  EXPECT_EQ(one->task->taskWorkCount(), 7u);
  EXPECT_EQ(one->task->taskWorkPending(), 9u);
  one->task->taskWorkPendingIs(0);
  EXPECT_EQ(one->task->taskWorkPending(), 0u);
}

TEST_F(Scheduler, LetsARunReleaseItsOwnTaskAndReactor) {
  Zel::Ptr<Worker> one;
  bool ran = false;
  one = Zel::makePtr<Worker>(scheduler_, 3, "one", [&](Kiln::Task &) {
    one = nullptr;
    ran = true;
  });
  one->task->scheduleTask();
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_TRUE(ran);
  EXPECT_TRUE(scheduler_->tasks().empty());
}

TEST_F(Scheduler, NeverRunsAScheduledTaskThatEverybodyLeft) {
  auto one = worker(3, "one");
  one->task->scheduleTask();
  one = nullptr;
  EXPECT_TRUE(scheduler_->tasks().empty());
  EXPECT_EQ(scheduler_->scheduled(), 0u);
  EXPECT_FALSE(scheduler_->runOne());
  EXPECT_TRUE(ran_.empty());
}

TEST_F(Scheduler, GoesOnAfterATaskThatThrew) {
  auto const bad = Zel::makePtr<Worker>(scheduler_, 3, "bad",
                                        [](Kiln::Task &) { throw std::runtime_error("bad"); });
  auto const good = worker(3, "good");
  bad->task->scheduleTask();
  good->task->scheduleTask();
  EXPECT_THROW(scheduler_->runOne(), std::runtime_error);
  EXPECT_EQ(scheduler_->running(), nullptr);
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_THAT(ran_, ElementsAre("good"));
}

TEST_F(Scheduler, ListsItsLivingTasks) {
  auto const one = worker(3, "one");
  auto two = worker(4, "two");
  EXPECT_EQ(scheduler_->tasks().size(), 2u);
  two = nullptr;
  EXPECT_THAT(scheduler_->tasks(), ElementsAre(one->task.get()));
  EXPECT_EQ(one->task->scheduler(), scheduler_);
  EXPECT_EQ(one->task->priority(), 3);
}

TEST(SchedulerDeathTest, DiesOfATaskWithoutSchedulerAndOfARunInsideARun) {
  EXPECT_DEATH(Zel::makePtr<Kiln::Task>(nullptr, 3, "x"), "a task needs a scheduler");
  auto const scheduler = Zel::makePtr<Kiln::TaskScheduler>();
  auto const one =
      Zel::makePtr<Worker>(scheduler, 3, "one", [&](Kiln::Task &) { scheduler->runOne(); });
  one->task->scheduleTask();
  EXPECT_DEATH(scheduler->runOne(), "a task runs inside another run");
}

TEST(TaskSchedulerRoot, MakesOneDefaultSchedulerAndTakesAnother) {
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
  auto const made = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
  EXPECT_EQ(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), made);
  auto const other = Zel::makePtr<TestScheduler>(Yield::never);
  Kiln::TaskSchedulerRoot::schedulerIs(other);
  EXPECT_EQ(Kiln::TaskSchedulerRoot::findOrCreateScheduler(), other);
  Kiln::TaskSchedulerRoot::schedulerIs(nullptr);
}

// The control record

TEST(SmControl, HasATextThatIsReadBack) {
  Flowa::SmControl control;
  EXPECT_EQ(Zel::valueToStrep(control),
            "Value('Flowa::SmControl', ** {'taskPriority': 0, 'traceHandlerName': '', "
            "'synchronousMode': 0, 'qtHandle': 0, 'version': 0, 'codefEnabled': False, "
            "'defaultSynchronous': False})");
  control.taskPriority = 3;
  control.traceHandlerName = "it's";
  control.synchronousMode = 1;
  control.qtHandleIs({42});
  control.version = 7;
  control.codefEnabled = true;
  control.defaultSynchronous = true;
  auto const text = Zel::valueToStrep(control);
  EXPECT_EQ(text, "Value('Flowa::SmControl', ** {'taskPriority': 3, 'traceHandlerName': 'it\\'s', "
                  "'synchronousMode': 1, 'qtHandle': 42, 'version': 7, 'codefEnabled': True, "
                  "'defaultSynchronous': True})");
  EXPECT_EQ(Zel::valueToStrep(Zel::strepToValue<Flowa::SmControl>(text)), text);
}

// The reactor

struct Owner {
  void handle(Zel::Attribute const &, std::uint32_t const & key) {
    keys.push_back(key);
    if (then)
      then();
  }
  std::vector<std::uint32_t> keys;
  std::function<void()> then;
};

Zel::Attribute const byKey{"byKey", "Zel::HashMap2018"};

struct Source : Zel::PtrInterface {
  Source() { hasNotificationActiveIs(true); }
  template <class Key>
  void change(Key key) {
    notify(byKey, key);
  }
};

class Reactor : public testing::Test {
protected:
  using InReactor = Flowa::Gen::InReactor<Owner, std::uint32_t>;
  Owner owner_;
  Zel::Ptr<Source> source_ = Zel::makePtr<Source>();
  Zel::Ptr<InReactor> reactor_ = Zel::makePtr<InReactor>(owner_, &Owner::handle, source_.get());
};

TEST_F(Reactor, HandsChangesOn) {
  source_->change(1u);
  EXPECT_THAT(owner_.keys, ElementsAre(1));
}

TEST_F(Reactor, HoldsEachKeyOnceWhileItIsOff) {
  reactor_->hasNotificationActiveIs(false);
  for (std::uint32_t const key : {3, 1, 3, 2, 1})
    source_->change(key);
  EXPECT_TRUE(owner_.keys.empty());
  reactor_->hasNotificationActiveIs(true);
  EXPECT_THAT(owner_.keys, ElementsAre(3, 1, 2));
}

// A key that counts how often it is compared.
struct Compared {
  std::uint32_t value;
  static inline std::uint64_t comparisons = 0;
  bool operator==(Compared const & other) const { return (*this <=> other) == 0; }
  std::strong_ordering operator<=>(Compared const & other) const {
    ++comparisons;
    return value <=> other.value;
  }
};

TEST(ReactorWithManyChanges, HoldsEachWithoutLookingAtAllTheOthers) {
  struct Listener {
    void handle(Zel::Attribute const &, Compared const & key) { keys.push_back(key.value); }
    std::vector<std::uint32_t> keys;
  } listener;
  auto const source = Zel::makePtr<Source>();
  auto const reactor = Zel::makePtr<Flowa::Gen::InReactor<Listener, Compared>>(
      listener, &Listener::handle, source.get());
  reactor->hasNotificationActiveIs(false);
  constexpr std::uint32_t keys = 4000;
  Compared::comparisons = 0;
  std::vector<std::uint32_t> expected;
  for (std::uint32_t i = 0; i != 2 * keys; ++i)
    source->change(Compared{i * 7 % keys});
  for (std::uint32_t i = 0; i != keys; ++i)
    expected.push_back(i * 7 % keys);
  EXPECT_LT(Compared::comparisons, 2 * keys * 50);
  reactor->hasNotificationActiveIs(true);
  EXPECT_EQ(listener.keys, expected);
  reactor->ownerDeletedIs();
}

TEST_F(Reactor, DeliversWhatItHoldsToAnOwnerThatIsAboutToGo) {
  reactor_->hasNotificationActiveIs(false);
  source_->change(1u);
  reactor_->zelDoZombieReactors(false);
  EXPECT_TRUE(owner_.keys.empty());
  reactor_->zelDoZombieReactors(true);
  reactor_->zelDoZombieReactors(true);
  EXPECT_THAT(owner_.keys, ElementsAre(1));
}

TEST_F(Reactor, IgnoresEverythingOnceItsOwnerIsGone) {
  reactor_->hasNotificationActiveIs(false);
  source_->change(1u);
  reactor_->ownerDeletedIs();
  reactor_->hasNotificationActiveIs(true);
  source_->change(2u);
  EXPECT_TRUE(owner_.keys.empty());
}

TEST_F(Reactor, MayBeReleasedInsideADelivery) {
  reactor_->hasNotificationActiveIs(false);
  source_->change(1u);
  source_->change(2u);
  owner_.then = [this] {
    if (auto const leaving = std::exchange(reactor_, nullptr))
      leaving->ownerDeletedIs();
  };
  auto const reactor = reactor_.get();
  reactor->hasNotificationActiveIs(true);
  EXPECT_THAT(owner_.keys, ElementsAre(1));
}

} // namespace

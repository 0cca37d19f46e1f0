// The tables of TunnelMib: find-or-create, replacement, deletion, notification, destruction.
#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "tests/machines/World.h"
#include <functional>
#include <gmock/gmock.h>
#include <stdexcept>

namespace TunnelIntfSnmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Zel::Ptr<Interface::TunnelIntfStatus> status(std::uint64_t id = 1) {
  return Zel::makePtr<Interface::TunnelIntfStatus>(Plexa::IntfId(id));
}

TunnelInetConfigTableKey key(std::uint32_t configId, std::uint32_t encapsMethod = 3) {
  std::uint8_t const address[] = {10, 0, 0, 1};
  return {Snmp::InetAddress(1, Snmp::Bytes(address)), Snmp::Bytes(address), encapsMethod, configId};
}

// Writes down every change as "attribute key".
class Recorder : public Zel::Notifiee {
public:
  explicit Recorder(TunnelMib const & mib) { notifierIs(&mib); }
  void onNotification(Zel::Notification const & change) override {
    changes.push_back(std::string(change.attribute().name) + " " +
                      (&change.attribute() == &TunnelMib::tunnelInetConfigTableAttribute()
                           ? std::to_string(change.key<TunnelInetConfigTableKey>().configId())
                           : std::to_string(change.key<std::uint32_t>())));
  }
  std::vector<std::string> changes;
};

class TunnelMibTest : public ::testing::Test {
protected:
  Zel::Ptr<TunnelMib> mib_ = TunnelMib::TunnelMibIs("tunnelMib");
  Zel::Ptr<Recorder> heard_ = Zel::makePtr<Recorder>(*mib_);
};

TEST_F(TunnelMibTest, FindsTheRowThatIsThereAndNotifiesOnce) {
  auto const record = status();
  auto const row = mib_->tunnelIfTableIs(7, record);
  EXPECT_EQ(mib_->tunnelIfTableIs(7, record), row);
  EXPECT_EQ(mib_->tunnelIfTable(7), row);
  EXPECT_TRUE(row->hasNotificationActive());
  EXPECT_THAT(heard_->changes, ElementsAre("tunnelIfTable 7"));
}

TEST_F(TunnelMibTest, RefusesAnotherStatusForAnExistingRow) {
  auto const row = mib_->tunnelIfTableIs(7, status());
  try {
    mib_->tunnelIfTableIs(7, status());
    FAIL();
  } catch (Zel::ReinstantiationError const & error) {
    EXPECT_STREQ(error.what(),
                 "attribute tunnelIntfStatus: instantiated again with different arguments");
  }
  EXPECT_EQ(mib_->tunnelIfTable(7), row);
  EXPECT_EQ(heard_->changes.size(), 1u);
}

TEST_F(TunnelMibTest, RefusesAnotherRecordForAnExistingIpsecRow) {
  auto const record = status();
  auto const ike = Zel::makePtr<Ipsec::Ike::Status>("ike");
  auto const row = mib_->ipsecTunnelIfTableIs(7, record, ike);
  EXPECT_EQ(mib_->ipsecTunnelIfTableIs(7, record, ike), row);
  auto const refusal = [&](auto const & otherStatus, auto const & otherIke) -> std::string {
    try {
      mib_->ipsecTunnelIfTableIs(7, otherStatus, otherIke);
    } catch (Zel::ReinstantiationError const & error) {
      return error.what();
    }
    return "none";
  };
  std::string const again = ": instantiated again with different arguments";
  EXPECT_EQ(refusal(status(), ike), "attribute tunnelIntfStatus" + again);
  EXPECT_EQ(refusal(record, Zel::makePtr<Ipsec::Ike::Status>("other")),
            "attribute ikeStatus" + again);
  EXPECT_EQ(mib_->ipsecTunnelIfTable(7), row);
  EXPECT_TRUE(row->hasNotificationActive());
  EXPECT_THAT(heard_->changes, ElementsAre("ipsecTunnelIfTable 7"));
}

TEST_F(TunnelMibTest, ReturnsTheRemovedRowAndNotifiesItsKey) {
  auto const row = mib_->tunnelIfTableIs(7, status());
  auto const ipsecRow = mib_->ipsecTunnelIfTableIs(8, status(), nullptr);
  heard_->changes.clear();
  EXPECT_EQ(mib_->tunnelIfTableDel(7), row);
  EXPECT_EQ(mib_->ipsecTunnelIfTableDel(mib_->ipsecTunnelIfTable().begin()), ipsecRow);
  EXPECT_THAT(heard_->changes, ElementsAre("tunnelIfTable 7", "ipsecTunnelIfTable 8"));
  EXPECT_EQ(row->ifIndex(), 7u) << "lives on for who holds it";
}

TEST_F(TunnelMibTest, HasChangedWhenItsListenersHear) {
  auto const entry = tunnelInetConfigTableEntryFactory(key(7), 1);
  std::vector<std::size_t> sizes;
  auto const listener = Zel::makePtr<OnChange>(*mib_, [&](auto const &) {
    sizes.push_back(mib_->tunnelIfTable().size() + mib_->ipsecTunnelIfTable().size() +
                    mib_->tunnelInetConfigTable().size());
  });
  mib_->tunnelIfTableIs(7, status());
  mib_->ipsecTunnelIfTableIs(7, status(), nullptr);
  mib_->tunnelInetConfigTableIs(entry);
  mib_->tunnelIfTableDel(7);
  mib_->ipsecTunnelIfTableDel(7);
  mib_->tunnelInetConfigTableDel(key(7));
  EXPECT_THAT(sizes, ElementsAre(1, 2, 3, 2, 1, 0));
}

TEST_F(TunnelMibTest, RemovesNothingThatIsAbsent) {
  EXPECT_EQ(mib_->tunnelIfTableDel(7), nullptr);
  EXPECT_EQ(mib_->ipsecTunnelIfTableDel(7), nullptr);
  EXPECT_EQ(mib_->tunnelInetConfigTableDel(key(7)), nullptr);
  EXPECT_THAT(heard_->changes, IsEmpty());
}

TEST_F(TunnelMibTest, ReplacesAnEntryOfTheSameKeyUnlessItIsTheSameObject) {
  auto const first = tunnelInetConfigTableEntryFactory(key(1), 10);
  auto const second = tunnelInetConfigTableEntryFactory(key(1), 11);
  mib_->tunnelInetConfigTableIs(first);
  mib_->tunnelInetConfigTableIs(first);
  EXPECT_EQ(heard_->changes.size(), 1u);
  mib_->tunnelInetConfigTableIs(second);
  EXPECT_EQ(mib_->tunnelInetConfigTable()[key(1)], second);
  EXPECT_EQ(mib_->tunnelInetConfigTable().size(), 1u);
  EXPECT_THAT(heard_->changes, ElementsAre("tunnelInetConfigTable 1", "tunnelInetConfigTable 1"));
}

TEST_F(TunnelMibTest, RefusesANullEntry) {
  try {
    mib_->tunnelInetConfigTableIs(nullptr);
    FAIL();
  } catch (Zel::NullArgumentError const & error) {
    EXPECT_STREQ(error.what(), "attribute tunnelInetConfigTable: null argument to a mutator");
  }
  EXPECT_THAT(heard_->changes, IsEmpty());
}

TEST_F(TunnelMibTest, IteratesEntriesInKeyOrder) {
  for (std::uint32_t const configId : {3, 1, 2})
    mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(configId), configId));
  mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(9, 1), 9));
  std::vector<std::uint32_t> order;
  for (auto const & [entryKey, entry] : mib_->tunnelInetConfigTable())
    order.push_back(entry->ifIndex());
  EXPECT_THAT(order, ElementsAre(9, 1, 2, 3));
}

TEST_F(TunnelMibTest, DeletesAllRowsFromTheSmallestKeyUp) {
  for (std::uint32_t const ifIndex : {3, 1, 2}) {
    mib_->tunnelIfTableIs(ifIndex, status());
    mib_->ipsecTunnelIfTableIs(ifIndex, status(), nullptr);
    mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(ifIndex), ifIndex));
  }
  heard_->changes.clear();
  mib_->tunnelIfTableDelAll();
  mib_->ipsecTunnelIfTableDelAll();
  mib_->tunnelInetConfigTableDelAll();
  EXPECT_THAT(heard_->changes, ElementsAre("tunnelIfTable 1", "tunnelIfTable 2", "tunnelIfTable 3",
                                           "ipsecTunnelIfTable 1", "ipsecTunnelIfTable 2",
                                           "ipsecTunnelIfTable 3", "tunnelInetConfigTable 1",
                                           "tunnelInetConfigTable 2", "tunnelInetConfigTable 3"));
  EXPECT_TRUE(mib_->tunnelIfTable().empty());
  EXPECT_TRUE(mib_->tunnelInetConfigTable().empty());
}

// Deletes every row of one table while somebody listens.
struct Table {
  char const * name;
  Zel::Attribute const & attribute;
  void (*add)(TunnelMib & mib, std::uint32_t number);
  void (*deleteOne)(TunnelMib & mib, std::uint32_t number);
  void (*deleteAll)(TunnelMib & mib);
};
void PrintTo(Table const & table, std::ostream * out) {
  *out << table.name;
}
Table const tables[] = {
    {"tunnelIfTable", TunnelMib::tunnelIfTableAttribute(),
     [](TunnelMib & mib, std::uint32_t number) { mib.tunnelIfTableIs(number, status()); },
     [](TunnelMib & mib, std::uint32_t number) { mib.tunnelIfTableDel(number); },
     [](TunnelMib & mib) { mib.tunnelIfTableDelAll(); }},
    {"tunnelInetConfigTable", TunnelMib::tunnelInetConfigTableAttribute(),
     [](TunnelMib & mib, std::uint32_t number) {
       mib.tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(number), number));
     },
     [](TunnelMib & mib, std::uint32_t number) { mib.tunnelInetConfigTableDel(key(number)); },
     [](TunnelMib & mib) { mib.tunnelInetConfigTableDelAll(); }},
    {"ipsecTunnelIfTable", TunnelMib::ipsecTunnelIfTableAttribute(),
     [](TunnelMib & mib, std::uint32_t number) {
       mib.ipsecTunnelIfTableIs(number, status(), nullptr);
     },
     [](TunnelMib & mib, std::uint32_t number) { mib.ipsecTunnelIfTableDel(number); },
     [](TunnelMib & mib) { mib.ipsecTunnelIfTableDelAll(); }}};

class DeleteAll : public ::testing::TestWithParam<Table> {
protected:
  // Calls back with the number of each row that goes or comes.
  class Listener : public Zel::Notifiee {
  public:
    Listener(TunnelMib const & mib, std::function<void(std::uint32_t)> call)
        : call_(std::move(call)) {
      notifierIs(&mib);
    }
    void onNotification(Zel::Notification const & change) override {
      call_(&change.attribute() == &TunnelMib::tunnelInetConfigTableAttribute()
                ? change.key<TunnelInetConfigTableKey>().configId()
                : change.key<std::uint32_t>());
    }

  private:
    std::function<void(std::uint32_t)> const call_;
  };

  DeleteAll() {
    for (std::uint32_t const number : {10, 20, 30})
      GetParam().add(*mib_, number);
  }
  // What was told while every row was deleted, in order.
  std::vector<std::uint32_t> told(std::function<void(std::uint32_t)> answer) {
    std::vector<std::uint32_t> numbers;
    auto const listener = Zel::makePtr<Listener>(*mib_, [&](std::uint32_t number) {
      numbers.push_back(number);
      if (numbers.size() < 100) // a deletion that starts over would go on for ever
        answer(number);
    });
    GetParam().deleteAll(*mib_);
    return numbers;
  }
  std::size_t left() const {
    return mib_->tunnelIfTable().size() + mib_->tunnelInetConfigTable().size() +
           mib_->ipsecTunnelIfTable().size();
  }

  Zel::Ptr<TunnelMib> mib_ = Zel::makePtr<TunnelMib>("tunnelMib");
};
INSTANTIATE_TEST_SUITE_P(Tables, DeleteAll, ::testing::ValuesIn(tables),
                         [](auto const & table) { return table.param.name; });

TEST_P(DeleteAll, GoesOnWhenAListenerThrows) {
  EXPECT_THAT(told([](std::uint32_t) { throw std::runtime_error("no"); }), ElementsAre(10, 20, 30));
  EXPECT_EQ(left(), 0u);
}

TEST_P(DeleteAll, DeletesWhatAListenerPutsBehindTheRow) {
  auto const numbers = told([this](std::uint32_t number) {
    if (number == 10)
      GetParam().add(*mib_, 15);
  });
  EXPECT_THAT(numbers, ElementsAre(10, 15, 15, 20, 30)) << "15 comes, and goes";
  EXPECT_EQ(left(), 0u);
}

TEST_P(DeleteAll, LeavesWhatAListenerPutsBeforeTheRowOrInItsPlace) {
  auto const numbers = told([this](std::uint32_t number) {
    if (number == 20)
      GetParam().add(*mib_, 15);
    if (number == 15)
      GetParam().add(*mib_, 12);
  });
  EXPECT_THAT(numbers, ElementsAre(10, 20, 15, 12, 30));
  EXPECT_EQ(left(), 2u);
}

TEST_P(DeleteAll, PassesOverWhatAListenerDeletes) {
  auto const numbers = told([this](std::uint32_t number) {
    if (number == 10)
      GetParam().deleteOne(*mib_, 20);
  });
  EXPECT_THAT(numbers, ElementsAre(10, 20, 30));
  EXPECT_EQ(left(), 0u);
}

TEST_F(TunnelMibTest, ClearsEntriesAtOnceWhenNobodyListens) {
  mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(1), 1));
  heard_ = nullptr;
  mib_->tunnelInetConfigTableDelAll();
  EXPECT_TRUE(mib_->tunnelInetConfigTable().empty());
}

TEST_F(TunnelMibTest, NotifiesTheRowsOfTwoTablesAndNotTheThirdWhenItIsDestroyed) {
  mib_->tunnelIfTableIs(1, status());
  mib_->ipsecTunnelIfTableIs(2, status(), nullptr);
  mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(3), 3));
  heard_->changes.clear();
  mib_ = nullptr;
  EXPECT_THAT(heard_->changes, ElementsAre("tunnelIfTable 1", "ipsecTunnelIfTable 2"));
  EXPECT_EQ(heard_->notifier(), nullptr);
}

TEST_F(TunnelMibTest, IsDestroyedThoughItsListenerThrows) {
  class Thrower : public Zel::Notifiee {
  public:
    explicit Thrower(TunnelMib const & mib) { notifierIs(&mib); }
    void onNotification(Zel::Notification const &) override { throw std::runtime_error("no"); }
  };
  mib_->tunnelIfTableIs(1, status());
  mib_->ipsecTunnelIfTableIs(2, status(), nullptr);
  auto const thrower = Zel::makePtr<Thrower>(*mib_);
  auto const contained = Lumo::counter("zel-exceptions-contained");
  heard_->changes.clear();
  mib_ = nullptr;
  EXPECT_EQ(heard_->changes.size(), 2u);
  EXPECT_EQ(Lumo::counter("zel-exceptions-contained"), contained + 2);
}

// Whoever writes a row sees nothing of it, and every further row is written and deleted.
TEST_F(TunnelMibTest, ContainsWhatItsListenersThrow) {
  class Thrower : public Zel::Notifiee {
  public:
    explicit Thrower(TunnelMib const & mib) { notifierIs(&mib); }
    void onNotification(Zel::Notification const &) override { throw std::runtime_error("no"); }
  };
  auto const thrower = Zel::makePtr<Thrower>(*mib_);
  std::vector<std::string> reported;
  auto const before =
      Zel::exceptionReporterIs([&](std::string_view where, std::exception const & what) {
        reported.push_back(std::string(where) + ": " + what.what());
      });
  for (std::uint32_t i = 1; i <= 3; ++i) {
    mib_->tunnelIfTableIs(i, status());
    mib_->ipsecTunnelIfTableIs(i, status(), nullptr);
    mib_->tunnelInetConfigTableIs(tunnelInetConfigTableEntryFactory(key(i), i));
  }
  EXPECT_THAT(std::vector(reported.begin(), reported.begin() + 3),
              ElementsAre("a listener of TunnelIntfSnmp::TunnelMib's tunnelIfTable: no",
                          "a listener of TunnelIntfSnmp::TunnelMib's ipsecTunnelIfTable: no",
                          "a listener of TunnelIntfSnmp::TunnelMib's tunnelInetConfigTable: no"));
  mib_->tunnelIfTableDelAll();
  mib_->ipsecTunnelIfTableDelAll();
  mib_->tunnelInetConfigTableDelAll();
  EXPECT_EQ(reported.size(), 18u);
  EXPECT_TRUE(mib_->tunnelIfTable().empty());
  EXPECT_TRUE(mib_->ipsecTunnelIfTable().empty());
  EXPECT_TRUE(mib_->tunnelInetConfigTable().empty());
  Zel::exceptionReporterIs(before);
}

TEST_F(TunnelMibTest, IsMadeByTypeNameAndReadByAttributeName) {
  auto const made =
      Zel::dynamicCast<TunnelMib>(Zel::createByTypeName("TunnelIntfSnmp::TunnelMib", "tunnelMib"));
  ASSERT_TRUE(made);
  EXPECT_EQ(made->name(), "tunnelMib");
  made->tunnelIfTableIs(7, status(70));
  auto const table = std::get<Zel::Value::Collection>(Zel::attribute(*made, "tunnelIfTable").is);
  ASSERT_EQ(table.size(), 1u);
  EXPECT_EQ(table[0].first, "7");
  auto const row = std::get<Zel::Ptr<Zel::PtrInterface const>>(table[0].second.is);
  EXPECT_EQ(std::get<std::uint64_t>(Zel::attribute(*row, "encapsMethod").is), 1u);
  EXPECT_EQ(std::get<std::string>(Zel::attribute(*row, "localAddr").is), "");
}

TEST(TunnelInetConfigTableEntry, ReadsItsColumnsFromItsKey) {
  auto const entry = tunnelInetConfigTableEntryFactory(key(4, 2), 17);
  EXPECT_EQ(entry->addrType(), 1u);
  EXPECT_EQ(entry->localAddr().size(), 4u);
  EXPECT_EQ(entry->remoteAddr().size(), 4u);
  EXPECT_EQ(entry->encapsMethod(), 2u);
  EXPECT_EQ(entry->configId(), 4u);
  EXPECT_EQ(entry->ifIndex(), 17u);
  EXPECT_EQ(entry->rowStatus(), 1u);
  EXPECT_EQ(entry->storageType(), 5u);
  EXPECT_EQ(MibEntryWrapper(entry).mibEntry(), entry);
}

} // namespace
} // namespace TunnelIntfSnmp

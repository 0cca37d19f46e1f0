// What the tests of the three table handlers share: a module served from a TunnelMib of the test's
// own, the iterator's callbacks of a table, and its handler, asked directly for what no manager can
// ask.
#pragma once

#include "TunnelIntfSnmp/TunnelIntfSnmp.h"
#include "agent/iterator/HostIterator.h"
#include "tests/handlers/FailingEncoder.h"
#include "tests/handlers/InProcessAgent.h"
#include "tests/support/TraceRecorder.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace TunnelIntfSnmp {

/// Serves a module's tables from `mib_` for as long as the test lasts.
class TableFixture : public ::testing::Test {
protected:
  using EntryPoint = void (*)(Zel::String context);

  TableFixture(EntryPoint initialise, EntryPoint unregister);
  ~TableFixture() override;

  InProcessAgent & agent_;
  Zel::Ptr<TunnelMib> mib_ = Zel::makePtr<TunnelMib>("tunnelMib");

private:
  EntryPoint const unregister_;
};

/// Requests in one call of a handler, as without the serialize handler: one for each varbind.
struct Chain {
  explicit Chain(std::size_t length, int mode = MODE_GET);
  Chain(Chain const &) = delete;
  Chain & operator=(Chain const &) = delete;
  ~Chain();
  /// Leaves in a request what the table helper and the iterator leave there. A null context: no
  /// row.
  void found(std::size_t request, void * dataContext, unsigned int column);

  netsnmp_agent_request_info agent{};
  std::vector<netsnmp_request_info> requests;
  std::vector<netsnmp_variable_list *> varbinds;
};

/// The tables found by net-snmp's table iterator and by the daemon's, one after the other.
enum class Finder { stock, daemon };
template <class Fixture>
class WithEachFinder : public Fixture, public ::testing::WithParamInterface<Finder> {
protected:
  WithEachFinder() {
    if (GetParam() == Finder::daemon) {
      EXPECT_GT(Agent::installHostIterator(), 0u);
    }
  }
};
inline auto const eachFinder = ::testing::Values(Finder::stock, Finder::daemon);
inline std::string finderName(::testing::TestParamInfo<Finder> const & info) {
  return info.param == Finder::stock ? "Stock" : "Daemon";
}

/// The iterator's callbacks of the table that `Fixture::registration()` returns, called directly.
template <class Fixture>
class WithCallbacks : public Fixture {
protected:
  WithCallbacks() {
    auto * iterator = netsnmp_find_handler_by_name(this->registration(), TABLE_ITERATOR_NAME);
    info_ = static_cast<netsnmp_iterator_info *>(iterator->myvoid);
    index_ = snmp_clone_varbind(info_->table_reginfo->indexes);
  }
  ~WithCallbacks() override {
    leave();
    snmp_free_varbind(index_);
    snmp_free_varbind(hint_.indexes);
  }

  netsnmp_variable_list const * firstRow() {
    return info_->get_first_data_point(&loop_, &data_, index_, info_);
  }
  netsnmp_variable_list const * nextRow() {
    return info_->get_next_data_point(&loop_, &data_, index_, info_);
  }
  void leave() {
    if (loop_ != &hint_ && loop_ != nullptr)
      info_->free_loop_context_at_end(loop_, info_);
    loop_ = nullptr;
  }
  void hintPart(long value) {
    snmp_varlist_add_variable(&hint_.indexes, nullptr, 0, ASN_INTEGER, &value, sizeof value);
    ++hint_.number_indexes;
  }
  void hintPart(std::vector<std::uint8_t> const & value) {
    snmp_varlist_add_variable(&hint_.indexes, nullptr, 0, ASN_OCTET_STR, value.data(),
                              value.size());
    ++hint_.number_indexes;
  }

  netsnmp_iterator_info * info_;
  netsnmp_variable_list * index_;
  netsnmp_table_request_info hint_{};
  void * loop_ = nullptr;
  void * data_ = nullptr;
};

/// The table's handler, `Fixture::handler`, called directly.
template <class Fixture>
class WithHandler : public WithCallbacks<Fixture> {
protected:
  int call(Chain & chain) {
    return Fixture::handler(nullptr, nullptr, &chain.agent, chain.requests.data());
  }
  int call() { return call(chain_); }

  /// The line that is traced when the encoder returns `length` for a column of the first row.
  std::string fault(unsigned int column, char const * encoder, int length = -1) {
    this->firstRow();
    auto * row = this->info_->make_data_context(this->loop_, this->info_);
    this->leave();
    Chain chain(1);
    chain.found(0, row, column);
    TraceRecorder traces{{"Snmp", "0,2"}};
    FailingEncoder const failing(encoder, length);
    EXPECT_EQ(call(chain), SNMP_ERR_GENERR) << column;
    EXPECT_EQ(chain.requests[0].status, SNMP_ERR_GENERR) << column;
    EXPECT_EQ(chain.varbinds[0]->type, ASN_NULL) << "nothing is answered";
    auto const line = traces.texts().back();
    this->info_->free_data_context(row, this->info_);
    return line;
  }

  Chain chain_{1};
};

} // namespace TunnelIntfSnmp

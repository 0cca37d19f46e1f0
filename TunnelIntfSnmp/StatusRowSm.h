// What the two machines have in common whose rows stand under an ifIndex and refer to a status
// record, TunnelIfTableSm and IpsecTunnelIfTableSm: how such a row is made to refer to another
// record, and how it is deleted.
#pragma once

#include "TunnelIntfSnmp/TunnelTableSm.h"
#include <cstdint>

namespace TunnelIntfSnmp {

/// `Machine` says besides:
///
///   insertRow(k1, status)       creates the row. There is none.
///   deleteRow(k1)               deletes the row, if there is one
///   isWanted(status)            whether a status is to have a row
///   traceDeletion(k1)           writes the pipeline's deletion line
template <class Machine, class Table, class KeyType>
class StatusRowSm : public TunnelTableSm<Machine, Table, KeyType> {
protected:
  using TunnelTableSm<Machine, Table, KeyType>::TunnelTableSm;

  /// What became of a row that was to refer to a status.
  enum class Written {
    asItWas,  ///< it refers to that status already
    anew,     ///< it was created, in the place of another one or of none
    overtaken ///< a listener of the old row's deletion changed what the row is made of; the events
              ///< of that have decided, as they are the later ones
  };

  /// Makes the row refer to the interface's status. A row never changes its status: the old one is
  /// deleted first.
  Written outputRowIs(std::uint32_t k1, Plexa::IntfId intfId, StatusPtr const & status) {
    if (auto const row = this->output()[k1]) {
      if (row->tunnelIntfStatus() == status)
        return Written::asItWas;
      if (!this->statusOutlives(intfId, [&] { machine().deleteRow(k1); }) ||
          !Machine::isWanted(*status) || this->output()[k1])
        return Written::overtaken;
    }
    machine().insertRow(k1, status);
    return Written::anew;
  }
  void deleteOutputRow(std::uint32_t const & k1) final {
    machine().traceDeletion(k1);
    machine().deleteRow(k1);
  }

private:
  Machine & machine() { return static_cast<Machine &>(*this); }
};

} // namespace TunnelIntfSnmp

// A world whose things are tunnels: a status and an ifIndex each, with the hop limit for a value.
#pragma once

#include "tests/sources/ContractTests.h"

class TunnelWorld : public SourceWorld {
public:
  std::vector<std::string> records(int number) const override {
    return {"/ifMib/ifIndexByIntfId/" + intfId(number),
            "/tunnelIntfStatusDir/intfStatus/" + intfId(number)};
  }
  std::string member(int number) const override { return records(number).back() + "/hopLimit"; }
  nlohmann::json shown(int value) const override { return value; }
  Zel::PtrInterface const * object(StateDb::StateDb const & database, int number) const override {
    Plexa::IntfId const key(std::stoull(intfId(number)));
    return database.tunnelIntfStatusDir()->intfStatus().find(key)->get();
  }
  std::pair<std::string, nlohmann::json> foreign() const override {
    return {"/tunnelIntfStatusDir/intfStatus/987654321", {{"tos", 9}}};
  }

protected:
  /// The id under which the source publishes the tunnel.
  virtual std::string intfId(int number) const = 0;
};

// Joins, for one tunnel at a time, the records of the three inputs and the link.
#include "agent/Tunnels.h"
#include "agent/JsonText.h"
#include "os/Text.h"
#include <utility>

namespace Agent {

using Json = nlohmann::ordered_json;

namespace {

constexpr int tunnelsInPiece = 200;

void putLink(Json & out, Sources::Link const * link) {
  if (link == nullptr)
    return;
  if (!link->name.empty())
    out["interface"] = Os::oneLine(link->name);
  out["kind"] = link->kind;
}

void putStatus(Json & out, Interface::TunnelIntfStatus const & status) {
  out["local"] = status.srcAddr().stringValue();
  out["remote"] = status.dstAddr().stringValue();
  out["mode"] = valueToStrep(status.mode());
  out["hopLimit"] = status.hopLimit();
  out["ipsec"] = status.ipsec();
}

/// The record under the key, or null where there is none, or a null one.
template <class Collection, class Key>
auto recordOf(Collection const & collection, Key const & key) {
  auto const * found = collection.find(key);
  return found == nullptr ? nullptr : found->get();
}

void putConnection(Json & out, Ipsec::Ike::Status const & ike, Plexa::IntfId intfId) {
  auto const * info = recordOf(ike.ipsecTunnelInfo(), intfId);
  if (info == nullptr)
    return;
  out["profile"] = Os::oneLine(info->profileName());
  auto const * profile = recordOf(ike.appliedProfiles(), info->profileName());
  auto const * connection =
      profile == nullptr ? nullptr : recordOf(profile->appliedIntfId(), intfId);
  if (connection != nullptr)
    out["connState"] = valueToStrep(connection->connState());
}

} // namespace

bool TunnelsWriter::next(std::string & out) {
  out += std::exchange(begun_, true) ? "" : "[";
  auto const & tunnels = database_.tunnelIntfStatusDir()->intfStatus();
  auto tunnel = last_ ? tunnels.seekBehind(*last_) : tunnels.begin();
  for (int count = 0; count != tunnelsInPiece && tunnel != tunnels.end(); ++count, ++tunnel) {
    auto const & [intfId, status] = *tunnel;
    last_ = intfId;
    if (!status)
      continue;
    Json one{{"intfId", intfId.value()}};
    putLink(one, links_.find(intfId));
    if (auto const * ifIndex = database_.ifMib()->ifIndexByIntfId().find(intfId))
      one["ifIndex"] = *ifIndex;
    putStatus(one, *status);
    putConnection(one, *database_.ikeStatus(), intfId);
    out += std::exchange(anyTunnel_, true) ? "," : "";
    out += jsonText(one);
  }
  if (tunnel != tunnels.end())
    return true;
  out += ']';
  return false;
}

} // namespace Agent

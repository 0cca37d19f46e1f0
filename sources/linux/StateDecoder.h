// Reads one XFRM message about a security association of the kernel's.
//
// Such messages carry session keys. Of the attributes that hold them only the headers are read, to
// see that there are some; nothing here copies, traces or returns what is in them.
#pragma once

#include "platform/Plexa.h"
#include "sources/linux/NetlinkMessage.h"
#include "sources/linux/XfrmFormat.h"
#include <compare>
#include <cstdint>
#include <tuple>
#include <variant>

namespace Sources::Linux {

/// By what the kernel tells states apart. Several that are being acquired have SPI 0 and differ in
/// the rest.
struct StateId {
  Plexa::IpGenAddr source{}; ///< the empty address: any
  Plexa::IpGenAddr destination{};
  std::uint8_t protocol = 0; ///< the IP protocol: 50 ESP, 51 AH, 108 IPComp
  XfrmMode mode = XfrmMode::transport;
  std::uint32_t spi = 0; ///< in the order of this machine
  std::uint32_t reqid = 0;
  std::uint32_t ifId = 0;
  Mark mark{};
  bool operator==(StateId const &) const = default;
};

/// The state is there.
struct StateIs {
  StateId id;
  /// True if and only if packets can be sent or received by it: it has its number and its keys, and
  /// has not used up what it may carry. Else it is being acquired, or dies.
  bool isUsable = false;
};
/// The state is gone: deleted, or past its life time.
struct StateGone {
  StateId id;
};
/// Nobody tells which ones are gone: all of them, as a rule.
struct StatesFlushed {};
using StateMessage =
    std::variant<StateIs, StateGone, StatesFlushed, OtherMessage, MalformedMessage>;

/// Decodes one message, from its nlmsghdr on; bytes beyond its length are ignored. Any bytes will
/// do. Requires: they begin at an address that is a multiple of 4, as in every netlink buffer.
StateMessage decodeState(Bytes message);

} // namespace Sources::Linux

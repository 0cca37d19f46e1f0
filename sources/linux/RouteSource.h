// Which address of its own the kernel would send from, for a tunnel that leaves that to the routes.
#pragma once

#include "platform/Plexa.h"
#include <functional>

namespace Sources::Linux {

/// Gives the address that packets to `remote` are sent from, of the same family; zero when no route
/// leads there now. Raises nothing.
using SourceOfRoute = std::function<Plexa::IpGenAddr(Plexa::IpGenAddr const & remote)>;

/// As the kernel's routes are at this moment. A route of a device or a mark of the tunnel's own is
/// not considered. `remote` is no zero address.
Plexa::IpGenAddr sourceTowards(Plexa::IpGenAddr const & remote);

} // namespace Sources::Linux

// Looks at the world for the checks: asks the daemon, the system and a manager's library, and reads
// the configuration. Changes nothing.
#pragma once

#include "ctl/Commands.h"
#include "ctl/doctor/Facts.h"

namespace Ctl::Doctor {

/// Takes some seconds at most, or the daemon's silence longer. Raises UsageError for arguments that
/// cannot be used.
Facts lookAround(Arguments const & arguments);

} // namespace Ctl::Doctor

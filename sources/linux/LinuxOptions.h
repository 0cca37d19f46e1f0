// What follows "linux:" on the command line.
#pragma once

#include "sources/linux/TunnelKind.h"
#include <string_view>

namespace Sources::Linux {

struct LinuxOptions {
  TunnelKindSet kinds = TunnelKindSet::defaults();
  /// The states of IPsec connections come from the kernel's security associations.
  bool hasStates = false;
};

/// "", "kinds=+vxlan,-vti", "ipsec=states", or both, with a comma between. Raises
/// std::invalid_argument, one line that says what is possible, for anything else.
LinuxOptions linuxOptionsFromText(std::string_view text);

} // namespace Sources::Linux

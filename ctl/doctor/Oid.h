// Object identifiers as configuration files write them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl::Doctor {

using Oid = std::vector<unsigned long>;

/// ".1.3.6", "1.3.6", or one of the names that configurations use for the upper nodes, with or
/// without more numbers behind it: "system", "mib-2.10". Nothing for any other text.
std::optional<Oid> oidFromText(std::string_view text);
/// ".1.3.6".
std::string oidText(Oid const & oid);
/// True if and only if `oid` is `root` or lies below it.
bool isWithin(Oid const & oid, Oid const & root);

} // namespace Ctl::Doctor

// Which sources there are.
#pragma once

#include "sources/Source.h"
#include <memory>
#include <string_view>

namespace Sources {

/// Makes the source that `text` names: "json:FILE", "linux", "linux:kinds=+vxlan,-vti", "vici",
/// "vici:/run/charon.vici,bind=office@gre1". Raises std::invalid_argument, one line that lists what
/// is possible, when it names none.
std::unique_ptr<Source> makeSource(std::string_view text, Surroundings const & surroundings);

} // namespace Sources

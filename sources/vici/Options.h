// What follows "vici" in the text that names the source.
#pragma once

#include "sources/ike/Binding.h"
#include <string>
#include <string_view>
#include <vector>

namespace Sources::Vici {

struct Options {
  std::string socket = "/run/charon.vici"; ///< its path
  std::vector<Ike::ExplicitBinding> bindings = {};
  bool operator==(Options const &) const = default;

  /// Reads [:SOCKET][,bind=CONNECTION[/CHILD]@INTERFACE]... where the first option may take the
  /// place of the socket. Raises std::invalid_argument, one line.
  static Options fromText(std::string_view text);
};

} // namespace Sources::Vici

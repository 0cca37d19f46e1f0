// What a check has found: one line for people, one object for programs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Ctl::Doctor {

/// right: nothing to do. todo: the advice says what. unknown: it cannot be told from here, and the
/// advice says how it could.
enum class Verdict : std::uint8_t { right, todo, unknown };

struct Finding {
  std::string check; ///< what was looked at, in a word or two
  Verdict verdict = Verdict::right;
  std::string what;        ///< what is so
  std::string advice = {}; ///< what to do; empty when nothing is
};
using Findings = std::vector<Finding>;

} // namespace Ctl::Doctor

// The findings as text and as JSON.
#include "ctl/doctor/Doctor.h"
#include "ctl/Client.h"
#include "ctl/Table.h"
#include "ctl/Terminal.h"
#include "ctl/doctor/Checks.h"
#include "ctl/doctor/Look.h"
#include "os/Text.h"
#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Ctl {

void doctor(Arguments const & arguments) {
  auto const findings = Doctor::checkAll(Doctor::lookAround(arguments));
  print(arguments.json ? Doctor::findingsJson(findings).dump() + '\n'
                       : Doctor::findingsText(findings, showsColours()));
  auto const count = std::ranges::count(findings, Doctor::Verdict::todo, &Doctor::Finding::verdict);
  if (count != 0)
    throw Refused(
        fmt::format("{} to do", count == 1 ? "one thing" : fmt::format("{} things", count)));
  if (Doctor::verdictOf(findings) == Doctor::Verdict::unknown)
    throw Undecided("nothing to do was found, but not all could be looked at");
}

namespace Doctor {

namespace {

struct VerdictWords {
  char const * people;
  char const * programs;
  Tone tone;
};

VerdictWords wordsFor(Verdict verdict) {
  switch (verdict) {
  case Verdict::right:
    return {"ok", "right", Tone::good};
  case Verdict::todo:
    return {"TO DO", "todo", Tone::bad};
  case Verdict::unknown:
    return {"?", "unknown", Tone::notable};
  }
  return {};
}

constexpr std::size_t longestCheck = 24;

/// The text in lines of that many columns at most, broken at blanks where there are any.
std::vector<std::string> wrapped(std::string text, std::size_t width) {
  std::vector<std::string> lines;
  while (text.size() > width) {
    auto const blank = text.rfind(' ', width);
    auto const end = blank == std::string::npos || blank == 0 ? width : blank;
    lines.push_back(text.substr(0, end));
    text.erase(0, end == blank ? end + 1 : end);
  }
  lines.push_back(std::move(text));
  return lines;
}

/// The text behind what stands before it, which is blank in all lines but the first.
std::string hanging(std::string const & before, std::size_t indent, std::string const & text) {
  std::string out;
  for (auto const & line : wrapped(Os::printable(text), pageWidth - indent))
    out += (out.empty() ? before : std::string(indent, ' ')) + line + '\n';
  return out;
}

} // namespace

std::string findingsText(Findings const & findings, bool hasColours) {
  std::size_t width = 0;
  for (auto const & one : findings)
    width = std::max(width, std::min(longestCheck, Os::printable(one.check).size()));
  std::string out;
  for (auto const & one : findings) {
    auto const verdict = wordsFor(one.verdict);
    auto const mark = coloured(fmt::format("{:<5}", verdict.people), verdict.tone, hasColours);
    auto const check = cutTo(longestCheck, Os::printable(one.check));
    auto const indent = width + 9;
    out += hanging(fmt::format("{}  {:<{}}  ", mark, check, width), indent, one.what);
    if (!one.advice.empty())
      out += hanging(std::string(indent, ' ') + "-> ", indent + 3, one.advice);
  }
  return out;
}

nlohmann::ordered_json findingsJson(Findings const & findings) {
  auto list = nlohmann::ordered_json::array();
  for (auto const & one : findings)
    list.push_back({{"check", one.check},
                    {"verdict", wordsFor(one.verdict).programs},
                    {"what", one.what},
                    {"advice", one.advice}});
  return {{"verdict", wordsFor(verdictOf(findings)).programs}, {"findings", std::move(list)}};
}

Verdict verdictOf(Findings const & findings) {
  for (auto const verdict : {Verdict::todo, Verdict::unknown})
    if (std::ranges::find(findings, verdict, &Finding::verdict) != findings.end())
      return verdict;
  return Verdict::right;
}

} // namespace Doctor
} // namespace Ctl

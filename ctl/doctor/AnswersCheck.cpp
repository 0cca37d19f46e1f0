// Does a manager get a row?
#include "ctl/doctor/Checks.h"
#include <fmt/format.h>

namespace Ctl::Doctor {

namespace {

constexpr auto otherCredentials =
    "ask as your manager does: tunnelsnmpctl doctor -- -v2c -c COMMUNITY, "
    "or -- -v3 -u USER -l authPriv -A ... -X ...";

Finding silent(Facts const & facts) {
  return {"answer", Verdict::todo,
          fmt::format("no answer from {} to {}", facts.askedAt, facts.askedAs),
          fmt::format("is snmpd there, and does it know these credentials? {}; another address: "
                      "--address",
                      otherCredentials)};
}

Finding beyond(Facts const & facts, AskedFacts const & one) {
  return {"answer", Verdict::todo,
          fmt::format("{} has rows, but a GETNEXT as {} gets {}", one.name, facts.askedAs,
                      one.answer.oid.empty() ? "nothing" : oidText(one.answer.oid)),
          fmt::format("its view leaves {} out, or another agent answers there; see the lines above",
                      oidText(one.subtree))};
}

Finding findingOf(Facts const & facts, AskedFacts const & one) {
  switch (one.answer.result) {
  case Answer::Result::noAnswer:
    return silent(facts);
  case Answer::Result::error:
    return {"answer", Verdict::todo,
            fmt::format("{} refuses {}: {}", facts.askedAt, facts.askedAs, one.answer.text),
            otherCredentials};
  case Answer::Result::value:
  case Answer::Result::nothing:
    break;
  }
  if (isWithin(one.answer.oid, one.subtree))
    return {.check = "answer",
            .what = fmt::format("{} gets {} = {}", facts.askedAs, oidText(one.answer.oid),
                                one.answer.text)};
  if (one.hasRows)
    return beyond(facts, one);
  return {.check = "answer",
          .what = fmt::format("{} answers {}; {} has no rows to show", facts.askedAt, facts.askedAs,
                              one.name)};
}

} // namespace

Findings checkAnswers(Facts const & facts) {
  if (facts.status.is_null())
    return {};
  if (!facts.hasCredentials)
    return {{"answer", Verdict::unknown,
             "no community of the configuration may be used from this machine", otherCredentials}};
  Findings findings;
  for (auto const & one : facts.asked) {
    findings.push_back(findingOf(facts, one));
    if (one.answer.result == Answer::Result::noAnswer)
      break; // the next one would say the same
  }
  return findings;
}

} // namespace Ctl::Doctor

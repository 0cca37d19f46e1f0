// Readers of policies and of states whose dumps a test writes.
#pragma once

#include "sources/linux/KernelStates.h"
#include "tests/sources/linux/KernelLinks.h"
#include "tests/sources/linux/ScriptedDumps.h"
#include <optional>
#include <utility>
#include <vector>

class ScriptedKernel : public KernelLinks {
protected:
  using Octets = LinkBytes::Octets;

  void start(std::vector<Octets> policyMessages, std::vector<Octets> stateMessages) {
    startPolicies(std::move(policyMessages), std::move(stateMessages));
    states->start();
  }
  /// What the states are is not asked for yet.
  void startPolicies(std::vector<Octets> policyMessages, std::vector<Octets> stateMessages) {
    answer(policyDumps, std::move(policyMessages));
    answer(stateDumps, std::move(stateMessages));
    Sources::Linux::IpsecPolicies::Options options;
    options.ask = [this] { return policyDumps.ask(); };
    policies.emplace(
        surroundings(), [] {},
        [this](Plexa::IntfId intfId) {
          if (states)
            states->lookAgain(intfId);
        },
        options);
    states.emplace(
        surroundings(), *policies, [] {}, [this] { return stateDumps.ask(); });
    policies->start();
  }
  static void answer(ScriptedDumps & dumps, std::vector<Octets> messages) {
    messages.push_back(ScriptedDumps::done());
    dumps.answerIs(messages);
  }

  ScriptedDumps policyDumps;
  ScriptedDumps stateDumps;
  std::optional<Sources::Linux::IpsecPolicies> policies;
  std::optional<Sources::Linux::KernelStates> states;
};

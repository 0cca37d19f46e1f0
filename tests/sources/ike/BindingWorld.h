// Links, connections and SAs, in few words.
#pragma once

#include "sources/Links.h"
#include "sources/ike/Binding.h"
#include "sources/ike/LinkIndex.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace Sources::Ike {

using ::Ipsec::Ike::ConnState;

inline Plexa::IpGenAddr address(std::string_view text) {
  return Plexa::IpGenAddr::fromString(text).value();
}

inline std::vector<Selector> selectors(std::vector<std::string> const & texts) {
  std::vector<Selector> all;
  for (auto const & text : texts)
    all.push_back(selectorFromText(text).value());
  return all;
}

/// Between 10.9.0.1 and 10.9.0.2.
inline Link link(std::uint64_t id, std::string name, std::string_view kind) {
  return {.intfId = Plexa::IntfId(id),
          .name = std::move(name),
          .kind = kind,
          .local = address("10.9.0.1"),
          .remote = address("10.9.0.2")};
}

inline Link xfrmLink(std::uint64_t id, std::string name, std::uint32_t ifId) {
  return {.intfId = Plexa::IntfId(id), .name = std::move(name), .kind = "xfrm", .ifId = ifId};
}

inline Link vtiLink(std::uint64_t id, std::string name, std::uint32_t key) {
  auto vti = link(id, std::move(name), "vti");
  vti.inputKey = vti.outputKey = key;
  return vti;
}

/// In transport mode, as "dynamic[gre]" becomes.
inline ChildSa transportChild(std::string const & protocol = "gre") {
  return {.name = "k",
          .state = ChildState::installed,
          .mode = Mode::transport,
          .local = selectors({"10.9.0.1/32[" + protocol + "]"}),
          .remote = selectors({"10.9.0.2/32[" + protocol + "]"})};
}

/// For everything, in tunnel mode.
inline ChildSa routedChild(std::string name = "k") {
  return {.name = std::move(name),
          .state = ChildState::installed,
          .mode = Mode::tunnel,
          .local = selectors({"0.0.0.0/0"}),
          .remote = selectors({"0.0.0.0/0"})};
}

inline ChildSa withIfId(ChildSa child, std::uint32_t ifId) {
  child.ifIdIn = child.ifIdOut = ifId;
  return child;
}

inline ChildSa withMark(ChildSa child, std::uint32_t mark) {
  child.markIn = child.markOut = mark;
  return child;
}

/// Established between 10.9.0.1 and 10.9.0.2.
inline IkeSa sa(std::string connection, std::vector<ChildSa> children = {}) {
  return {.connection = std::move(connection),
          .state = IkeState::established,
          .local = address("10.9.0.1"),
          .remote = address("10.9.0.2"),
          .children = std::move(children)};
}

/// Between 10.9.0.1 and 10.9.0.2.
inline Connection connection(std::string name, std::vector<ChildConfig> children = {}) {
  return {.name = std::move(name),
          .local = {address("10.9.0.1")},
          .remote = {address("10.9.0.2")},
          .children = std::move(children)};
}

inline ChildConfig greConfig() {
  return {.name = "k",
          .mode = Mode::transport,
          .local = selectors({"dynamic[gre]"}),
          .remote = selectors({"dynamic[gre]"})};
}

inline ChildConfig routedConfig(std::string name = "k") {
  return {.name = std::move(name),
          .mode = Mode::tunnel,
          .local = selectors({"0.0.0.0/0"}),
          .remote = selectors({"0.0.0.0/0"})};
}

class BindingWorld : public testing::Test {
protected:
  Bindings bind() const {
    std::vector<ExplicitBinding> bindings;
    for (auto const & text : explicitly)
      bindings.push_back(explicitBindingFromText(text));
    Binding binding(index, bindings);
    for (auto const & one : connections)
      binding.connectionIs(one);
    for (auto const & one : sas)
      binding.saIs(one);
    return std::move(binding).result();
  }

  /// The only report's reason.
  std::string reason() const {
    auto const reports = bind().reports;
    return reports.size() == 1 ? reports.front().reason
                               : std::to_string(reports.size()) + " reports";
  }

  Links links;
  LinkIndex const index{links};
  std::vector<std::string> explicitly;
  std::vector<Connection> connections;
  std::vector<IkeSa> sas;
};

/// "g1: gre-ab up selectors", in order of the links' ids.
inline std::vector<std::string> told(Links const & links, Bindings const & bindings) {
  std::vector<std::string> lines;
  for (auto const & [intfId, bound] : bindings.interfaces)
    lines.push_back(links.find(intfId)->name + ": " + bound.profile + " " +
                    valueToStrep(bound.state) + " " + std::string(ruleText(bound.rule)));
  return lines;
}

inline std::string told(ConnectionReport const & report) {
  return report.connection + "/" + report.child + " " + valueToStrep(report.state) + " " +
         report.interface + " (" + report.reason + ")";
}

inline std::vector<std::string> told(std::vector<ConnectionReport> const & reports) {
  std::vector<std::string> lines;
  for (auto const & report : reports)
    lines.push_back(told(report));
  return lines;
}

} // namespace Sources::Ike

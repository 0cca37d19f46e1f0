// The answers of strongSwan differ in their keys only: an object, its children, and in each of
// them values and lists.
#include "sources/vici/Listing.h"
#include "os/Text.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <utility>

namespace Sources::Vici {

namespace {

Lumo::Counter unreadableFields("vici-fields-unreadable");
Lumo::Counter selectorsLeftOut("vici-selectors-left-out");

/// Of a text from the daemon that people see, so much is kept.
constexpr std::size_t longestShown = 200;

constexpr int decimal = 10;
constexpr int hexadecimal = 16;

/// Finds out on which level an element stands: in an object, which a section at the top is, or in
/// one of its children, which stand in a section of a certain name.
class ObjectVisitor : public Visitor {
public:
  explicit ObjectVisitor(std::string_view childrenName) : childrenName_(childrenName) {}

  void sectionBegins(std::string_view name) final;
  void sectionEnds() final { --depth_; }
  void value(std::string_view key, std::string_view value) final;
  void item(std::string_view list, std::string_view value) final;

private:
  static constexpr int objects = 1; // depth in an object
  static constexpr int groups = 2;
  static constexpr int children = 3;

  virtual void objectBegins(std::string_view name) = 0;
  virtual void objectHas(std::string_view key, std::string_view value) = 0;
  virtual void objectLists(std::string_view list, std::string_view value) = 0;
  virtual void childBegins(std::string_view name) = 0;
  virtual void childHas(std::string_view key, std::string_view value) = 0;
  virtual void childLists(std::string_view list, std::string_view value) = 0;

  bool isInChild() const { return depth_ == children && isAmongChildren_; }

  std::string_view const childrenName_;
  int depth_ = 0;
  bool isAmongChildren_ = false;
};

class SaVisitor final : public ObjectVisitor {
public:
  explicit SaVisitor(std::vector<Ike::IkeSa> & sas) : ObjectVisitor("child-sas"), sas_(sas) {}

private:
  void objectBegins(std::string_view name) override;
  void objectHas(std::string_view key, std::string_view value) override;
  void objectLists(std::string_view, std::string_view) override {}
  void childBegins(std::string_view name) override;
  void childHas(std::string_view key, std::string_view value) override;
  void childLists(std::string_view list, std::string_view value) override;

  Ike::IkeSa & sa() { return sas_.back(); }
  Ike::ChildSa & child() { return sa().children.back(); }

  std::vector<Ike::IkeSa> & sas_;
  bool isSaWrong_ = false;    // the last one has a field that cannot be read
  bool isChildWrong_ = false; // its last child has
  std::size_t selectors_ = 0;
};

class ConnectionVisitor final : public ObjectVisitor {
public:
  explicit ConnectionVisitor(std::vector<Ike::Connection> & connections)
      : ObjectVisitor("children"),
        connections_(connections) {}

private:
  void objectBegins(std::string_view name) override;
  void objectHas(std::string_view, std::string_view) override {}
  void objectLists(std::string_view list, std::string_view value) override;
  void childBegins(std::string_view name) override;
  void childHas(std::string_view key, std::string_view value) override;
  void childLists(std::string_view list, std::string_view value) override;

  Ike::Connection & connection() { return connections_.back(); }
  Ike::ChildConfig & child() { return connection().children.back(); }

  std::vector<Ike::Connection> & connections_;
  std::size_t selectors_ = 0;
};

/// Keeps the values at the top of a message.
class ValueVisitor final : public Visitor {
public:
  void sectionBegins(std::string_view) override { ++depth_; }
  void sectionEnds() override { --depth_; }
  void value(std::string_view key, std::string_view value) override;
  void item(std::string_view, std::string_view) override {}
  /// Printable, one line, and no longer than fits; empty when it is not there.
  std::string shown(std::string_view key) const;

private:
  std::map<std::string_view, std::string_view> values_;
  int depth_ = 0;
};

std::optional<Ike::IkeState> ikeStateOf(std::string_view word);
std::optional<Ike::ChildState> childStateOf(std::string_view word);
Ike::Mode modeOf(std::string_view word);
std::optional<std::uint32_t> numberOf(std::string_view text, int base);
std::optional<std::uint32_t> markOf(std::string_view text);
std::optional<Plexa::IpGenAddr> hostOf(std::string_view text);
void addSelector(std::vector<Ike::Selector> & to, std::string_view text, std::size_t & count);

} // namespace

std::vector<Ike::IkeSa> decodeSas(Octets message) {
  std::vector<Ike::IkeSa> sas;
  SaVisitor visitor(sas);
  decodeElements(message, visitor);
  std::erase_if(sas, [](Ike::IkeSa const & sa) { return sa.connection == "(unnamed)"; });
  return sas;
}

std::vector<Ike::Connection> decodeConnections(Octets message) {
  std::vector<Ike::Connection> connections;
  ConnectionVisitor visitor(connections);
  decodeElements(message, visitor);
  return connections;
}

std::string decodeVersion(Octets message) {
  ValueVisitor values;
  decodeElements(message, values);
  auto const version = values.shown("version");
  return version.empty() ? "strongSwan" : "strongSwan " + version;
}

std::string decodeError(Octets message) {
  ValueVisitor values;
  decodeElements(message, values);
  if (values.shown("success") != "no")
    return "";
  auto const error = values.shown("errmsg");
  return error.empty() ? "it does not say why" : error;
}

namespace {

void ObjectVisitor::sectionBegins(std::string_view name) {
  ++depth_;
  if (depth_ == objects)
    objectBegins(name);
  if (depth_ == groups)
    isAmongChildren_ = name == childrenName_;
  if (isInChild())
    childBegins(name);
}

void ObjectVisitor::value(std::string_view key, std::string_view value) {
  if (depth_ == objects)
    objectHas(key, value);
  if (isInChild())
    childHas(key, value);
}

void ObjectVisitor::item(std::string_view list, std::string_view value) {
  if (depth_ == objects)
    objectLists(list, value);
  if (isInChild())
    childLists(list, value);
}

// Security associations

/// Stores what was read. What could not be read makes the owner's state unknown for good.
template <class Value, class Read, class Owner>
void store(Value & value, std::optional<Read> const & read, Owner & owner, bool & isWrong) {
  if (read) {
    value = *read;
  } else {
    unreadableFields.inc();
    isWrong = true;
  }
  if (isWrong)
    owner.state = decltype(owner.state)::unknown;
}

void SaVisitor::objectBegins(std::string_view name) {
  sas_.emplace_back().connection = Os::printable(name);
  isSaWrong_ = false;
}

void SaVisitor::objectHas(std::string_view key, std::string_view value) {
  if (key == "uniqueid")
    store(sa().uniqueId, numberOf(value, decimal), sa(), isSaWrong_);
  else if (key == "state")
    store(sa().state, ikeStateOf(value), sa(), isSaWrong_);
  else if (key == "local-host")
    store(sa().local, hostOf(value), sa(), isSaWrong_);
  else if (key == "remote-host")
    store(sa().remote, hostOf(value), sa(), isSaWrong_);
}

// Its own name is followed by a number in that of the section.
void SaVisitor::childBegins(std::string_view name) {
  sa().children.emplace_back().name = Os::printable(name);
  isChildWrong_ = false;
}

void SaVisitor::childHas(std::string_view key, std::string_view value) {
  if (key == "name")
    child().name = Os::printable(value.substr(0, longestName));
  else if (key == "uniqueid")
    store(child().uniqueId, numberOf(value, decimal), child(), isChildWrong_);
  else if (key == "state")
    store(child().state, childStateOf(value), child(), isChildWrong_);
  else if (key == "mode")
    child().mode = modeOf(value);
  else if (key == "if-id-in")
    store(child().ifIdIn, numberOf(value, hexadecimal), child(), isChildWrong_);
  else if (key == "if-id-out")
    store(child().ifIdOut, numberOf(value, hexadecimal), child(), isChildWrong_);
  else if (key == "mark-in")
    store(child().markIn, markOf(value), child(), isChildWrong_);
  else if (key == "mark-out")
    store(child().markOut, markOf(value), child(), isChildWrong_);
}

void SaVisitor::childLists(std::string_view list, std::string_view value) {
  if (list == "local-ts")
    addSelector(child().local, value, selectors_);
  if (list == "remote-ts")
    addSelector(child().remote, value, selectors_);
}

// Connections

void ConnectionVisitor::objectBegins(std::string_view name) {
  connections_.emplace_back().name = Os::printable(name);
}

// Anything but an address is a name, a range or a prefix.
void ConnectionVisitor::objectLists(std::string_view list, std::string_view value) {
  auto const address = Plexa::IpGenAddr::fromString(value);
  if (!address || address->isAddrZero())
    return;
  if (list == "local_addrs")
    connection().local.push_back(*address);
  if (list == "remote_addrs")
    connection().remote.push_back(*address);
}

void ConnectionVisitor::childBegins(std::string_view name) {
  connection().children.emplace_back().name = Os::printable(name);
}

void ConnectionVisitor::childHas(std::string_view key, std::string_view value) {
  if (key == "mode")
    child().mode = modeOf(value);
}

void ConnectionVisitor::childLists(std::string_view list, std::string_view value) {
  if (list == "local-ts")
    addSelector(child().local, value, selectors_);
  if (list == "remote-ts")
    addSelector(child().remote, value, selectors_);
}

// Values

void ValueVisitor::value(std::string_view key, std::string_view value) {
  if (depth_ == 0)
    values_[key] = value;
}

std::string ValueVisitor::shown(std::string_view key) const {
  auto const found = values_.find(key);
  return found == values_.end() ? "" : Os::oneLine(found->second.substr(0, longestShown));
}

template <class Value, std::size_t count>
std::optional<Value> lookUp(std::pair<std::string_view, Value> const (&table)[count],
                            std::string_view word) {
  auto const * const found = std::ranges::find(table, word, [](auto const & e) { return e.first; });
  return found == std::end(table) ? std::nullopt : std::optional(found->second);
}

std::optional<Ike::IkeState> ikeStateOf(std::string_view word) {
  using enum Ike::IkeState;
  static constexpr std::pair<std::string_view, Ike::IkeState> table[] = {
      {"CREATED", created},   {"CONNECTING", connecting}, {"ESTABLISHED", established},
      {"PASSIVE", passive},   {"REKEYING", rekeying},     {"REKEYED", rekeyed},
      {"DELETING", deleting}, {"DESTROYING", destroying}};
  return lookUp(table, word);
}

std::optional<Ike::ChildState> childStateOf(std::string_view word) {
  using enum Ike::ChildState;
  static constexpr std::pair<std::string_view, Ike::ChildState> table[] = {
      {"CREATED", created},     {"ROUTED", routed},        {"INSTALLING", installing},
      {"INSTALLED", installed}, {"UPDATING", updating},    {"REKEYING", rekeying},
      {"REKEYED", rekeyed},     {"RETRYING", retrying},    {"DELETING", deleting},
      {"DELETED", deleted},     {"DESTROYING", destroying}};
  return lookUp(table, word);
}

Ike::Mode modeOf(std::string_view word) {
  using enum Ike::Mode;
  static constexpr std::pair<std::string_view, Ike::Mode> table[] = {
      {"TUNNEL", tunnel}, {"TRANSPORT", transport}, {"BEET", beet}};
  return lookUp(table, word).value_or(other);
}

std::optional<std::uint32_t> numberOf(std::string_view text, int base) {
  std::uint32_t number = 0;
  auto const * const end = text.data() + text.size();
  auto const [rest, error] = std::from_chars(text.data(), end, number, base);
  auto const isNumber = error == std::errc() && rest == end;
  return isNumber ? std::optional(number) : std::nullopt;
}

// "00000009", or with the mask behind it: "00000009/ffffffff".
std::optional<std::uint32_t> markOf(std::string_view text) {
  auto const slash = text.find('/');
  if (slash != std::string_view::npos && !numberOf(text.substr(slash + 1), hexadecimal))
    return std::nullopt;
  return numberOf(text.substr(0, slash), hexadecimal);
}

// "%any" while the daemon does not know it yet.
std::optional<Plexa::IpGenAddr> hostOf(std::string_view text) {
  if (text == "%any" || text == "%any6")
    return Plexa::IpGenAddr();
  auto const address = Plexa::IpGenAddr::fromString(text);
  auto const isHost = address && address->family() != Plexa::AddressFamily::none;
  return isHost ? address : std::nullopt;
}

void addSelector(std::vector<Ike::Selector> & to, std::string_view text, std::size_t & count) {
  auto const selector = count == mostSelectors ? std::nullopt : Ike::selectorFromText(text);
  if (!selector)
    return selectorsLeftOut.inc();
  ++count;
  to.push_back(*selector);
}

} // namespace

} // namespace Sources::Vici

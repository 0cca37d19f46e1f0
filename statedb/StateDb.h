// The state database: entities mounted at paths, inside this process.
//
// It owns what it mounts. The input entities are its own; a plug-in's entities are created by type
// name and reached by path, so that nobody includes the plug-in's headers. StateDocument.h shows
// and changes the inputs as one JSON document.
#pragma once

#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include "platform/Zel.h"
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace StateDb {

/// An entity that sources publish in, and its name: its path in the database, and its place in the
/// document.
template <class E>
struct Input {
  using Entity = E;
  std::string_view name;
};
/// All of them, in the order of the document.
inline constexpr std::tuple inputs{
    Input<Interface::TunnelIntfStatusDir>{"tunnelIntfStatusDir"},
    Input<IntfSnmp::IfMib>{"ifMib"},
    Input<Ipsec::Ike::Status>{"ikeStatus"},
};

/// A path is names joined by "/", without one at either end: "snmp/tunnelIntf/tunnelMib".
class StateDb {
public:
  /// Mounts each of the inputs, empty, at its name.
  StateDb();
  StateDb(StateDb const &) = delete;
  StateDb & operator=(StateDb const &) = delete;
  ~StateDb();

  /// Mounts the entity. Raises std::invalid_argument when the path is malformed, taken, or below or
  /// above a mounted one, or the entity is null.
  void mount(std::string_view path, Zel::Ptr<Zel::Entity> entity);
  /// Makes an entity of that type, named as the last name of the path, and mounts it. Raises what
  /// Zel::createByTypeName raises, and std::invalid_argument as mount does or for no entity type.
  Zel::Ptr<Zel::Entity> create(std::string_view path, std::string_view typeName);
  /// Releases the entity at the path; does nothing when there is none.
  void unmount(std::string_view path);
  /// The entity at exactly that path, or null.
  Zel::Ptr<Zel::Entity> lookup(std::string_view path) const;
  /// The mounted paths in order.
  std::vector<std::string> paths() const;

  template <class Entity>
  Zel::Ptr<Entity> const & input() const {
    return std::get<Zel::Ptr<Entity>>(inputs_);
  }
  auto const & tunnelIntfStatusDir() const { return input<Interface::TunnelIntfStatusDir>(); }
  auto const & ifMib() const { return input<IntfSnmp::IfMib>(); }
  auto const & ikeStatus() const { return input<Ipsec::Ike::Status>(); }

private:
  void requireFree(std::string_view path) const;

  template <class... Entity>
  static std::tuple<Zel::Ptr<Entity>...> make(std::tuple<Input<Entity>...> const & list) {
    return {Zel::makePtr<Entity>(std::get<Input<Entity>>(list).name)...};
  }
  decltype(make(inputs)) const inputs_ = make(inputs);
  std::map<std::string, Zel::Ptr<Zel::Entity>, std::less<>> mounted_;
};

} // namespace StateDb

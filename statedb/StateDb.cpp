// Mounting and looking up; the entities themselves do everything else.
#include "statedb/StateDb.h"
#include <fmt/format.h>
#include <stdexcept>

namespace StateDb {

namespace {

bool wellFormed(std::string_view path) {
  return !path.empty() && path.front() != '/' && path.back() != '/' &&
         path.find("//") == std::string_view::npos;
}

bool isBelow(std::string_view path, std::string_view other) {
  return path.size() > other.size() && path.starts_with(other) && path[other.size()] == '/';
}

} // namespace

StateDb::StateDb() {
  std::apply([this](auto const &... input) { (mount(input->name(), input), ...); }, inputs_);
}

StateDb::~StateDb() = default;

void StateDb::mount(std::string_view path, Zel::Ptr<Zel::Entity> entity) {
  requireFree(path);
  if (!entity)
    throw std::invalid_argument(
        fmt::format("mount path \"{}\": there is no entity to mount", path));
  mounted_.emplace(path, std::move(entity));
}

Zel::Ptr<Zel::Entity> StateDb::create(std::string_view path, std::string_view typeName) {
  requireFree(path);
  auto const name = path.substr(path.rfind('/') + 1); // all of it when there is no "/"
  auto entity = Zel::dynamicCast<Zel::Entity>(Zel::createByTypeName(typeName, name));
  if (!entity)
    throw std::invalid_argument(
        fmt::format("mount path \"{}\": {} is no entity type", path, typeName));
  mount(path, entity);
  return entity;
}

void StateDb::unmount(std::string_view path) {
  if (auto const found = mounted_.find(path); found != mounted_.end())
    mounted_.erase(found);
}

Zel::Ptr<Zel::Entity> StateDb::lookup(std::string_view path) const {
  auto const found = mounted_.find(path);
  return found == mounted_.end() ? nullptr : found->second;
}

std::vector<std::string> StateDb::paths() const {
  std::vector<std::string> paths;
  for (auto const & [path, entity] : mounted_)
    paths.push_back(path);
  return paths;
}

void StateDb::requireFree(std::string_view path) const {
  if (!wellFormed(path))
    throw std::invalid_argument(
        fmt::format("mount path \"{}\": must be names joined by \"/\", like snmp/tunnels", path));
  for (auto const & [other, entity] : mounted_)
    if (path == other || isBelow(path, other) || isBelow(other, path))
      throw std::invalid_argument(fmt::format(
          "mount path \"{}\": \"{}\" is mounted already; unmount it first", path, other));
}

} // namespace StateDb

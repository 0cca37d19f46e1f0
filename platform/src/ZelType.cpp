// The registry of modules and the generic access to attributes.
#include "platform/Lumo.h"
#include "platform/zel/Type.h"
#include <algorithm>

namespace Zel {

namespace {

// Made on first use: modules register while libraries are being loaded, in no order of ours.
std::vector<Module const *> & registry() {
  static std::vector<Module const *> modules;
  return modules;
}

Attribute const & find(PtrInterface const & object, std::string_view name) {
  auto const attributes = object.type().attributes;
  auto const found = std::find_if(attributes.begin(), attributes.end(),
                                  [name](auto * attribute) { return attribute->name == name; });
  if (found == attributes.end())
    throw GenericAccessError(fmt::format("{} has no attribute {}", object.type().name, name));
  return **found;
}

} // namespace

zelModuleIs::zelModuleIs(Module const & module, PlatformInterface<platformInterface>)
    : module_(module) {
  for (auto const * type : module.types)
    LUMO_ASSERT(typeByName(type->name) == nullptr, "type {} is defined twice", type->name);
  registry().push_back(&module);
}

zelModuleIs::~zelModuleIs() {
  std::erase(registry(), &module_);
}

std::vector<Module const *> modules() {
  return registry();
}

Type const * typeByName(std::string_view name) {
  for (auto const * module : registry())
    for (auto const * type : module->types)
      if (type->name == name)
        return type;
  return nullptr;
}

Ptr<PtrInterface> createByTypeName(std::string_view typeName, std::string_view name) {
  auto const * type = typeByName(typeName);
  if (type == nullptr)
    throw GenericAccessError(fmt::format("no loaded module defines the type {}", typeName));
  if (type->factory == nullptr)
    throw GenericAccessError(fmt::format("the type {} cannot be made from a name", typeName));
  return type->factory(name);
}

Value attribute(PtrInterface const & object, std::string_view name) {
  auto const & attribute = find(object, name);
  if (attribute.get == nullptr)
    throw GenericAccessError(
        fmt::format("attribute {} of {} cannot be read by name", name, object.type().name));
  return attribute.get(object);
}

Ptr<PtrInterface> attributeIs(PtrInterface & object, std::string_view name,
                              std::span<Ptr<PtrInterface> const> arguments) {
  auto const & attribute = find(object, name);
  if (attribute.is == nullptr)
    throw GenericAccessError(
        fmt::format("attribute {} of {} cannot be set by name", name, object.type().name));
  return attribute.is(object, arguments);
}

void attributeDel(PtrInterface & object, std::string_view name) {
  auto const & attribute = find(object, name);
  if (attribute.del == nullptr)
    throw GenericAccessError(
        fmt::format("attribute {} of {} cannot be removed by name", name, object.type().name));
  attribute.del(object);
}

} // namespace Zel

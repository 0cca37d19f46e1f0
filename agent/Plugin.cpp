// dlopen, and the walk over the modules that the library has enrolled with Snmp. Kept apart from
// the agent so that all that is asked of a plug-in by name stands in one place.
#include "agent/Plugin.h"
#include "platform/Lumo.h"
#include "platform/Snmp.h"
#include <dlfcn.h>
#include <fmt/format.h>
#include <stdexcept>

namespace Agent {

namespace {
void * load(std::string const & file) {
  // A name without a slash would be searched for in the system's directories.
  auto const path = file.find('/') == std::string::npos ? "./" + file : file;
  if (auto * const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); library != nullptr)
    return library;
  throw std::runtime_error(
      fmt::format("cannot load the plug-in: {}; name the file with --plugin", dlerror()));
}
} // namespace

Plugin::Plugin(std::string file) : file_(std::move(file)), library_(load(file_)) {}

Plugin::~Plugin() {
  dlclose(library_);
}

void Plugin::registerMibs() {
  for (auto * const module : Snmp::handlerRegistrations())
    module->initHandler("");
}

void Plugin::unregisterMibs() {
  for (auto const & [module, context] : Snmp::mibContexts()) {
    auto const name = "unregister_" + module;
    using Unregister = void (*)(Zel::String);
    auto const unregister = reinterpret_cast<Unregister>(dlsym(library_, name.c_str()));
    LUMO_ASSERT(unregister != nullptr, "the plug-in {} exports no {}", file_, name);
    unregister(context);
  }
}

} // namespace Agent

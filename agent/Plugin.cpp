// dlopen, and the walk over the modules that the library has enrolled with Snmp. Kept apart from
// the agent so that all that is asked of a plug-in by name stands in one place.
#include "agent/Plugin.h"
#include "platform/Lumo.h"
#include "platform/Snmp.h"
#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>
#include <stdexcept>
#include <string_view>

namespace Agent {

namespace {

// The number of the interface that a library misses according to the dynamic linker, or an empty
// text if it misses something else.
std::string_view missingInterface(std::string_view error) {
  constexpr std::string_view before = "PlatformInterfaceILj"; // in the name of a symbol
  auto const found = error.find(before);
  if (found == std::string_view::npos)
    return {};
  auto const number = error.substr(found + before.size());
  return number.substr(0, number.find_first_not_of("0123456789"));
}

std::string refusal(std::string const & path, std::string_view error) {
  if (auto const number = missingInterface(error); !number.empty())
    return fmt::format(
        "cannot load the plug-in: {}: it was built for interface {} of platform/, and "
        "this program has interface {}; build it with the headers of this program",
        path, number, Zel::platformInterface);
  return fmt::format("cannot load the plug-in: {}; name the file with --plugin", error);
}

void * load(std::string const & file) {
  // A name without a slash would be searched for in the system's directories.
  auto const path = file.find('/') == std::string::npos ? "./" + file : file;
  if (auto * const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); library != nullptr)
    return library;
  throw std::runtime_error(refusal(path, dlerror()));
}

} // namespace

Plugin::Plugin(std::string file) : file_(std::move(file)), library_(load(file_)) {}

Plugin::~Plugin() {
  dlclose(library_);
}

bool Plugin::contains(void const * function) const {
  link_map * ours = nullptr;
  link_map * its = nullptr;
  Dl_info information{};
  return dlinfo(library_, RTLD_DI_LINKMAP, &ours) == 0 &&
         dladdr1(function, &information, reinterpret_cast<void **>(&its), RTLD_DL_LINKMAP) != 0 &&
         ours == its;
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

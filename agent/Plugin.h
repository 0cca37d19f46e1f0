// Loads the plug-in library and has it register and unregister its MIB modules.
//
// The daemon knows nothing of the library but the names by which it is reached: the types that it
// made known to the object framework, the modules that it enrolled, and for each module NAME an
// exported function unregister_NAME(context).
#pragma once

#include <string>

namespace Agent {

/// A loaded library. Before its end everything that the library made must be gone: its MIB
/// registrations and every object of its types.
class Plugin {
public:
  /// Loads the file with every symbol resolved. Raises std::runtime_error, one line with the file
  /// and the reason: a library that was built for another Zel::platformInterface is one.
  explicit Plugin(std::string file);
  Plugin(Plugin const &) = delete;
  Plugin & operator=(Plugin const &) = delete;
  ~Plugin();

  std::string const & file() const { return file_; }
  /// True if and only if the function at that address is the library's.
  bool contains(void const * function) const;
  /// Has every enrolled module serve the default context. Requires: none is registered.
  void registerMibs();
  /// Undoes that for every announced module and context. A library that does not export a module's
  /// function is fatal: unloaded with a registration in place, it would be called all the same.
  void unregisterMibs();

private:
  std::string const file_;
  void * const library_;
};

} // namespace Agent

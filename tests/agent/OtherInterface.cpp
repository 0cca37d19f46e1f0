// A plug-in as one that was built with other headers of platform/: it asks for their number. Of its
// code nothing may run.
#include <cstdlib>

namespace Zel {
struct Module {};
template <unsigned Number>
struct PlatformInterface {};
class zelModuleIs {
public:
  explicit zelModuleIs(Module const & module, PlatformInterface<987> = {});
};
} // namespace Zel

namespace {

// Volatile: a call that surely ends the process would have the compiler leave out what follows, and
// with it the symbol that is asked for.
bool volatile anyCodeRuns = true;

Zel::Module const & moduleRecord() {
  static Zel::Module const record;
  if (anyCodeRuns)
    std::abort();
  return record;
}
Zel::zelModuleIs const module(moduleRecord());

} // namespace

// A plug-in as one that was built with other headers of platform/: it asks for their number. Of its
// code nothing may run.
#include <cstdlib>

namespace Zel {
struct Module;
template <unsigned Number>
struct PlatformInterface {};
class zelModuleIs {
public:
  explicit zelModuleIs(Module const & module, PlatformInterface<987> = {});
};
} // namespace Zel

namespace {

Zel::Module const & moduleRecord() {
  std::abort();
}
Zel::zelModuleIs const module(moduleRecord());

} // namespace

// A small SNMP agent of somebody's own that loads the tunnel tables as a plug-in. It knows of one
// tunnel, which stands here as a constant; a real agent would follow its system's tunnels.
//
// Everything runs on one thread. What such an agent must give the plug-in is told in the README of
// the headers that begin with platform/.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "platform/Interface.h"
#include "platform/IntfSnmp.h"
#include "platform/Ipsec.h"
#include "platform/Kiln.h"
#include "platform/Snmp.h"
#include <array>
#include <csignal>
#include <cstdio>
#include <dlfcn.h>
#include <stdexcept>
#include <string>

namespace {

volatile std::sig_atomic_t ended = 0;

/// The library with the tables, from its load to its unloading.
class Plugin {
public:
  explicit Plugin(char const * file) : library_(dlopen(file, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr)
      throw std::runtime_error(dlerror());
  }
  Plugin(Plugin const &) = delete;
  Plugin & operator=(Plugin const &) = delete;
  ~Plugin() { dlclose(library_); }

  void registerMibs() const {
    for (auto * const module : Snmp::handlerRegistrations())
      module->initHandler("");
  }
  void unregisterMibs() const {
    for (auto const & [module, context] : Snmp::mibContexts()) {
      using Unregister = void (*)(Zel::String);
      auto const name = "unregister_" + module;
      reinterpret_cast<Unregister>(dlsym(library_, name.c_str()))(context);
    }
  }

private:
  void * const library_;
};

/// The inputs that the plug-in reads, and the objects of the plug-in that serve what it made of
/// them. Its rows follow the inputs by themselves.
class Tunnels {
public:
  Tunnels() {
    SnmpUtil::entityRootIs([this](std::string_view path) {
      return path == "snmp/tunnelIntf/tunnelMib" ? mib_ : nullptr;
    });
    std::array<Zel::Ptr<Zel::PtrInterface>, 4> const inputs{mib_, statuses_, ifMib_, ike_};
    Zel::attributeIs(*root_, "tunnelIntfSnmpAgent", inputs);
  }
  Tunnels(Tunnels const &) = delete;
  Tunnels & operator=(Tunnels const &) = delete;
  ~Tunnels() {
    Zel::attributeDel(*root_, "tunnelIntfSnmpAgent");
    SnmpUtil::entityRootIs({});
  }

  void add(std::uint32_t ifIndex, Interface::TunnelIntfStatusValues const & values) {
    Plexa::IntfId const name(ifIndex);
    ifMib_->ifIndexByIntfIdIs(name, ifIndex);
    statuses_->intfStatusIs(name, Zel::makePtr<Interface::TunnelIntfStatus>(name, values));
  }

private:
  static Zel::Ptr<Zel::Entity> create(std::string_view type, std::string_view name) {
    return Zel::dynamicCast<Zel::Entity>(Zel::createByTypeName(type, name));
  }

  Zel::Ptr<Interface::TunnelIntfStatusDir> const statuses_ =
      Zel::makePtr<Interface::TunnelIntfStatusDir>("tunnelIntfStatusDir");
  Zel::Ptr<IntfSnmp::IfMib> const ifMib_ = Zel::makePtr<IntfSnmp::IfMib>("ifMib");
  Zel::Ptr<Ipsec::Ike::Status> const ike_ = Zel::makePtr<Ipsec::Ike::Status>("ikeStatus");
  Zel::Ptr<Zel::Entity> const mib_ = create("TunnelIntfSnmp::TunnelMib", "tunnelMib");
  Zel::Ptr<Zel::Entity> const root_ = create("TunnelIntfSnmp::Root", "root");
};

/// net-snmp as an agent of its own: it serves at that address, to community "public" from loopback.
class NetSnmp {
public:
  explicit NetSnmp(char const * address) {
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, address);
    char noSmux[] = "-smux"; // another protocol, whose port would be open to everybody
    add_to_init_list(noSmux);
    init_agent("tunnelhost");
    char access[] = "rocommunity public 127.0.0.1";
    netsnmp_config_remember(access);
    init_snmp("tunnelhost");
    if (init_master_agent() != 0)
      throw std::runtime_error(std::string("cannot listen on ") + address);
  }
  NetSnmp(NetSnmp const &) = delete;
  NetSnmp & operator=(NetSnmp const &) = delete;
  ~NetSnmp() {
    snmp_shutdown("tunnelhost");
    shutdown_agent();
  }
};

Interface::TunnelIntfStatusValues const exampleTunnel{
    .srcAddr = Plexa::IpGenAddr::fromString("192.0.2.1").value(),
    .dstAddr = Plexa::IpGenAddr::fromString("198.51.100.1").value(),
    .mode = Plexa::TunnelIntfMode::gre,
    .hopLimit = 64};

void serve(char const * address, char const * file) {
  auto const scheduler = Kiln::TaskSchedulerRoot::findOrCreateScheduler();
  NetSnmp const snmp(address);
  Plugin const plugin(file);
  Tunnels tunnels;
  plugin.registerMibs();
  tunnels.add(7, exampleTunnel);
  std::printf("serving on %s\n", address);
  std::fflush(stdout);
  while (ended == 0) { // a task, and what has arrived; it sleeps when no task waits
    scheduler->runOne();
    agent_check_and_process(scheduler->scheduled() == 0 ? 1 : 0);
  }
  plugin.unregisterMibs();
}

} // namespace

int main(int argc, char ** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s ADDRESS, as in udp:127.0.0.1:1161\n", argv[0]);
    return 2;
  }
  struct sigaction end {};
  end.sa_handler = [](int) { ended = 1; };
  sigaction(SIGTERM, &end, nullptr);
  sigaction(SIGINT, &end, nullptr);
  try {
    serve(argv[1], PLUGIN);
    return 0;
  } catch (std::exception const & error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}

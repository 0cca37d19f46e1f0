// net-snmp as a library of callbacks: it is told of each descriptor that is ready and of the time,
// and asked afterwards what it waits for now. The odd parts of its interface are explained where
// they are used; what it must not do (write files, open ports of its own, log) is switched off in
// setUp().
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/large_fd_set.h>

#include "agent/RateLimit.h"
#include "agent/Report.h"
#include "agent/SnmpEngine.h"
#include "agent/agentx/Subagent.h"
#include "os/Time.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tcpd.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter configurationFaults("agent-configuration-faults");
Lumo::Counter linesHeldBack("agent-snmp-lines-held-back");

constexpr char applicationName[] = "tunnelsnmpd";
/// A connection that there is no descriptor for keeps its listener readable for as long.
constexpr std::chrono::milliseconds untilAcceptAgain{100};
/// Without a configuration.
constexpr char const * defaultAccess = "rocommunity public 127.0.0.1";

void setLibraryFlag(int flag) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, flag, 1);
}
void setLibraryPath(int which, char const * path) {
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, which, path);
}

/// The descriptors that net-snmp wants watched.
class DescriptorSet {
public:
  DescriptorSet() { netsnmp_large_fd_set_init(&set_, FD_SETSIZE); }
  DescriptorSet(DescriptorSet const &) = delete;
  DescriptorSet & operator=(DescriptorSet const &) = delete;
  ~DescriptorSet() { netsnmp_large_fd_set_cleanup(&set_); }

  netsnmp_large_fd_set * get() { return &set_; }
  bool contains(int descriptor) { return NETSNMP_LARGE_FD_ISSET(descriptor, &set_) != 0; }

private:
  netsnmp_large_fd_set set_;
};

Os::Descriptor spareDescriptor() {
  return Os::Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

/// The port that a socket is bound to, or 0 when it has none. Raises std::runtime_error.
unsigned portOf(int descriptor) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    throw std::runtime_error(fmt::format("cannot tell the port: {}", std::strerror(errno)));
  // The port stands at the same place for both families.
  auto const internet = address.ss_family == AF_INET || address.ss_family == AF_INET6;
  return internet ? ntohs(reinterpret_cast<sockaddr_in const &>(address).sin_port) : 0;
}

/// "udp:127.0.0.1:0" with the port that the socket really has.
std::string withRealPort(std::string const & address, int descriptor) {
  auto const colon = address.rfind(':');
  auto const port = portOf(descriptor);
  if (port == 0 || colon == std::string::npos || address.substr(colon + 1) != "0")
    return address;
  return fmt::format("{}:{}", address.substr(0, colon), port);
}

AgentX::MasterAddress masterAddress(std::string const & text) {
  try {
    return AgentX::MasterAddress(text);
  } catch (std::invalid_argument const & error) {
    throw ConfigurationError(fmt::format("--agentx: {}", error.what()));
  }
}

} // namespace

/// Receives net-snmp's messages: reports them, or keeps them while a configuration is read.
class SnmpEngine::Log {
public:
  Log() {
    snmp_disable_log();
    if (auto * const handler = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG))
      netsnmp_enable_this_loghandler(handler);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &Log::logged, this);
  }
  Log(Log const &) = delete;
  Log & operator=(Log const &) = delete;
  ~Log() {
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &Log::logged, this, 1);
  }

  /// While it lives, warnings and errors are kept and not reported.
  class Keeping {
  public:
    explicit Keeping(Log & log) : log_(log) { log_.keeping_ = true; }
    Keeping(Keeping const &) = delete;
    Keeping & operator=(Keeping const &) = delete;
    ~Keeping() {
      log_.keeping_ = false;
      log_.kept_.clear();
    }
    /// Each once: the configuration is read in two passes.
    std::vector<std::string> const & kept() const { return log_.kept_; }

  private:
    Log & log_;
  };

  /// Reports a text that is not the last one, and not too often: a stranger's packet can have
  /// net-snmp say something.
  void reportOnce(std::string_view text) {
    if (text == last_) {
      linesHeldBack.inc();
      return;
    }
    if (!allowance_.take(RateLimit::Clock::now())) {
      linesHeldBack.inc();
      ++heldBack_;
      return;
    }
    if (auto const count = std::exchange(heldBack_, 0); count != 0)
      report(fmt::format("net-snmp said {} more lines, which were held back", count));
    last_ = text;
    report(text);
  }

private:
  static int logged(int, int, void * message, void * self) {
    try {
      static_cast<Log *>(self)->take(*static_cast<snmp_log_message const *>(message));
    } catch (std::bad_alloc const &) { // may not pass through net-snmp, which holds a lock now
      linesHeldBack.inc();
    }
    return 0;
  }
  void take(snmp_log_message const & message) {
    if (!keeping_ || message.priority > LOG_WARNING)
      reportOnce(message.msg);
    else if (std::ranges::find(kept_, message.msg) == kept_.end())
      kept_.emplace_back(message.msg);
  }

  bool keeping_ = false;
  RateLimit allowance_{10, std::chrono::seconds(1)};
  unsigned heldBack_ = 0; // since the last line that was reported
  std::vector<std::string> kept_;
  std::string last_;
};

SnmpEngine::SnmpEngine(Os::Loop & loop, SnmpSettings settings)
    : loop_(loop),
      settings_(std::move(settings)),
      log_(std::make_unique<Log>()),
      hostsFiles_{HostsFile(hosts_allow_table), HostsFile(hosts_deny_table)},
      spare_(spareDescriptor()) {
  checkReadable();
  auto master = settings_.agentx ? std::optional(masterAddress(*settings_.agentx)) : std::nullopt;
  setUp();
  init_agent(applicationName);
  configure();
  try {
    begin();
    if (master)
      subagent_ =
          std::make_unique<AgentX::Subagent>(loop_, *std::move(master), [this] { settle(); });
  } catch (...) {
    shutDown();
    throw;
  }
}

void SnmpEngine::begin() {
  Log::Keeping const keeping(*log_);
  init_snmp(applicationName);
  requireUnderstood(keeping.kept());
}

SnmpEngine::~SnmpEngine() {
  stopServing();
  subagent_.reset();
  endpoint_.reset();
  shutDown();
}

std::string SnmpEngine::listen(std::string const & address) {
  if (subagent_) {
    subagent_->start();
    update();
    return "agentx:" + subagent_->address();
  }
  // Opened here and not by init_master_agent(), which would also open what the configuration names.
  errno = 0;
  auto * const transport = netsnmp_transport_open_server("snmp", address.c_str());
  if (transport == nullptr)
    throw std::runtime_error(
        fmt::format("cannot listen on {}: {}; choose another address with --listen", address,
                    errno != 0 ? std::strerror(errno) : "no address that net-snmp understands"));
  try {
    endpoint_ = std::make_unique<SnmpEndpoint>(transport);
  } catch (std::runtime_error const & error) {
    throw std::runtime_error(fmt::format("cannot listen on {}: {}", address, error.what()));
  }
  update();
  return withRealPort(address, endpoint_->descriptor());
}

void SnmpEngine::stopServing() {
  if (subagent_)
    subagent_->close();
  watched_.clear();
  timer_.reset();
  acceptAgain_.reset();
}

AgentX::SessionStatus const * SnmpEngine::agentx() const {
  return subagent_ ? &subagent_->status() : nullptr;
}

void SnmpEngine::reread() {
  if (settings_.configFile.empty())
    return;
  checkReadable();
  Log::Keeping const keeping(*log_);
  watched_.clear(); // what the configuration named is closed and opened anew, with the same numbers
  free_config();
  configure();
  read_premib_configs();
  read_configs();
  update();
  requireUnderstood(keeping.kept());
}

void SnmpEngine::setUp() {
  setLibraryFlag(NETSNMP_DS_LIB_DONT_READ_CONFIGS);
  setLibraryFlag(NETSNMP_DS_LIB_DONT_PERSIST_STATE);
  setLibraryFlag(NETSNMP_DS_LIB_ALARM_DONT_USE_SIG); // the loop runs the alarms
  // net-snmp makes folders in its persistent folder and searches the others even so; no name below
  // /dev/null can exist. No MIB text is needed to serve one.
  setLibraryPath(NETSNMP_DS_LIB_PERSISTENT_DIR, "/dev/null");
  setLibraryPath(NETSNMP_DS_LIB_CONFIGURATION_DIR, "/dev/null");
  setLibraryPath(NETSNMP_DS_LIB_MIBDIRS, "/dev/null");
  setenv("MIBS", "", 1);
  if (!settings_.configFile.empty())
    setLibraryPath(NETSNMP_DS_LIB_OPTIONALCONFIG, settings_.configFile.c_str());

  // That of a master: a subagent of net-snmp's waits for its master.
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS,
                         1);
  // A subagent of net-snmp's would seek its master so often; ours has periods of its own.
  if (settings_.agentx)
    register_config_handler(
        applicationName, "agentXPingInterval", [](char const *, char *) {}, nullptr, "seconds");
  char noSmux[] = "-smux"; // its port would be open to everybody
  add_to_init_list(noSmux);
}

// Behind an AgentX master nobody else can ask, and access is the master's to decide; yet net-snmp
// complains when nobody has any.
void SnmpEngine::configure() {
  std::string line = defaultAccess;
  if (settings_.agentx || settings_.configFile.empty())
    netsnmp_config_remember(line.data());
}

void SnmpEngine::shutDown() {
  log_.reset(); // snmp_shutdown() would free it: it frees the argument of every callback left
  snmp_shutdown(applicationName);
  shutdown_agent();
}

void SnmpEngine::checkReadable() const {
  if (settings_.configFile.empty())
    return;
  auto const & path = settings_.configFile;
  struct stat status {};
  if (access(path.c_str(), R_OK) != 0 || stat(path.c_str(), &status) != 0)
    throw ConfigurationError(
        fmt::format("cannot read the configuration {}: {}", path, std::strerror(errno)));
  // net-snmp would wait for a pipe's writer, and take a folder for an empty file.
  if (!S_ISREG(status.st_mode))
    throw ConfigurationError(
        fmt::format("cannot read the configuration {}: it is no regular file", path));
}

void SnmpEngine::requireUnderstood(std::vector<std::string> const & complaints) const {
  if (settings_.configFile.empty()) {
    for (auto const & complaint : complaints)
      log_->reportOnce(complaint);
    return;
  }
  if (complaints.empty())
    return;
  configurationFaults.inc();
  throw ConfigurationError(fmt::format("{} (correct the configuration {})",
                                       fmt::join(complaints, "; "), settings_.configFile));
}

void SnmpEngine::read(int descriptor) {
  auto const now = HostsFile::Clock::now();
  for (auto & file : hostsFiles_)
    file.look(now);
  // libwrap refuses everybody when it cannot open its files. It gets the spare one, but for a
  // listener, which would only keep it.
  auto const accepts = endpoint_ && endpoint_->accepts() && descriptor == endpoint_->descriptor();
  auto const lends = !accepts && std::ranges::any_of(hostsFiles_, &HostsFile::isOutOfDescriptors);
  if (lends)
    spare_ = Os::Descriptor();
  DescriptorSet ready;
  NETSNMP_LARGE_FD_SET(descriptor, ready.get());
  snmp_read2(ready.get());
  if (lends)
    spare_ = spareDescriptor();
  if (endpoint_ && endpoint_->acceptFailed())
    acceptAgain_ = loop_.after(untilAcceptAgain, [this] {
      acceptAgain_.reset();
      update();
    });
  settle();
}

void SnmpEngine::timeOut() {
  snmp_timeout();
  run_alarms();
  settle();
}

// A handler that delegates may have its answer by now.
void SnmpEngine::settle() {
  netsnmp_check_outstanding_agent_requests();
  if (subagent_)
    subagent_->deliver();
  update();
}

// Each call of net-snmp may open and close descriptors and change the time that it waits for; it
// only says so when it is asked.
void SnmpEngine::update() {
  DescriptorSet wanted;
  int count = 0;
  int forever = 1; // in: the time given does not count; out: there is nothing to wait for
  timeval wait{};
  snmp_select_info2(&count, wanted.get(), &wait, &forever);

  auto before = std::exchange(watched_, {});
  for (int descriptor = 0; descriptor < count; ++descriptor)
    if (wanted.contains(descriptor) && !(acceptAgain_ && descriptor == endpoint_->descriptor()))
      watchDescriptor(descriptor, before);

  timer_.reset();
  if (forever == 0)
    timer_ = loop_.after(Os::toMilliseconds(wait), [this] { timeOut(); });
}

// While it serves, net-snmp does not close a descriptor and open another within one call.
void SnmpEngine::watchDescriptor(int descriptor, Watches & before) {
  if (auto const known = before.find(descriptor); known != before.end())
    watched_.insert(before.extract(known));
  else
    watched_.emplace(descriptor,
                     loop_.readable(descriptor, [this, descriptor] { read(descriptor); }));
}

} // namespace Agent

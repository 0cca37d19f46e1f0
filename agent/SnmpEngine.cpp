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
/// A subagent looks for a master that went away, or was not there, this often.
constexpr int agentxPingSeconds = 5;
/// Everything else waits while a subagent waits for its master: not long, and not again.
constexpr int agentxTimeoutSeconds = 1;
constexpr int agentxRetries = 0;
/// A connection that there is no descriptor for keeps its listener readable for as long.
constexpr std::chrono::milliseconds untilAcceptAgain{100};

void setLibraryFlag(int flag) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, flag, 1);
}
void setAgentNumber(int which, int number) {
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, which, number);
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

/// True if and only if it is a socket with somebody at its other end.
bool isConnected(int descriptor) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  return getpeername(descriptor, reinterpret_cast<sockaddr *>(&address), &size) == 0;
}

/// The port that a socket is bound to, or 0 when it has none.
unsigned portOf(int descriptor) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    return 0;
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

  void keep() { keeping_ = true; }
  /// Ends keep(). The kept warnings and errors, each once: the configuration is read in two passes.
  std::vector<std::string> kept() {
    keeping_ = false;
    return std::exchange(kept_, {});
  }

  /// Reports a text that is not the last one, a subagent without its master says the same again and
  /// again; and not too often: a stranger's packet can have net-snmp say something.
  void reportOnce(std::string_view text) {
    if (text == last_)
      return;
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
  setUp();
  init_agent(applicationName);
  if (settings_.agentx) {
    setAgentNumber(NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, agentxPingSeconds);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_TIMEOUT, agentxTimeoutSeconds);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, agentxRetries);
  } else if (settings_.configFile.empty()) {
    char line[] = "rocommunity public 127.0.0.1";
    netsnmp_config_remember(line);
  }
  log_->keep();
  init_snmp(applicationName);
  try {
    requireUnderstood(log_->kept());
  } catch (...) {
    shutDown();
    throw;
  }
}

SnmpEngine::~SnmpEngine() {
  stopServing();
  endpoint_.reset();
  shutDown();
}

std::string SnmpEngine::listen(std::string const & address) {
  if (settings_.agentx) {
    update();
    return "agentx:" + *settings_.agentx;
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
  if (settings_.agentx)
    for (auto const & [descriptor, watched] : watched_)
      if (isConnected(descriptor))
        shutdown(descriptor, SHUT_RDWR);
  watched_.clear();
  timer_.reset();
  acceptAgain_.reset();
}

void SnmpEngine::reread() {
  if (settings_.configFile.empty())
    return;
  checkReadable();
  log_->keep();
  watched_.clear(); // what the configuration named is closed and opened anew, with the same numbers
  free_config();
  read_premib_configs();
  read_configs();
  update();
  requireUnderstood(log_->kept());
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

  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE,
                         settings_.agentx ? 1 : 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS,
                         1);
  if (settings_.agentx)
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET,
                          settings_.agentx->c_str());
  char noSmux[] = "-smux"; // its port would be open to everybody
  add_to_init_list(noSmux);
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
  // A subagent without a master complains here as well; it keeps trying.
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
  netsnmp_check_outstanding_agent_requests();
  if (lends)
    spare_ = spareDescriptor();
  if (endpoint_ && endpoint_->acceptFailed())
    acceptAgain_ = loop_.after(untilAcceptAgain, [this] {
      acceptAgain_.reset();
      update();
    });
  update();
}

void SnmpEngine::timeOut() {
  snmp_timeout();
  run_alarms();
  netsnmp_check_outstanding_agent_requests();
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

void SnmpEngine::watchDescriptor(int descriptor, std::map<int, Watched> & before) {
  auto const inode = inodeOf(descriptor);
  auto const known = before.find(descriptor);
  if (known != before.end() && known->second.inode == inode) {
    watched_.insert(before.extract(known));
    return;
  }
  if (known != before.end())
    before.erase(known); // no longer watched before the new one is
  watched_.emplace(descriptor, Watched{inode, loop_.readable(descriptor, [this, descriptor] {
                                         read(descriptor);
                                       })});
}

// While it serves, only a subagent closes a descriptor and opens another within one call, when it
// finds its master gone. Elsewhere it would be a system call for nothing with each packet.
unsigned long SnmpEngine::inodeOf(int descriptor) const {
  struct stat status {};
  return settings_.agentx && fstat(descriptor, &status) == 0 ? status.st_ino : 0;
}

} // namespace Agent

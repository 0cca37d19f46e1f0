// net-snmp's functions for clients. MIB modules are not read: numbers are enough here, and Debian
// has few of those that ours import.
#include "ctl/doctor/Manager.h"
#include <net-snmp/net-snmp-config.h>
// The others need it first.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <net-snmp/net-snmp-includes.h>
#include <sstream>
#include <stdexcept>

namespace Ctl::Doctor {

namespace {

void quietLibrary() {
  setenv("MIBS", "", 1);
  snmp_disable_log();
  netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE,
                              LOG_DEBUG); // without any, all goes to stderr
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  // Else it makes folders there, for certificates that nobody needs here.
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, "/dev/null");
}

/// As main() gets them: the library changes what it is given.
class ArgumentList {
public:
  explicit ArgumentList(std::vector<std::string> arguments) : texts_(std::move(arguments)) {
    for (auto & text : texts_)
      pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
  }
  int count() const { return static_cast<int>(texts_.size()); }
  char ** list() { return pointers_.data(); }

private:
  std::vector<std::string> texts_;
  std::vector<char *> pointers_;
};

std::string valueText(variable_list const & value) {
  std::array<char, 256> text{};
  snprint_value(text.data(), text.size(), value.name, value.name_length, &value);
  return text.data();
}

Answer answerOf(snmp_pdu const * response) {
  if (response == nullptr || response->variables == nullptr)
    return {.result = Answer::Result::error, .text = "an answer without a value"};
  if (response->errstat != SNMP_ERR_NOERROR)
    return {.result = Answer::Result::error,
            .text = snmp_errstring(static_cast<int>(response->errstat))};
  auto const & value = *response->variables;
  if (value.type == SNMP_ENDOFMIBVIEW || value.type == SNMP_NOSUCHOBJECT ||
      value.type == SNMP_NOSUCHINSTANCE)
    return {.result = Answer::Result::nothing};
  return {.result = Answer::Result::value,
          .oid = Oid(value.name, value.name + value.name_length),
          .text = valueText(value)};
}

} // namespace

struct Manager::Session {
  explicit Session(ArgumentList given) : arguments(std::move(given)) {}
  ~Session() {
    if (opened != nullptr)
      snmp_close(opened);
  }
  ArgumentList arguments; // what the library has read points into it
  snmp_session * opened = nullptr;
};

Manager::Manager(std::vector<std::string> const & arguments, std::string const & address) {
  quietLibrary();
  std::vector<std::string> all{"tunnelsnmpctl", "-r", "1", "-t", "1"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  all.push_back(address);
  session_ = std::make_unique<Session>(ArgumentList(std::move(all)));
  snmp_session wanted{};
  auto const used = netsnmp_parse_args(session_->arguments.count(), session_->arguments.list(),
                                       &wanted, "", nullptr, NETSNMP_PARSE_ARGS_NOLOGGING);
  // The library's own copy, which it leaves to us; the session gets another.
  std::unique_ptr<unsigned char, decltype(&std::free)> const community(wanted.community, std::free);
  if (used < 0)
    throw std::invalid_argument("what stands behind -- is not what snmpget takes before the host");
  session_->opened = snmp_open(&wanted);
  if (session_->opened == nullptr)
    throw std::invalid_argument("cannot ask " + address + ": " + snmp_api_errstring(snmp_errno));
}

Manager::~Manager() = default;

Answer Manager::next(Oid const & oid) {
  auto * const request = snmp_pdu_create(SNMP_MSG_GETNEXT);
  snmp_add_null_var(request, oid.data(), oid.size());
  snmp_pdu * response = nullptr;
  auto const status = snmp_synch_response(session_->opened, request, &response);
  std::unique_ptr<snmp_pdu, decltype(&snmp_free_pdu)> const owned(response, snmp_free_pdu);
  if (status == STAT_SUCCESS)
    return answerOf(response);
  if (status == STAT_TIMEOUT)
    return {};
  return {.result = Answer::Result::error,
          .text = snmp_api_errstring(session_->opened->s_snmp_errno)};
}

std::vector<std::string> mibFolders() {
  quietLibrary();
  init_snmp("snmpapp"); // as the clients' configuration is called
  std::istringstream all(netsnmp_get_mib_directory());
  std::vector<std::string> folders;
  for (std::string folder; std::getline(all, folder, ':');)
    if (!folder.empty())
      folders.push_back(folder);
  return folders;
}

} // namespace Ctl::Doctor

// A manager over net-snmp's library that walks an agent again and again, quickly: for tests/churn.
// It prints what it sees, for each walk
//
//   walk BEGIN ROOT
//   OID INTEGER NUMBER      or     OID OCTETS HEX      for each instance, in the order of the
//   answers end END
//
// with times in seconds of CLOCK_MONOTONIC. The repetitions of each walk are the next of the list;
// 0 stands for GETNEXT.
//
// usage: walker ADDRESS COUNT REPETITIONS[,REPETITIONS...] ROOT...
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Name = std::vector<oid>;

Name nameOf(char const * text) {
  Name name(MAX_OID_LEN);
  auto size = name.size();
  if (read_objid(text, name.data(), &size) == 0)
    throw std::runtime_error(std::string("no OID: ") + text);
  name.resize(size);
  return name;
}

double now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

bool isBelow(Name const & root, netsnmp_variable_list const & one) {
  return one.name_length > root.size() &&
         snmp_oid_compare(root.data(), root.size(), one.name, root.size()) == 0;
}

void print(netsnmp_variable_list const & one) {
  std::string line;
  for (size_t part = 0; part != one.name_length; ++part)
    line += (part == 0 ? "" : ".") + std::to_string(one.name[part]);
  if (one.type == ASN_INTEGER)
    line += " INTEGER " + std::to_string(*one.val.integer);
  else if (one.type == ASN_OCTET_STR) {
    line += " OCTETS ";
    for (size_t octet = 0; octet != one.val_len; ++octet) {
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02x", one.val.string[octet]);
      line += hex;
    }
  } else
    line += " type " + std::to_string(one.type);
  std::puts(line.c_str());
}

/// What follows the name. The caller frees it.
netsnmp_pdu * ask(netsnmp_session * session, Name const & name, long repetitions) {
  auto * const request = snmp_pdu_create(repetitions == 0 ? SNMP_MSG_GETNEXT : SNMP_MSG_GETBULK);
  if (repetitions != 0) {
    request->non_repeaters = 0;
    request->max_repetitions = repetitions;
  }
  snmp_add_null_var(request, name.data(), name.size());
  netsnmp_pdu * answer = nullptr;
  if (snmp_synch_response(session, request, &answer) != STAT_SUCCESS)
    throw std::runtime_error(std::string("no answer: ") +
                             snmp_api_errstring(session->s_snmp_errno));
  if (answer->errstat != SNMP_ERR_NOERROR)
    throw std::runtime_error(std::string("an error: ") +
                             snmp_errstring(static_cast<int>(answer->errstat)));
  return answer;
}

/// Prints the instances in the answer. True if and only if there may be more; they follow `name`.
bool printed(netsnmp_pdu const & answer, Name const & root, Name & name) {
  for (auto const * one = answer.variables; one != nullptr; one = one->next_variable) {
    if (one->type == SNMP_ENDOFMIBVIEW || !isBelow(root, *one))
      return false;
    print(*one);
    if (snmp_oid_compare(name.data(), name.size(), one->name, one->name_length) >= 0)
      throw std::runtime_error("the names do not increase");
    name.assign(one->name, one->name + one->name_length);
  }
  return answer.variables != nullptr;
}

void walk(netsnmp_session * session, Name const & root, long repetitions) {
  auto name = root;
  for (auto more = true; more;) {
    auto * const answer = ask(session, name, repetitions);
    more = printed(*answer, root, name);
    snmp_free_pdu(answer);
  }
}

std::vector<long> numbers(char const * list) {
  std::vector<long> all;
  for (char const * at = list; *at != '\0';) {
    char * end = nullptr;
    all.push_back(std::strtol(at, &end, 10));
    at = *end == ',' ? end + 1 : end;
  }
  return all;
}

netsnmp_session * open(char * address) {
  static char community[] = "public";
  netsnmp_session settings;
  snmp_sess_init(&settings);
  settings.version = SNMP_VERSION_2c;
  settings.peername = address;
  settings.community = reinterpret_cast<unsigned char *>(community);
  settings.community_len = sizeof community - 1;
  settings.timeout = 10'000'000; // µs
  settings.retries = 0;
  auto * const session = snmp_open(&settings);
  if (session == nullptr)
    throw std::runtime_error("cannot open a session");
  return session;
}

void walkAll(int argc, char ** argv) {
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  init_snmp("walker");
  auto * const session = open(argv[1]);
  auto const repetitions = numbers(argv[3]);
  std::vector<char const *> const texts(argv + 4, argv + argc);
  std::vector<Name> roots;
  for (auto const * text : texts)
    roots.push_back(nameOf(text));
  auto const count = std::strtoul(argv[2], nullptr, 10);
  for (size_t number = 0; number != count; ++number) {
    auto const which = number % roots.size();
    std::printf("walk %.6f %s\n", now(), texts[which]);
    walk(session, roots[which], repetitions[number / roots.size() % repetitions.size()]);
    std::printf("end %.6f\n", now());
  }
}

} // namespace

int main(int argc, char ** argv) {
  try {
    if (argc < 5)
      throw std::runtime_error("usage: walker ADDRESS COUNT REPETITIONS[,...] ROOT...");
    walkAll(argc, argv);
    return 0;
  } catch (std::exception const & error) {
    std::fflush(stdout);
    std::fprintf(stderr, "walker: %s\n", error.what());
    return 1;
  }
}

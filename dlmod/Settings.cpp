// Lines are collected while they are read, and kept when all are.
//
// They are kept in one of net-snmp's named lists of texts with numbers: 0 is the control socket's
// path, the others are sources in their order.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/snmp_enum.h>

#include "dlmod/Settings.h"
#include <cstring>

namespace Dlmod {

namespace {

constexpr char list[] = "tunnelIntf";
constexpr char sourceToken[] = "tunnelIntfSource";
constexpr char controlToken[] = "tunnelIntfControl";

Settings collected;

void takeSource(char const * token, char * line);
void takeControl(char const * token, char * line);
int keep(int, int, void *, void *);

} // namespace

SettingsReader::SettingsReader() {
  collected = {};
  register_app_config_handler(sourceToken, takeSource, nullptr, "SOURCE");
  register_app_config_handler(controlToken, takeControl, nullptr, "PATH");
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, keep, this);
}

SettingsReader::~SettingsReader() {
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, keep, this, 1);
  unregister_app_config_handler(sourceToken);
  unregister_app_config_handler(controlToken);
}

Settings SettingsReader::settings() const {
  Settings kept;
  if (auto const * path = se_find_label_in_slist(list, 0))
    kept.controlPath = path;
  for (int number = 1; auto const * source = se_find_label_in_slist(list, number); ++number)
    kept.sources.emplace_back(source);
  return kept;
}

namespace {

/// The line without the blanks around it, nor one pair of quotation marks; what is empty is
/// complained of.
std::string textOf(char const * token, std::string_view line) {
  constexpr std::string_view blanks = " \t\r\n";
  auto const first = line.find_first_not_of(blanks);
  line = first == std::string_view::npos ? "" : line.substr(first);
  line = line.substr(0, line.find_last_not_of(blanks) + 1);
  if (line.size() >= 2 && line.front() == '"' && line.back() == '"')
    line = line.substr(1, line.size() - 2);
  if (line.empty())
    config_perror((std::string(token) + " wants a value").c_str());
  return std::string(line);
}

void takeSource(char const * token, char * line) {
  if (auto text = textOf(token, line); !text.empty())
    collected.sources.push_back(std::move(text));
}

void takeControl(char const * token, char * line) {
  collected.controlPath = textOf(token, line);
}

/// net-snmp frees the text.
void put(std::string const & text, int number) {
  if (auto * const copy = strdup(text.c_str()))
    se_add_pair_to_slist(list, copy, number);
}

int keep(int, int, void *, void *) {
  se_clear_slist(list);
  if (!collected.controlPath.empty())
    put(collected.controlPath, 0);
  for (int number = 1; auto const & source : collected.sources)
    put(source, number++);
  return SNMPERR_SUCCESS;
}

} // namespace

} // namespace Dlmod

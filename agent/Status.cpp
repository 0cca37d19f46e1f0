// Reads attributes by name. Nothing of the plug-in is known here, so what an object does not have
// is no error: it is left out.
#include "agent/Status.h"
#include "agent/JsonText.h"
#include "os/Text.h"
#include <ctime>
#include <optional>
#include <utility>

namespace Agent {

using Json = nlohmann::ordered_json;
using Object = Zel::Ptr<Zel::PtrInterface const>;

namespace {

constexpr std::size_t rowsInPiece = 200;

/// The attribute of that name, or null.
Zel::Attribute const * attributeOf(Zel::PtrInterface const & object, std::string_view name) {
  auto const attributes = object.type().attributes;
  auto const found =
      std::ranges::find_if(attributes, [name](auto * one) { return one->name == name; });
  return found == attributes.end() ? nullptr : *found;
}

bool hasAttribute(Zel::PtrInterface const & object, std::string_view name) {
  return attributeOf(object, name) != nullptr;
}

/// A plain value as JSON; nothing for an object or a collection.
std::optional<Json> scalar(Zel::Value const & value) {
  if (auto const * flag = std::get_if<bool>(&value.is))
    return *flag;
  if (auto const * number = std::get_if<std::uint64_t>(&value.is))
    return *number;
  if (auto const * text = std::get_if<std::string>(&value.is))
    return *text;
  return std::nullopt;
}

/// A number by the name that the attribute has for it, where it has one.
Json named(Zel::Attribute const & attribute, Json value) {
  for (auto const & [number, name] : attribute.enumerators)
    if (value == number)
      return name;
  return value;
}

void putIfThere(Json & out, Zel::PtrInterface const & object, std::string_view name) {
  auto const * attribute = attributeOf(object, name);
  if (attribute == nullptr || attribute->get == nullptr)
    return;
  if (auto value = scalar(attribute->get(object)))
    out[std::string(name)] = named(*attribute, *std::move(value));
}

/// What would be copied whole, however large it is.
bool isCollection(Zel::Attribute const & attribute) {
  return attribute.typeName == "Zel::HashMap2018" || attribute.typeName == "Zel::RbTreeMap";
}

/// Calls `take(attribute, object)` for each attribute of `parent` that holds an object which has an
/// attribute of that name itself.
template <class Take>
void forEachChild(Zel::PtrInterface const & parent, std::string_view having, Take take) {
  for (auto const * attribute : parent.type().attributes) {
    if (attribute->get == nullptr || isCollection(*attribute))
      continue;
    auto const value = attribute->get(parent);
    auto const * child = std::get_if<Object>(&value.is);
    if (child != nullptr && *child && hasAttribute(**child, having))
      take(*attribute, **child);
  }
}

/// Puts the attribute whose name ends so, if there is one, under another name.
void putUnder(Json & out, char const * name, Zel::PtrInterface const & object,
              std::string_view ending) {
  for (auto const * attribute : object.type().attributes)
    if (attribute->get != nullptr && attribute->name.ends_with(ending))
      if (auto value = scalar(attribute->get(object)))
        out[name] = *std::move(value);
}

Json inputStatus(std::string_view name, Zel::PtrInterface const & input) {
  Json out{{"name", name}};
  for (auto const * field : {"scanState", "scanComplete", "scanned", "inputSize"})
    putIfThere(out, input, field);
  return out;
}

Json machineStatus(std::string_view name, Zel::PtrInterface const & machine) {
  Json out{{"name", name}};
  for (auto const * field : {"ready", "idle", "initialized", "initialScanDone", "synchronous"})
    putIfThere(out, machine, field);
  putUnder(out, "reconciling", machine, "OutputReconciling");
  if (out.value("reconciling", false))
    putUnder(out, "reconciledTo", machine, "OutputBookmark");
  putIfThere(out, machine, "rescanUnheard");
  auto inputs = Json::array();
  forEachChild(machine, "scanState", [&](Zel::Attribute const & attribute, auto const & input) {
    inputs.push_back(inputStatus(attribute.name, input));
  });
  out["inputs"] = std::move(inputs);
  return out;
}

std::string_view stateText(Sources::SourceStatus::State state) {
  switch (state) {
  case Sources::SourceStatus::State::stopped:
    return "stopped";
  case Sources::SourceStatus::State::inSync:
    return "inSync";
  case Sources::SourceStatus::State::degraded:
    return "degraded";
  }
  return "unknown";
}

/// By the names that the document has; what there is none of is left out.
Json recordCounts(StateDb::Publisher::Counts const & counts) {
  std::pair<char const *, std::size_t> const all[] = {
      {"intfStatus", counts.statuses},         {"ifIndexByIntfId", counts.ifIndexes},
      {"ipsecTunnelInfo", counts.tunnelInfos}, {"appliedProfiles", counts.profiles},
      {"appliedIntfId", counts.connections},   {"claims", counts.statusClaims}};
  auto shown = Json::object();
  for (auto const & [name, count] : all)
    if (count != 0)
      shown[name] = count;
  return shown;
}

/// What the world told, fit to be shown.
Json detailsOf(Sources::SourceStatus const & status) {
  auto shown = Json::object();
  for (auto const & [name, line] : status.details)
    shown[Os::oneLine(name)] = Os::oneLine(line);
  return shown;
}

std::string utc(std::chrono::system_clock::time_point time) {
  auto const seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

Json registrationStatus(AgentX::RegionStatus const & one) {
  auto const hasReason = one.reason != AgentX::Error::none;
  return {{"oid", AgentX::oidText(one.region.subtree)},
          {"context", one.region.context},
          {"state", stateText(one.state)},
          {"reason", hasReason ? AgentX::errorText(one.reason) : ""}};
}

Object objectOf(std::optional<Zel::Value> const & value) {
  auto const * object = value ? std::get_if<Object>(&value->is) : nullptr;
  return object == nullptr ? Object() : *object;
}

bool isTable(Zel::Attribute const & attribute, Zel::PtrInterface const & mib) {
  if (attribute.walk == nullptr)
    return false;
  auto const first = attribute.walk(mib)();
  return !first || objectOf(first);
}

/// The columns of a row with their values.
template <class Take>
void forEachColumn(Zel::PtrInterface const & row, Take take) {
  for (auto const * column : row.type().attributes)
    if (auto const value = column->get == nullptr ? std::nullopt : scalar(column->get(row)))
      take(*column, *value);
}

Json columnsOf(Zel::PtrInterface const & row) {
  auto columns = Json::array();
  forEachColumn(row, [&](Zel::Attribute const & column, Json const &) {
    Json one{{"name", column.name}, {"type", column.typeName}};
    for (auto const & [number, name] : column.enumerators)
      one["enumerators"][std::to_string(number)] = name;
    columns.push_back(std::move(one));
  });
  return columns;
}

} // namespace

Json machinesStatus(Zel::PtrInterface const & root) {
  auto machines = Json::array();
  if (!hasAttribute(root, "tunnelIntfSnmpAgent"))
    return machines;
  auto const value = Zel::attribute(root, "tunnelIntfSnmpAgent");
  if (auto const * agent = std::get_if<Object>(&value.is); agent != nullptr && *agent)
    forEachChild(**agent, "ready", [&](Zel::Attribute const & attribute, auto const & machine) {
      machines.push_back(machineStatus(attribute.name, machine));
    });
  return machines;
}

bool allReady(Json const & machines) {
  return !machines.empty() && std::ranges::all_of(machines, [](Json const & machine) {
    return machine.value("ready", false);
  });
}

Json sourceStatus(Sources::Source const & source) {
  auto const status = source.status();
  Json out{{"name", source.name()},
           {"state", stateText(status.state)},
           {"reading", status.isReading},
           {"lastError", Os::oneLine(status.lastError)},
           {"records", recordCounts(status.records)},
           {"fullReads", status.fullReads},
           {"changes", status.changes}};
  if (!status.details.empty())
    out["details"] = detailsOf(status);
  return out;
}

Json masterStatus(AgentX::SessionStatus const & session) {
  Json out{{"address", session.address},
           {"state", stateText(session.state)},
           {"since", utc(session.since)}};
  if (session.session != 0)
    out["session"] = session.session;
  out["sessions"] = session.sessions;
  out["lastError"] = session.lastError;
  auto registrations = Json::array();
  for (auto const & one : session.regions)
    registrations.push_back(registrationStatus(one));
  out["registrations"] = std::move(registrations);
  return out;
}

Json tasksStatus(Kiln::TaskScheduler const & scheduler) {
  auto tasks = Json::array();
  for (auto const * task : scheduler.tasks())
    tasks.push_back({{"name", task->name()},
                     {"priority", task->priority()},
                     {"scheduled", task->taskScheduled()},
                     {"runs", task->runs()},
                     {"workCount", task->taskWorkCount()},
                     {"workPending", task->taskWorkPending()}});
  return tasks;
}

Json tasksSummary(Kiln::TaskScheduler const & scheduler) {
  auto const tasks = scheduler.tasks();
  std::uint64_t pending = 0;
  for (auto const * task : tasks)
    pending += task->taskWorkPending();
  return {{"count", tasks.size()},
          {"scheduled", scheduler.scheduled()},
          {"runs", scheduler.runs()},
          {"workPending", pending}};
}

Json tableColumns(Zel::PtrInterface const & mib) {
  auto tables = Json::object();
  for (auto const * attribute : mib.type().attributes)
    if (attribute->walk != nullptr)
      if (auto const row = objectOf(attribute->walk(mib)()))
        tables[std::string(attribute->name)] = columnsOf(*row);
  return tables;
}

TablesWriter::TablesWriter(Object mib) : mib_(std::move(mib)) {}

bool TablesWriter::next(std::string & out) {
  if (!walk_) {
    beginTable(out);
    return walk_ != nullptr;
  }
  for (std::size_t count = 0; count != rowsInPiece; ++count) {
    auto const entry = walk_();
    if (!entry) {
      out += ']';
      walk_ = nullptr;
      ++attribute_;
      return true;
    }
    if (auto const row = objectOf(entry))
      writeRow(out, *row);
  }
  return true;
}

// Finds the next table and opens it, or ends the whole.
void TablesWriter::beginTable(std::string & out) {
  auto const attributes = mib_->type().attributes;
  while (attribute_ != attributes.size() && !isTable(*attributes[attribute_], *mib_))
    ++attribute_;
  if (attribute_ == attributes.size()) {
    out += anyTable_ ? "}" : "{}";
    return;
  }
  auto const & attribute = *attributes[attribute_];
  walk_ = attribute.walk(*mib_);
  anyRow_ = false;
  out += std::exchange(anyTable_, true) ? "," : "{";
  out += jsonText(attribute.name) + ":[";
}

void TablesWriter::writeRow(std::string & out, Zel::PtrInterface const & row) {
  out += std::exchange(anyRow_, true) ? ",{" : "{";
  auto first = true;
  forEachColumn(row, [&](Zel::Attribute const & column, Json const & value) {
    out += std::exchange(first, false) ? "" : ",";
    out += jsonText(column.name);
    out += ':';
    out += jsonText(value);
  });
  out += '}';
}

namespace {

std::string connectionText(Sources::Ike::ConnectionReport const & report,
                           std::string const & source) {
  return jsonText(Json{{"connection", Os::oneLine(report.connection)},
                       {"child", Os::oneLine(report.child)},
                       {"state", valueToStrep(report.state)},
                       {"interface", Os::oneLine(report.interface)},
                       {"reason", Os::oneLine(report.reason)},
                       {"source", source}});
}

} // namespace

bool ConnectionsWriter::next(std::string & out) {
  out += std::exchange(begun_, true) ? "" : "[";
  for (std::size_t rows = 0; source_ != sources_.size() && rows != rowsInPiece;) {
    auto const & [source, reports] = sources_[source_];
    if (report_ == reports.size()) {
      ++source_;
      report_ = 0;
      continue;
    }
    out += std::exchange(anyReport_, true) ? "," : "";
    out += connectionText(reports[report_++], source);
    ++rows;
  }
  if (source_ != sources_.size())
    return true;
  out += ']';
  return false;
}

} // namespace Agent

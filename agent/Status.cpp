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

bool hasAttribute(Zel::PtrInterface const & object, std::string_view name) {
  auto const attributes = object.type().attributes;
  return std::ranges::any_of(attributes, [name](auto * one) { return one->name == name; });
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

void putIfThere(Json & out, Zel::PtrInterface const & object, std::string_view name) {
  if (!hasAttribute(object, name))
    return;
  if (auto value = scalar(Zel::attribute(object, name)))
    out[std::string(name)] = *std::move(value);
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

/// The objects of a collection; nothing when it is no collection, or one of plain values.
std::optional<std::vector<Object>> objectsOf(Zel::Value value) {
  auto * const collection = std::get_if<Zel::Value::Collection>(&value.is);
  if (collection == nullptr)
    return std::nullopt;
  std::vector<Object> objects;
  objects.reserve(collection->size());
  for (auto & [key, entry] : *collection) {
    auto * const object = std::get_if<Object>(&entry.is);
    if (object == nullptr)
      return std::nullopt;
    objects.push_back(std::move(*object));
  }
  return objects;
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

TablesWriter::TablesWriter(Object mib) : mib_(std::move(mib)) {}

bool TablesWriter::next(std::string & out) {
  if (!inTable_) {
    beginTable(out);
    return inTable_;
  }
  for (std::size_t count = 0; count != rowsInPiece && row_ != rows_.size(); ++count)
    writeRow(out);
  if (row_ == rows_.size()) {
    out += ']';
    rows_.clear();
    inTable_ = false;
    ++attribute_;
  }
  return true;
}

// Finds the next table and opens it, or ends the whole.
void TablesWriter::beginTable(std::string & out) {
  auto const attributes = mib_->type().attributes;
  for (; attribute_ != attributes.size(); ++attribute_) {
    auto const & attribute = *attributes[attribute_];
    auto rows = attribute.get == nullptr ? std::nullopt : objectsOf(attribute.get(*mib_));
    if (!rows)
      continue;
    rows_ = *std::move(rows);
    row_ = 0;
    inTable_ = true;
    out += anyTable_ ? "," : "{";
    anyTable_ = true;
    out += jsonText(attribute.name);
    out += ":[";
    return;
  }
  out += anyTable_ ? "}" : "{}";
}

void TablesWriter::writeRow(std::string & out) {
  auto const row = std::exchange(rows_[row_], nullptr);
  out += row_++ == 0 ? "{" : ",{";
  auto first = true;
  for (auto const * column : row->type().attributes) {
    auto const value = column->get == nullptr ? std::nullopt : scalar(column->get(*row));
    if (!value)
      continue;
    out += std::exchange(first, false) ? "" : ",";
    out += jsonText(column->name);
    out += ':';
    out += jsonText(*value);
  }
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

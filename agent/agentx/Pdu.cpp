// Every length is checked against what is left before it is used: octets come from a peer.
//
// A Reader that has met a fault reads zeros from then on, so that a decoder can be written as a
// list of fields; the fault is looked at once, at the end. Loops ask hasMore(), which is false
// after a fault.
#include "agent/agentx/Pdu.h"
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <utility>

namespace Agent::AgentX {

namespace {

constexpr std::uint8_t version = 1;
/// RFC 2741 section 6.1, h.flags.
constexpr std::uint8_t instanceRegistration = 0x01;
constexpr std::uint8_t nonDefaultContext = 0x08;
constexpr std::uint8_t networkByteOrder = 0x10;
/// The names that one octet stands for begin so (RFC 2741 section 5.1).
constexpr std::array<std::uint32_t, 4> internet{1, 3, 6, 1};

constexpr bool isForeign(ByteOrder order) {
  return (order == ByteOrder::big) != (std::endian::native == std::endian::big);
}

template <class Number>
constexpr Number swapped(Number number) {
  if constexpr (sizeof(Number) == 2)
    return __builtin_bswap16(number);
  else if constexpr (sizeof(Number) == 4)
    return __builtin_bswap32(number);
  else
    return __builtin_bswap64(number);
}

constexpr std::size_t padded(std::size_t size) {
  return (size + 3) / 4 * 4;
}

/// Octets as fields.
class Reader {
public:
  Reader(std::span<std::uint8_t const> octets, ByteOrder order)
      : octets_(octets),
        foreign_(isForeign(order)) {}

  template <class Number>
  Number number() {
    Number value{};
    auto const from = take(sizeof value);
    if (from.empty())
      return 0;
    std::memcpy(&value, from.data(), sizeof value);
    return foreign_ ? swapped(value) : value;
  }
  std::uint8_t octet() {
    auto const from = take(1);
    return from.empty() ? std::uint8_t{0} : from.front();
  }
  void skip(std::size_t size) { take(size); }

  std::string octetString() {
    auto const size = number<std::uint32_t>();
    if (size > octets_.size()) { // before it is rounded up, which might overflow
      fail("an octet string beyond the end");
      return {};
    }
    auto const from = take(padded(size)).first(hasFailed() ? 0 : size);
    return {from.begin(), from.end()};
  }

  Oid oid(bool * include = nullptr);

  bool hasMore() const { return !hasFailed() && !octets_.empty(); }
  bool hasFailed() const { return !fault_.empty(); }
  std::string const & fault() const { return fault_; }
  void fail(std::string reason) {
    if (!hasFailed())
      fault_ = std::move(reason);
    octets_ = {};
  }

private:
  /// Nothing when there is less.
  std::span<std::uint8_t const> take(std::size_t size) {
    if (size > octets_.size()) {
      fail("it ends within a field");
      return {};
    }
    auto const taken = octets_.first(size);
    octets_ = octets_.subspan(size);
    return taken;
  }

  std::span<std::uint8_t const> octets_;
  bool const foreign_;
  std::string fault_;
};

/// Fields as octets, behind those that are there.
class Writer {
public:
  Writer(std::string & out, ByteOrder order) : out_(out), foreign_(isForeign(order)) {}

  template <class Number>
  void number(Number value) {
    auto const octets =
        std::bit_cast<std::array<char, sizeof value>>(foreign_ ? swapped(value) : value);
    out_.append(octets.data(), octets.size());
  }
  void octet(std::uint8_t value) { out_ += static_cast<char>(value); }
  void zeros(std::size_t count) { out_.append(count, '\0'); }
  void octetString(std::string const & octets) {
    number(static_cast<std::uint32_t>(octets.size()));
    out_ += octets;
    zeros(padded(octets.size()) - octets.size());
  }
  void oid(Oid const & oid, bool include = false);

private:
  std::string & out_;
  bool const foreign_;
};

bool hasPrefix(Oid const & oid) {
  auto const at = internet.size();
  return oid.size() > at && std::ranges::equal(internet, std::span(oid).first(at)) &&
         oid[at] != 0 && oid[at] <= std::numeric_limits<std::uint8_t>::max();
}

/// Only these have a context (RFC 2741 section 6.1.1).
std::string const * contextOf(Body const & body);
void write(Writer & out, Body const & body);
/// Reads what follows a header.
class BodyReader {
public:
  BodyReader(Reader & in, Header const & header) : in_(in), header_(header) {}
  /// Nothing for a type that is not known here.
  std::optional<Body> read();

private:
  Open open();
  Close close();
  Registration registration();
  GetBulk getBulk();
  Response response();
  std::string context() { return header_.hasContext ? in_.octetString() : std::string(); }
  std::vector<SearchRange> ranges();
  std::vector<VarBind> varBinds();
  bool hasMoreThan(std::size_t varBinds);
  void value(VarBind & varBind);

  Reader & in_;
  Header const & header_;
};

} // namespace

std::string oidText(Oid const & oid) {
  return fmt::format("{}", fmt::join(oid, "."));
}

std::string errorText(Error error) {
  switch (error) {
  case Error::none:
    return "noAgentXError";
  case Error::generic:
    return "genErr";
  case Error::resourceUnavailable:
    return "resourceUnavailable";
  case Error::commitFailed:
    return "commitFailed";
  case Error::undoFailed:
    return "undoFailed";
  case Error::openFailed:
    return "openFailed";
  case Error::notOpen:
    return "notOpen";
  case Error::unsupportedContext:
    return "unsupportedContext";
  case Error::duplicateRegistration:
    return "duplicateRegistration";
  case Error::unknownRegistration:
    return "unknownRegistration";
  case Error::parseError:
    return "parseError";
  case Error::requestDenied:
    return "requestDenied";
  case Error::processingError:
    return "processingError";
  }
  return fmt::format("error {}", static_cast<unsigned>(error));
}

std::variant<Frame, Malformed> decodeHeader(std::span<std::uint8_t const, headerSize> octets) {
  if (octets[0] != version)
    return Malformed{fmt::format("version {} of AgentX", octets[0])};
  auto const flags = octets[2];
  auto const order = (flags & networkByteOrder) != 0 ? ByteOrder::big : ByteOrder::little;
  Reader in(octets.subspan(4), order);
  Frame frame;
  frame.header = {.type = static_cast<Type>(octets[1]),
                  .order = order,
                  .isInstance = (flags & instanceRegistration) != 0,
                  .hasContext = (flags & nonDefaultContext) != 0,
                  .session = in.number<std::uint32_t>(),
                  .transaction = in.number<std::uint32_t>(),
                  .packet = in.number<std::uint32_t>()};
  frame.payloadSize = in.number<std::uint32_t>();
  if (frame.payloadSize > largestPayload || frame.payloadSize % 4 != 0)
    return Malformed{fmt::format("a message of {} octets", frame.payloadSize)};
  return frame;
}

std::variant<Body, Malformed> decodeBody(Header const & header,
                                         std::span<std::uint8_t const> payload) {
  Reader in(payload, header.order);
  auto body = BodyReader(in, header).read();
  if (!body)
    return Malformed{fmt::format("a message of type {}", static_cast<unsigned>(header.type))};
  if (in.hasMore())
    in.fail("octets are left over");
  if (in.hasFailed())
    return Malformed{in.fault()};
  return *std::move(body);
}

void encode(std::string & out, Header header, Body const & body) {
  constexpr std::array types{
      Type::open,       Type::close,   Type::registration, Type::unregistration, Type::get,
      Type::getNext,    Type::getBulk, Type::testSet,      Type::commitSet,      Type::undoSet,
      Type::cleanupSet, Type::ping,    Type::response};
  static_assert(types.size() == std::variant_size_v<Body>);
  auto const * context = contextOf(body);
  auto const hasContext = context != nullptr && !context->empty();
  Writer writer(out, header.order);
  writer.octet(version);
  writer.octet(static_cast<std::uint8_t>(types[body.index()]));
  writer.octet(static_cast<std::uint8_t>((header.isInstance ? instanceRegistration : 0) |
                                         (hasContext ? nonDefaultContext : 0) |
                                         (header.order == ByteOrder::big ? networkByteOrder : 0)));
  writer.octet(0);
  writer.number(header.session);
  writer.number(header.transaction);
  writer.number(header.packet);
  auto const sizeAt = out.size();
  writer.zeros(sizeof(std::uint32_t)); // not known before the payload is there
  if (hasContext)
    writer.octetString(*context);
  write(writer, body);

  std::string size;
  Writer(size, header.order)
      .number(static_cast<std::uint32_t>(out.size() - sizeAt - sizeof(std::uint32_t)));
  out.replace(sizeAt, size.size(), size);
}

namespace {

Oid Reader::oid(bool * include) {
  auto const count = octet();
  auto const prefix = octet();
  auto const includes = octet();
  skip(1);
  if (include != nullptr)
    *include = includes != 0;
  Oid oid;
  oid.reserve(count + (prefix != 0 ? internet.size() + 1 : 0));
  if (prefix != 0) {
    oid.assign(internet.begin(), internet.end());
    oid.push_back(prefix);
  }
  if (oid.size() + count > longestOid)
    fail("a name of more than 128 sub-identifiers");
  for (std::size_t i = 0; i != count && !hasFailed(); ++i)
    oid.push_back(number<std::uint32_t>());
  return oid;
}

void Writer::oid(Oid const & oid, bool include) {
  auto const skipped = hasPrefix(oid) ? internet.size() + 1 : 0;
  octet(static_cast<std::uint8_t>(oid.size() - skipped));
  octet(static_cast<std::uint8_t>(skipped == 0 ? 0 : oid[internet.size()]));
  octet(include ? 1 : 0);
  octet(0);
  for (auto const subId : std::span(oid).subspan(skipped))
    number(subId);
}

std::optional<Body> BodyReader::read() {
  switch (header_.type) {
  case Type::open:
    return open();
  case Type::close:
    return close();
  case Type::registration:
    return registration();
  case Type::unregistration:
    return Unregistration{registration().region};
  case Type::get:
    return Get{context(), ranges()};
  case Type::getNext:
    return GetNext{context(), ranges()};
  case Type::getBulk:
    return getBulk();
  case Type::testSet:
    return TestSet{context(), varBinds()};
  case Type::commitSet:
    return CommitSet{};
  case Type::undoSet:
    return UndoSet{};
  case Type::cleanupSet:
    return CleanupSet{};
  case Type::ping:
    return Ping{context()};
  case Type::response:
    return response();
  }
  return std::nullopt;
}

Open BodyReader::open() {
  Open open;
  open.timeout = in_.octet();
  in_.skip(3);
  open.id = in_.oid();
  open.description = in_.octetString();
  return open;
}

Close BodyReader::close() {
  Close const close{static_cast<CloseReason>(in_.octet())};
  in_.skip(3);
  return close;
}

// An unregistration looks alike; what is the timeout here is reserved there.
Registration BodyReader::registration() {
  Registration registration;
  auto & region = registration.region;
  region.context = context();
  registration.timeout = in_.octet();
  region.priority = in_.octet();
  region.rangeSubId = in_.octet();
  in_.skip(1);
  region.subtree = in_.oid();
  if (region.rangeSubId != 0)
    region.upperBound = in_.number<std::uint32_t>();
  return registration;
}

GetBulk BodyReader::getBulk() {
  GetBulk bulk;
  bulk.context = context();
  bulk.nonRepeaters = in_.number<std::uint16_t>();
  bulk.maxRepetitions = in_.number<std::uint16_t>();
  bulk.ranges = ranges();
  return bulk;
}

Response BodyReader::response() {
  Response response;
  response.sysUpTime = in_.number<std::uint32_t>();
  response.error = static_cast<Error>(in_.number<std::uint16_t>());
  response.index = in_.number<std::uint16_t>();
  response.varBinds = varBinds();
  return response;
}

std::vector<SearchRange> BodyReader::ranges() {
  std::vector<SearchRange> ranges;
  while (hasMoreThan(ranges.size())) {
    auto & range = ranges.emplace_back();
    range.start = in_.oid(&range.includesStart);
    range.end = in_.oid();
  }
  return ranges;
}

std::vector<VarBind> BodyReader::varBinds() {
  std::vector<VarBind> varBinds;
  while (hasMoreThan(varBinds.size())) {
    auto & varBind = varBinds.emplace_back();
    varBind.type = static_cast<ValueType>(in_.number<std::uint16_t>());
    in_.skip(2);
    varBind.name = in_.oid();
    value(varBind);
  }
  return varBinds;
}

bool BodyReader::hasMoreThan(std::size_t varBinds) {
  if (in_.hasMore() && varBinds == mostVarBinds)
    in_.fail(fmt::format("more than {} names", mostVarBinds));
  return in_.hasMore();
}

void BodyReader::value(VarBind & varBind) {
  switch (varBind.type) {
  case ValueType::integer:
  case ValueType::counter32:
  case ValueType::gauge32:
  case ValueType::timeTicks:
    varBind.value = in_.number<std::uint32_t>();
    return;
  case ValueType::counter64:
    varBind.value = in_.number<std::uint64_t>();
    return;
  case ValueType::octetString:
  case ValueType::opaque:
    varBind.value = in_.octetString();
    return;
  case ValueType::ipAddress:
    varBind.value = in_.octetString();
    if (std::get<std::string>(varBind.value).size() != 4)
      in_.fail("an IpAddress that has not four octets");
    return;
  case ValueType::objectIdentifier:
    varBind.value = in_.oid();
    return;
  case ValueType::null:
  case ValueType::noSuchObject:
  case ValueType::noSuchInstance:
  case ValueType::endOfMibView:
    return;
  }
  in_.fail(fmt::format("a value of type {}", static_cast<unsigned>(varBind.type)));
}

std::string const * contextOf(Body const & body) {
  struct Of {
    std::string const * operator()(Registration const & one) const { return &one.region.context; }
    std::string const * operator()(Unregistration const & one) const { return &one.region.context; }
    std::string const * operator()(Get const & one) const { return &one.context; }
    std::string const * operator()(GetNext const & one) const { return &one.context; }
    std::string const * operator()(GetBulk const & one) const { return &one.context; }
    std::string const * operator()(TestSet const & one) const { return &one.context; }
    std::string const * operator()(Ping const & one) const { return &one.context; }
    std::string const * operator()(Open const &) const { return nullptr; }
    std::string const * operator()(Close const &) const { return nullptr; }
    std::string const * operator()(CommitSet const &) const { return nullptr; }
    std::string const * operator()(UndoSet const &) const { return nullptr; }
    std::string const * operator()(CleanupSet const &) const { return nullptr; }
    std::string const * operator()(Response const &) const { return nullptr; }
  };
  return std::visit(Of{}, body);
}

/// Writes what follows the context.
class BodyWriter {
public:
  explicit BodyWriter(Writer & out) : out_(out) {}

  void operator()(Open const & open) const {
    out_.octet(open.timeout);
    out_.zeros(3);
    out_.oid(open.id);
    out_.octetString(open.description);
  }
  void operator()(Close const & close) const {
    out_.octet(static_cast<std::uint8_t>(close.reason));
    out_.zeros(3);
  }
  void operator()(Registration const & registration) const {
    put(registration.timeout, registration.region);
  }
  void operator()(Unregistration const & unregistration) const { put(0, unregistration.region); }
  void operator()(Get const & get) const { put(get.ranges); }
  void operator()(GetNext const & getNext) const { put(getNext.ranges); }
  void operator()(GetBulk const & bulk) const {
    out_.number(bulk.nonRepeaters);
    out_.number(bulk.maxRepetitions);
    put(bulk.ranges);
  }
  void operator()(TestSet const & set) const { put(set.varBinds); }
  void operator()(CommitSet const &) const {}
  void operator()(UndoSet const &) const {}
  void operator()(CleanupSet const &) const {}
  void operator()(Ping const &) const {}
  void operator()(Response const & response) const {
    out_.number(response.sysUpTime);
    out_.number(static_cast<std::uint16_t>(response.error));
    out_.number(response.index);
    put(response.varBinds);
  }

  // Values of varbinds.
  void operator()(std::monostate) const {}
  void operator()(std::uint32_t number) const { out_.number(number); }
  void operator()(std::uint64_t number) const { out_.number(number); }
  void operator()(std::string const & octets) const { out_.octetString(octets); }
  void operator()(Oid const & oid) const { out_.oid(oid); }

private:
  void put(std::uint8_t first, Region const & region) const {
    out_.octet(first);
    out_.octet(region.priority);
    out_.octet(region.rangeSubId);
    out_.octet(0);
    out_.oid(region.subtree);
    if (region.rangeSubId != 0)
      out_.number(region.upperBound);
  }
  void put(std::vector<SearchRange> const & ranges) const {
    for (auto const & range : ranges) {
      out_.oid(range.start, range.includesStart);
      out_.oid(range.end);
    }
  }
  void put(std::vector<VarBind> const & varBinds) const {
    for (auto const & varBind : varBinds) {
      out_.number(static_cast<std::uint16_t>(varBind.type));
      out_.zeros(2);
      out_.oid(varBind.name);
      std::visit(*this, varBind.value);
    }
  }

  Writer & out_;
};

void write(Writer & out, Body const & body) {
  std::visit(BodyWriter(out), body);
}

} // namespace

} // namespace Agent::AgentX

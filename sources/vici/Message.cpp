// Every length is looked at before what it counts.
#include "sources/vici/Message.h"
#include <fmt/format.h>

namespace Sources::Vici {

namespace {

constexpr std::size_t lengthSize = 4;

enum class Element : std::uint8_t {
  sectionStart = 1,
  sectionEnd = 2,
  keyValue = 3,
  listStart = 4,
  listItem = 5,
  listEnd = 6,
};

bool hasName(PacketType type);

/// Takes numbers and texts off the front of octets. Raises Malformed when there are too few.
class Reader {
public:
  explicit Reader(Octets octets) : left_(octets) {}

  bool isAtEnd() const { return left_.empty(); }
  Octets rest() const { return left_; }
  std::size_t number(std::size_t size);
  std::string_view text(std::size_t size);
  std::string_view name() { return text(number(1)); }
  std::string_view value() { return text(number(2)); }

private:
  Octets left_;
};

/// The elements of one message, and where in it they stand.
class Elements {
public:
  Elements(Octets message, Visitor & visitor) : reader_(message), visitor_(visitor) {}

  void decode();

private:
  void decodeOne(Element element);
  void takeSectionStart();
  void takeSectionEnd();
  void takeKeyValue();
  void takeListStart();
  void takeListItem();
  void takeListEnd();

  Reader reader_;
  Visitor & visitor_;
  std::size_t depth_ = 0;
  std::optional<std::string_view> list_;
};

} // namespace

std::string encodeSegment(PacketType type, std::string_view name, std::string_view message) {
  std::string packet(1, static_cast<char>(type));
  if (hasName(type)) {
    packet += static_cast<char>(name.size());
    packet += name;
  }
  packet += message;
  std::string segment;
  for (int shift = 24; shift >= 0; shift -= 8)
    segment += static_cast<char>(packet.size() >> shift & 0xff);
  return segment + packet;
}

Packet decodePacket(Octets octets) {
  Reader reader(octets);
  auto const type = reader.number(1);
  if (type > static_cast<std::size_t>(PacketType::event))
    throw Malformed(fmt::format("a packet of the unknown type {}", type));
  Packet packet{static_cast<PacketType>(type), {}, {}};
  if (hasName(packet.type))
    packet.name = reader.name();
  packet.message = reader.rest();
  return packet;
}

void Segments::take(Octets octets) {
  octets_.erase(octets_.begin(), octets_.begin() + static_cast<std::ptrdiff_t>(taken_));
  taken_ = 0;
  octets_.insert(octets_.end(), octets.begin(), octets.end());
}

std::optional<Packet> Segments::next() {
  if (waiting().size() < lengthSize)
    return std::nullopt;
  auto const size = Reader(waiting()).number(lengthSize);
  if (size > largestPacket)
    throw Malformed(fmt::format("a packet of {} octets", size));
  if (waiting().size() - lengthSize < size)
    return std::nullopt;
  auto const packet = waiting().subspan(lengthSize, size);
  taken_ += lengthSize + size;
  return decodePacket(packet);
}

void decodeElements(Octets message, Visitor & visitor) {
  Elements(message, visitor).decode();
}

namespace {

bool hasName(PacketType type) {
  return type == PacketType::request || type == PacketType::registerEvent ||
         type == PacketType::unregisterEvent || type == PacketType::event;
}

std::size_t Reader::number(std::size_t size) {
  std::size_t number = 0;
  for (auto const octet : text(size))
    number = number << 8 | static_cast<std::uint8_t>(octet);
  return number;
}

std::string_view Reader::text(std::size_t size) {
  if (size > left_.size())
    throw Malformed(fmt::format("{} octets where {} should stand", left_.size(), size));
  std::string_view const text(reinterpret_cast<char const *>(left_.data()), size);
  left_ = left_.subspan(size);
  return text;
}

void Elements::decode() {
  while (!reader_.isAtEnd())
    decodeOne(static_cast<Element>(reader_.number(1)));
  if (list_)
    throw Malformed("a list without an end");
  if (depth_ != 0)
    throw Malformed("a section without an end");
}

void Elements::decodeOne(Element element) {
  auto const isOfList = element == Element::listItem || element == Element::listEnd;
  if (isOfList != list_.has_value())
    throw Malformed(fmt::format("an element of type {} {} a list", static_cast<int>(element),
                                list_ ? "within" : "outside"));
  switch (element) {
  case Element::sectionStart:
    return takeSectionStart();
  case Element::sectionEnd:
    return takeSectionEnd();
  case Element::keyValue:
    return takeKeyValue();
  case Element::listStart:
    return takeListStart();
  case Element::listItem:
    return takeListItem();
  case Element::listEnd:
    return takeListEnd();
  }
  throw Malformed(fmt::format("an element of the unknown type {}", static_cast<int>(element)));
}

void Elements::takeSectionStart() {
  if (++depth_ > deepestSection)
    throw Malformed(fmt::format("more than {} sections in each other", deepestSection));
  visitor_.sectionBegins(reader_.name());
}

void Elements::takeSectionEnd() {
  if (depth_ == 0)
    throw Malformed("the end of a section that has no start");
  --depth_;
  visitor_.sectionEnds();
}

void Elements::takeKeyValue() {
  auto const key = reader_.name();
  visitor_.value(key, reader_.value());
}

void Elements::takeListStart() {
  list_ = reader_.name();
}

void Elements::takeListItem() {
  visitor_.item(*list_, reader_.value());
}

void Elements::takeListEnd() {
  list_.reset();
}

} // namespace

} // namespace Sources::Vici

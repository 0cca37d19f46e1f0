// Counted objects, notification, exceptions, hashing and text forms.
#include "platform/Zel.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <charconv>

namespace Zel {

namespace {

// While an object is destroyed its count stands here, so that Ptrs made of it by its destructor
// (a notification, say) never destroy it again.
constexpr std::uint32_t destroying = 1u << 30;

Lumo::Counter exceptionsDropped("zel-exceptions-dropped");

} // namespace

void threadSafePtrsIs(bool on) {
  Detail::threadSafePtrs = on;
}
bool threadSafePtrs() {
  return Detail::threadSafePtrs;
}

namespace Detail {
bool threadSafePtrs = false;

void nullDereference(char const * typeName) {
  Lumo::fatal("object", fmt::format("null Zel::Ptr dereferenced (type {})", typeName), "Ptr.h", 0);
}
void wrongKeyType(std::type_info const & told, std::type_info const & asked) {
  Lumo::fatal("keyType", fmt::format("notified key is a {}, not a {}", told.name(), asked.name()),
              "Notifiee.h", 0);
}
} // namespace Detail

PtrInterface::PtrInterface() noexcept = default;
PtrInterface::~PtrInterface() {
  notifieesDelAll();
}

Type const & PtrInterface::type() const {
  static Type const type{"Zel::PtrInterface", {}, nullptr};
  return type;
}

void PtrInterface::hasNotificationActiveIs(bool on) {
  notificationActive_ = on;
}

bool PtrInterface::notifieesEmpty() const {
  return !notifiees_ || notifiees_->empty();
}

void PtrInterface::refDec() const {
  if (Detail::threadSafePtrs) [[unlikely]] {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1)
      return;
  } else {
    auto const left = references_.load(std::memory_order_relaxed) - 1;
    references_.store(left, std::memory_order_relaxed);
    if (left != 0)
      return;
  }
  references_.store(destroying, std::memory_order_relaxed);
  handleZeroReferences();
}

void PtrInterface::notify(Attribute const & attribute) const {
  if (notificationActive_ && notifiees_)
    notifyAll(Notification(*this, attribute));
}

void PtrInterface::notifyAll(Notification const & notification) const {
  if (references_.load(std::memory_order_relaxed) < destroying) {
    Ptr<PtrInterface const> const self(this);
    notifiees_->notify(notification);
    return;
  }
  try {
    notifiees_->notify(notification);
  } catch (...) { // a destructor is at work, and cannot throw on
    exceptionsDropped.inc();
  }
}

void PtrInterface::notifieesDelAll() {
  if (notifiees_)
    notifiees_->delAll();
}

Notifiee::~Notifiee() {
  notifierIs(nullptr);
}

void Notifiee::notifierIs(PtrInterface const * notifier) {
  if (notifier_ != nullptr)
    notifier_->notifiees_->del(*this);
  notifier_ = notifier;
  if (notifier == nullptr)
    return;
  auto & notifiees = const_cast<PtrInterface *>(notifier)->notifiees_; // listening changes no value
  if (!notifiees)
    notifiees = std::make_unique<NotifieeList>();
  notifiees->add(*this);
}

void NotifieeList::add(Notifiee & notifiee) {
  notifiees_.push_back(&notifiee);
}

void NotifieeList::del(Notifiee & notifiee) {
  *std::find(notifiees_.begin(), notifiees_.end(), &notifiee) = nullptr;
  compact();
}

void NotifieeList::delAll() {
  for (auto *& notifiee : notifiees_)
    if (notifiee != nullptr)
      std::exchange(notifiee, nullptr)->notifier_ = nullptr;
  compact();
}

bool NotifieeList::empty() const {
  return std::all_of(notifiees_.begin(), notifiees_.end(), [](auto * n) { return n == nullptr; });
}

void NotifieeList::notify(Notification const & notification) {
  FirstException exception;
  ++depth_;
  for (std::size_t i = 0, present = notifiees_.size(); i != present; ++i) {
    Ptr<Notifiee> const notifiee(notifiees_[i]); // it may release itself
    if (notifiee)
      exception.run([&] { notifiee->onNotification(notification); });
  }
  --depth_;
  compact();
  exception.rethrow();
}

void NotifieeList::compact() {
  if (depth_ == 0)
    std::erase(notifiees_, nullptr);
}

Entity::Entity(std::string_view name) : name_(name) {
  hasNotificationActiveIs(true);
}

void FirstException::keep() {
  if (first_)
    exceptionsDropped.inc();
  else
    first_ = std::current_exception();
}

ReinstantiationError::ReinstantiationError(std::string_view attribute)
    : Exception(
          fmt::format("attribute {}: instantiated again with different arguments", attribute)) {}
NullArgumentError::NullArgumentError(std::string_view attribute)
    : Exception(fmt::format("attribute {}: null argument to a mutator", attribute)) {}
BadOptionalAccess::BadOptionalAccess() : Exception("an empty optional was dereferenced") {}
DeserialisationError::DeserialisationError(std::string_view attribute, std::string_view reason)
    : StrepError(fmt::format("attribute {}: {}", attribute, reason)),
      attribute_(attribute) {}

Hash & Hash::mix(std::span<std::uint8_t const> bytes) {
  mixWord(bytes.size());
  while (!bytes.empty()) {
    std::uint64_t word = 0; // little-endian by construction: the same on every machine
    auto const taken = std::min<std::size_t>(bytes.size(), sizeof word);
    for (std::size_t i = 0; i != taken; ++i)
      word |= std::uint64_t{bytes[i]} << (8 * i);
    mixWord(word);
    bytes = bytes.subspan(taken);
  }
  return *this;
}

void StrepReader::require(std::string_view literal) {
  if (!accept(literal))
    throw StrepError(
        fmt::format("missing text \"{}\" before \"{}\"", literal, rest_.substr(0, 20)));
}

bool StrepReader::accept(std::string_view literal) {
  if (!rest_.starts_with(literal))
    return false;
  rest_.remove_prefix(literal.size());
  return true;
}

std::string_view StrepReader::until(char end) {
  auto const length = rest_.find(end);
  if (length == std::string_view::npos)
    throw StrepError(fmt::format("missing text \"{}\"", end));
  auto const taken = rest_.substr(0, length);
  rest_.remove_prefix(length + 1);
  return taken;
}

std::uint64_t StrepReader::number(std::uint64_t max) {
  std::uint64_t value = 0;
  auto const * const begin = rest_.data();
  auto const [end, error] = std::from_chars(begin, begin + rest_.size(), value);
  if (end == begin || (*begin == '0' && end - begin > 1))
    throw StrepError(fmt::format("no number at \"{}\"", rest_.substr(0, 20)));
  if (error != std::errc() || value > max)
    throw StrepError(fmt::format("number {} is above {}",
                                 rest_.substr(0, static_cast<std::size_t>(end - begin)), max));
  rest_.remove_prefix(static_cast<std::size_t>(end - begin));
  return value;
}

void StrepReader::requireEnd() const {
  if (!rest_.empty())
    throw StrepError(fmt::format("text left over: \"{}\"", rest_.substr(0, 20)));
}

void strepWrite(std::string & out, bool value) {
  out += value ? "True" : "False";
}
void strepRead(StrepReader & in, bool & value) {
  value = in.accept("True");
  if (!value)
    in.require("False");
}

} // namespace Zel

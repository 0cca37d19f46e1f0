// Counted objects, notification, exceptions, hashing and text forms.
#include "platform/Zel.h"
#include "platform/Lumo.h"
#include <algorithm>
#include <charconv>

namespace Zel {

namespace {

Lumo::Counter exceptionsDropped("zel-exceptions-dropped");
Lumo::Counter exceptionsContained("zel-exceptions-contained");

ExceptionReporter & exceptionReporter() {
  static ExceptionReporter reporter;
  return reporter;
}

} // namespace

void threadSafePtrsIs(bool on) {
  Detail::threadSafePtrs = on;
}
bool threadSafePtrs() {
  return Detail::threadSafePtrs;
}

namespace {
std::uint64_t silencingsSoFar = 0;
} // namespace

std::uint64_t silencings() {
  return silencingsSoFar;
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
  auto const before = references_.load(std::memory_order_relaxed);
  auto const flag = on ? notificationActive : 0;
  if (!on && (before & notificationActive) != 0)
    ++silencingsSoFar;
  if (Detail::threadSafePtrs) [[unlikely]]
    references_.fetch_xor((before ^ flag) & notificationActive, std::memory_order_relaxed);
  else
    references_.store((before & ~notificationActive) | flag, std::memory_order_relaxed);
}

void PtrInterface::refDec() const {
  if (Detail::threadSafePtrs) [[unlikely]] {
    if ((references_.fetch_sub(1, std::memory_order_acq_rel) & countMask) != 1)
      return;
  } else {
    auto const left = references_.load(std::memory_order_relaxed) - 1;
    references_.store(left, std::memory_order_relaxed);
    if ((left & countMask) != 0)
      return;
  }
  references_.store(destroying | (references_.load(std::memory_order_relaxed) & notificationActive),
                    std::memory_order_relaxed);
  handleZeroReferences();
}

void PtrInterface::notify(Attribute const & attribute) const {
  if (notifiees_ != nullptr && hasNotificationActive())
    notifyAll(Notification(*this, attribute));
}
void PtrInterface::tell(Attribute const & attribute) const {
  if (notifiees_ != nullptr && hasNotificationActive())
    tellAll(Notification(*this, attribute));
}

/// One notification under way: who is next, and who is the last to hear of it.
class Notifiee::Round {
public:
  explicit Round(PtrInterface const & notifier)
      : notifier_(&notifier),
        next_(notifier.notifiees_),
        outer_(std::exchange(current, this)) {
    for (last_ = next_; last_->next_ != nullptr;)
      last_ = last_->next_;
  }
  Round(Round const &) = delete;
  Round & operator=(Round const &) = delete;
  ~Round() { current = outer_; }

  /// The next one to call, or null.
  Ptr<Notifiee> take() {
    Ptr<Notifiee> const taken(next_); // it may release itself
    if (taken)
      next_ = taken.get() == last_ ? nullptr : taken->next_;
    return taken;
  }

  /// Tells every round that a notifiee leaves; `before` is its predecessor, or null.
  static void leaves(Notifiee const & notifiee, Notifiee * before) {
    for (auto * round = current; round != nullptr; round = round->outer_)
      if (round->notifier_ == notifiee.notifier_)
        round->left(notifiee, before);
  }

private:
  void left(Notifiee const & notifiee, Notifiee * before) {
    if (next_ == &notifiee)
      next_ = last_ == &notifiee ? nullptr : notifiee.next_;
    if (last_ == &notifiee)
      last_ = before;
  }

  static Round * current;

  PtrInterface const * const notifier_;
  Notifiee * next_;
  Notifiee * last_;
  Round * const outer_;
};
Notifiee::Round * Notifiee::Round::current = nullptr;

// Calls each notifiee. The object survives that even if its last Ptr goes meanwhile.
template <class Call>
void PtrInterface::callEach(Call call) const {
  Notifiee::Round round(*this);
  Ptr<PtrInterface const> const self(this);
  while (auto const notifiee = round.take())
    call(*notifiee);
}

void PtrInterface::notifyAll(Notification const & notification) const {
  auto const isDestroyed = (references_.load(std::memory_order_relaxed) & destroying) != 0;
  FirstException exception;
  callEach(
      [&](Notifiee & notifiee) { exception.run([&] { notifiee.onNotification(notification); }); });
  if (!isDestroyed)
    exception.rethrow();
  else if (exception) // a destructor is at work, and cannot throw on
    exceptionsDropped.inc();
}

void PtrInterface::tellAll(Notification const & notification) const {
  callEach([&](Notifiee & notifiee) {
    contained([&] { notifiee.onNotification(notification); },
              [&] {
                return fmt::format("a listener of {}'s {}", notification.source().type().name,
                                   notification.attribute().name);
              });
  });
}

void PtrInterface::notifieesDelAll() {
  while (notifiees_ != nullptr)
    notifiees_->notifierIs(nullptr);
}

void PtrInterface::addNotifiee(Notifiee & notifiee) const {
  auto ** place = &notifiees_;
  while (*place != nullptr)
    place = &(*place)->next_;
  *place = &notifiee;
}

void PtrInterface::delNotifiee(Notifiee & notifiee) const {
  Notifiee * before = nullptr;
  auto ** place = &notifiees_;
  for (; *place != &notifiee; place = &before->next_)
    before = *place;
  Notifiee::Round::leaves(notifiee, before);
  *place = std::exchange(notifiee.next_, nullptr);
}

Notifiee::~Notifiee() {
  notifierIs(nullptr);
}

void Notifiee::notifierIs(PtrInterface const * notifier) {
  if (notifier_ != nullptr)
    notifier_->delNotifiee(*this);
  notifier_ = notifier;
  if (notifier != nullptr)
    notifier->addNotifiee(*this);
}

Entity::Entity(std::string_view name) : name_(name) {
  hasNotificationActiveIs(true);
}

ExceptionReporter exceptionReporterIs(ExceptionReporter reporter) {
  return std::exchange(exceptionReporter(), std::move(reporter));
}

void reportContained(std::string_view where) {
  exceptionsContained.inc();
  auto const reporter = exceptionReporter();
  if (!reporter)
    return;
  try {
    throw;
  } catch (std::exception const & what) {
    reporter(where, what);
  } catch (...) {
    reporter(where, Exception("an exception of no known type"));
  }
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

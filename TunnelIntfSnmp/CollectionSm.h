// The child machine over one collection of an input entity, and the one that every machine has over
// the ifIndex map. InputSm.h says what a child is and which states it has.
//
// What is hard here is the scan. It handles one key after the other, and each of them may change
// the collection that it walks: a listener hears of the row and answers. So the scan never keeps an
// iterator over an event. It remembers the key that it handled and goes on with the next key in
// the collection's order. A key that comes behind that place meanwhile is visited, one that comes
// before it has been heard as a change of its own, and one that goes is not visited any more.
// Between two runs it remembers the next key in the same way; that key may be gone when the scan
// resumes, and the scan resumes with the one behind it.
//
// The collection counts its insertions and removals in a stamp. The child notes the stamp before
// it emits an event, and at the end of each run: a stamp that differs tells of a key that came or
// went unheard.
#pragma once

#include "TunnelIntfSnmp/TableSmRuntime.h"
#include <iterator>
#include <string_view>
#include <type_traits>

namespace TunnelIntfSnmp {

/// Scans `(entity.*Collection)()` and then reacts to each key that `CollectionAttribute()`
/// notifies. The derived child says what a key means.
template <class Entity, auto Collection, auto CollectionAttribute>
class CollectionSm : public InputSm {
public:
  using Map = std::remove_cvref_t<decltype((std::declval<Entity const &>().*Collection)())>;
  using Key = std::remove_const_t<typename Map::const_iterator::value_type::first_type>;
  using Mapped = typename Map::const_iterator::value_type::second_type;

  ~CollectionSm() override { en_->ownerDeletedIs(); }

  std::uint64_t inputSize() const override { return collection().size(); }
  bool hearsItsInput() const override {
    return en_->hasNotificationActive() && input_->hasNotificationActive() && missedNothing();
  }

  void stop() override {
    InputSm::stop();
    en_->ownerDeletedIs();
  }

  void doInputScan() override {
    auto const machine = keepMachine();
    if (!initialized())
      return;
    LUMO_TRACE(trace(), 9, "");
    LUMO_TRACE(trace(), 9, " scan complete: {} resumed: {} scan: {}", streamScanned(),
               inputScanComplete(), static_cast<unsigned>(scanState()));
    if (inputScanComplete())
      return;
    LUMO_ASSERT(en(), "Sm args can only be null if marked as Optional in the SM type declaration");
    std::uint64_t iterations = 0;
    auto position = scanFrom();
    while (position != collection().end()) {
      position = scanKey(position);
      ++iterations;
      if (shouldYield() && position != collection().end()) {
        inputScanBookmark_ = position->first;
        scanYields(iterations);
        observeChangeStamp();
        return;
      }
    }
    observeChangeStamp();
    scanCompletes();
  }

  void doDeleteAll() override {
    auto const machine = keepMachine();
    if (!initialized())
      return;
    LUMO_TRACE(trace(), 9, "");
    assertNothingMissed();
    collection().forEach([this](Key const & key, Mapped const &) { handleGone(key); });
  }

  void hasNotificationActiveIs(bool on) override {
    InputSm::hasNotificationActiveIs(on);
    if (hasNotificationActive() == on) // else a listener has switched back
      en_->hasNotificationActiveIs(on);
  }
  void zelDoZombieReactors(bool doIt) override {
    InputSm::zelDoZombieReactors(doIt);
    en_->zelDoZombieReactors(doIt);
  }

protected:
  /// `input` is the number in TableSmNames::inputs.
  CollectionSm(TableSmBase & machine, std::size_t input, Zel::Ptr<Entity const> entity)
      : InputSm(machine, input),
        input_(std::move(entity)),
        en_(Zel::makePtr<Reactor>(*this, &CollectionSm::handleReactor, input_.get())) {}

  /// One key came, changed, went, or is walked over.
  virtual void handleKey(Key const & key) = 0;
  /// One key counts as gone, though the collection may still have it.
  virtual void handleGone(Key const & key) = 0;

  /// True if and only if a change of the input is delivered at once, not held.
  bool deliversChanges() const { return en_->hasNotificationActive(); }
  /// Records that everything up to now has been heard. Called before a key's event is emitted.
  void observeChangeStamp() { observedChangeStamp_ = collection().changeStamp(); }
  /// What came or went unheard can no longer be replayed: that is fatal.
  void assertNothingMissed() const {
    LUMO_ASSERT(missedNothing(),
                "We missed notifications that happened to {} before the enclosing entity got "
                "deleted",
                CollectionAttribute().name);
  }
  /// The value of the key now. A null value counts as none.
  Zel::Optional<Mapped> valueOf(Key const & key) const {
    auto const * found = collection().find(key);
    if constexpr (requires { found->get(); })
      return found != nullptr && *found ? Zel::Optional<Mapped>(*found) : std::nullopt;
    else
      return found != nullptr ? Zel::Optional<Mapped>(*found) : std::nullopt;
  }

private:
  using Reactor = Flowa::Gen::InReactor<CollectionSm, Key>;
  using Position = typename Map::const_iterator;

  Zel::Ptr<Entity const> const & en() const { return input_; }
  Map const & collection() const { return (input_.get()->*Collection)(); }
  bool missedNothing() const { return collection().changeStamp() == observedChangeStamp_; }

  Position scanFrom() {
    if (scanState() == ScanState::yielded)
      return collection().seek(inputScanBookmark_);
    passBegins();
    return collection().begin();
  }
  // Handles one key and returns where the scan goes on.
  Position scanKey(Position position) {
    auto const key = position->first;
    auto const stamp = collection().changeStamp();
    Zel::contained([&] { handleKey(key); },
                   [&] { return fmt::format("the scan of {}", CollectionAttribute().name); });
    keyScanned();
    return stamp == collection().changeStamp() ? std::next(position) : collection().seekBehind(key);
  }

  void handleReactor(Zel::Attribute const & attribute, Key const & key) {
    auto const machine = keepMachine();
    if (&attribute == &CollectionAttribute())
      handleKey(key);
  }

  Zel::Ptr<Entity const> const input_;
  Zel::Ptr<Reactor> const en_;
  Key inputScanBookmark_{};
  std::uint32_t observedChangeStamp_ = 0;
};

using IntfStatusCollectionSm =
    CollectionSm<Interface::TunnelIntfStatusDir, &Interface::TunnelIntfStatusDir::intfStatus,
                 &Interface::TunnelIntfStatusDir::intfStatusAttribute>;
using IfIndexCollectionSm = CollectionSm<IntfSnmp::IfMib, &IntfSnmp::IfMib::ifIndexByIntfId,
                                         &IntfSnmp::IfMib::ifIndexByIntfIdAttribute>;

/// Turns each change of ifIndexByIntfId into the machine's eventToIfMibStream(intfId, ifIndexOpt).
template <class Machine>
class IfIndexByIntfIdSm final : public IfIndexCollectionSm {
public:
  IfIndexByIntfIdSm(Machine & root, std::size_t input, IfMibPtr ifMib)
      : CollectionSm(root, input, std::move(ifMib)),
        root_(root) {}

private:
  void handleKey(Plexa::IntfId const & intfId) override {
    observeChangeStamp();
    root_.eventToIfMibStream(intfId, valueOf(intfId));
  }
  void handleGone(Plexa::IntfId const & intfId) override {
    root_.eventToIfMibStream(intfId, std::nullopt);
  }

  Machine & root_; // not used once the child is stopped
};

} // namespace TunnelIntfSnmp

// The child machine over one hashed collection of an input entity, and the one that every machine
// has over the ifIndex map.
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

  void doInputScan() override {
    Zel::Ptr<TableSmBase> const keepMachine(&parent());
    if (!initialized())
      return;
    LUMO_TRACE(trace(), 9, "");
    LUMO_TRACE(trace(), 9, " scan complete: {} resumed: {} scan: {}", streamScanned(),
               inputScanComplete(), static_cast<unsigned>(scanState()));
    if (inputScanComplete())
      return;
    LUMO_ASSERT(en(), "Sm args can only be null if marked as Optional in the SM type declaration");
    std::uint64_t iterations = 0;
    Zel::FirstException exception; // of whoever hears of a row: it must not end the scan
    auto position = scanFrom();
    while (position != collection().end()) {
      auto const key = position->first;
      auto const stamp = collection().changeStamp();
      exception.run([&] { handleKey(key); });
      keyScanned();
      ++iterations;
      position =
          stamp == collection().changeStamp() ? std::next(position) : collection().seekBehind(key);
      if (shouldYield() && position != collection().end()) {
        inputScanBookmark_ = position->first;
        scanYields(iterations);
        observeChangeStamp();
        return exception.rethrow();
      }
    }
    observeChangeStamp();
    exception.run([&] { scanCompletes(); });
    exception.rethrow();
  }

  void doDeleteAll() override {
    Zel::Ptr<TableSmBase> const keepMachine(&parent());
    LUMO_TRACE(trace(), 9, "");
    LUMO_ASSERT(collection().changeStamp() == observedChangeStamp_,
                "We missed notifications that happened to {} before the enclosing entity got "
                "deleted",
                CollectionAttribute().name);
    collection().forEach([this](Key const & key, Mapped const &) { handleGone(key); });
  }

  void hasNotificationActiveIs(bool on) override {
    Zel::FirstException exception;
    exception.run([&] { InputSm::hasNotificationActiveIs(on); });
    exception.run([&] { en_->hasNotificationActiveIs(on); });
    exception.rethrow();
  }
  void zelDoZombieReactors(bool doIt) override {
    Zel::FirstException exception;
    exception.run([&] { en_->zelDoZombieReactors(doIt); });
    exception.run([&] { InputSm::zelDoZombieReactors(doIt); });
    exception.rethrow();
  }

protected:
  CollectionSm(TableSmBase & parent, Zel::Ptr<Entity const> entity, std::string_view name,
               ScanFlag flag)
      : InputSm(parent, name, flag),
        input_(std::move(entity)),
        en_(Zel::makePtr<Reactor>(*this, &CollectionSm::handleReactor, input_.get())) {}

  /// One key came, changed, went, or is walked over.
  virtual void handleKey(Key const & key) = 0;
  /// One key counts as gone, though the collection still has it.
  virtual void handleGone(Key const & key) = 0;

  /// Records that everything up to now has been heard. Called before a key's event is emitted.
  void observeChangeStamp() { observedChangeStamp_ = collection().changeStamp(); }
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

  Zel::Ptr<Entity const> const & en() const { return input_; }
  Map const & collection() const { return (input_.get()->*Collection)(); }

  auto scanFrom() {
    if (scanState() == ScanState::yielded)
      return collection().seek(inputScanBookmark_);
    passBegins();
    return collection().begin();
  }

  void handleReactor(Zel::Attribute const & attribute, Key const & key) {
    Zel::Ptr<TableSmBase> const keepMachine(&parent());
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
  IfIndexByIntfIdSm(Machine & root, IfMibPtr ifMib, std::string_view name)
      : CollectionSm(root, std::move(ifMib), name, ifMibStream),
        root_(root) {}

private:
  void handleKey(Plexa::IntfId const & intfId) override {
    observeChangeStamp();
    root_.eventToIfMibStream(intfId, valueOf(intfId));
  }
  void handleGone(Plexa::IntfId const & intfId) override {
    root_.eventToIfMibStream(intfId, std::nullopt);
  }

  Machine & root_;
};

} // namespace TunnelIntfSnmp

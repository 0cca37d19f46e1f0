// The kernel's security associations, found by what a policy's template asks for.
#pragma once

#include "platform/Plexa.h"
#include "sources/linux/PolicyDecoder.h"
#include "sources/linux/ReadMap.h"
#include "sources/linux/StateDecoder.h"
#include <absl/container/btree_map.h>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>

namespace Sources::Linux {

/// For one thread.
class States {
public:
  /// Where states are looked for. What several templates ask for may lie in one place.
  struct Place {
    Plexa::AddressFamily family = Plexa::AddressFamily::none;
    std::array<std::uint8_t, 16> destination{};
    std::uint8_t protocol = 0;
    XfrmMode mode = XfrmMode::transport;
    std::uint32_t reqid = 0;
    std::uint32_t ifId = 0;
    auto operator<=>(Place const &) const = default;
  };
  /// Where packets come from and go to; the empty address where that is not known.
  struct Ends {
    Plexa::IpGenAddr source{};
    Plexa::IpGenAddr destination{};
  };
  /// What a template of a policy asks for.
  struct Wanted {
    Place place;
    Plexa::IpGenAddr source{}; ///< the empty address: any
    std::uint32_t spi = 0;     ///< 0: any
    std::uint32_t mark = 0;    ///< that of the packets
    bool operator==(Wanted const &) const = default;
  };
  /// The best that there is of it.
  enum class Progress : std::uint8_t { none, acquiring, usable };

  States() = default;
  States(States const &) = delete;
  States & operator=(States const &) = delete;

  /// The ends of packets that had these before the template transformed them: of a tunnel its own.
  static Ends endsBehind(PolicyTemplate const & one, Ends const & ends);
  /// The outbound states that the template asks for when it gives packets these ends; nothing when
  /// nobody knows where they go.
  static std::optional<Wanted> wanted(Policy const & policy, PolicyTemplate const & one,
                                      Ends const & ends);
  static Place placeOf(StateId const & id);

  std::size_t size() const { return states_.size(); }
  Progress progress(Wanted const & wanted) const;

  // As ReadMap has it. Each says whether something has changed.
  bool stateIs(StateIs const & state);
  bool stateDel(StateId const & id);
  void beginReading() { states_.beginReading(); }
  bool found(StateIs const & state);
  /// Ends a reading that saw everything: takes away a state that was not found and gives it.
  std::optional<StateId> takeUnseen();
  void endReading() { states_.endReading(); }

private:
  /// By place first, so that what is looked for lies together.
  using Key = std::tuple<Place, std::array<std::uint8_t, 16>, std::uint32_t, std::uint32_t,
                         std::uint32_t>; // place, source, SPI, mark, its mask
  struct Entry {
    StateId id;
    bool isUsable = false;
  };

  static Key keyOf(StateId const & id);

  ReadMap<Key, Entry> states_;
};

} // namespace Sources::Linux

// The source that publishes the tunnel links of the Linux kernel, of the network namespace that the
// process is in.
//
// Most changes are announced by the kernel, and published as they come. It keeps silent about those
// to a link that is down, so everything is read again from time to time, one part of the kernel's
// answer in a turn of the event loop. Reading everything is also the answer to every loss.
//
// It owns what follows the kernel's IPsec policies, and, where that is asked for, its states.
#pragma once

#include "sources/Health.h"
#include "sources/Source.h"
#include "sources/linux/IpsecPolicies.h"
#include "sources/linux/KernelReader.h"
#include "sources/linux/KernelStates.h"
#include "sources/linux/LinkDecoder.h"
#include "sources/linux/LinkPublication.h"
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sources {

class LinuxSource final : public Source, private Linux::KernelReader::User {
public:
  /// How much the kernel may keep for us: about five hundred events.
  static constexpr int defaultReceiveBuffer = 1 << 20;
  /// From one full read to the next; and after one that failed or did not see everything, or after
  /// events could not be received.
  static constexpr std::chrono::seconds fullReadPeriod{20};
  static constexpr auto retryPeriod = Linux::KernelReader::retryPeriod;
  /// How long the kernel may take for each part of its answer, before the read is given up.
  static constexpr auto patience = Linux::KernelReader::patience;

  /// `ask` asks for all links, as Linux::askForAll() does; empty: that.
  ///
  /// Raises std::invalid_argument as Linux::linuxOptionsFromText does, and when there is such
  /// a source already: one can have all kinds.
  LinuxSource(std::string_view options, Surroundings const & surroundings,
              int receiveBuffer = defaultReceiveBuffer, std::function<Os::Descriptor()> ask = {});

  std::string name() const override;
  void start() override;
  void reread() override;
  SourceStatus status() const override;
  std::vector<Ike::ConnectionReport> connections() const override;

private:
  void dumpBegins() override;
  bool found(Linux::Bytes message) override;
  void dumpEnds(bool whole, Linux::KernelReader::Pace pace) override;
  bool heard(Linux::Bytes message) override;
  void isInSync() override;
  void isDegraded(std::string_view error) override;
  std::chrono::milliseconds retryAfter(std::exception const & reason) override;
  void tellHealth();
  void noteRefusals();
  void note(std::string & known, std::string_view things, std::string const & refusal);

  std::string const options_;
  std::function<void(Source const &, std::string_view)> const noted_;
  std::string policiesRefusal_; // as it was noted
  std::string statesRefusal_;
  Health health_;
  Linux::LinkPublication publication_;
  Linux::DefaultHopLimits defaults_;
  std::string linksError_; // what is wrong with the links; empty when nothing is
  Linux::ReceiveBuffer const buffer_{Linux::ReceiveBuffer::Contents::plain};
  Linux::KernelReader reader_;
  Linux::IpsecPolicies policies_;
  std::optional<Linux::KernelStates> states_; // where they are asked for
};

/// `options` is what follows "linux:" on the command line, or empty.
std::unique_ptr<Source> makeLinuxSource(std::string_view options,
                                        Surroundings const & surroundings);

} // namespace Sources

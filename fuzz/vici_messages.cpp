// Any bytes at all from a strongSwan: as a stream of packets, in two cuts that must not matter, and
// as one message. What comes of them is bound to links, and must be fit to be shown.
#include "fuzz/Require.h"
#include "os/Text.h"
#include "sources/ike/Binding.h"
#include "sources/ike/LinkIndex.h"
#include "sources/vici/Listing.h"
#include <memory>
#include <vector>

namespace {

using namespace Sources;
using Vici::Octets;

void require(bool holds) {
  Fuzz::require(holds, "a listing that is not fit to be used");
}

/// A few links of each kind that is bound by another rule.
struct FewLinks {
  FewLinks() {
    auto const address = [](char const * text) { return *Plexa::IpGenAddr::fromString(text); };
    Link link{.intfId = Plexa::IntfId(1), .name = "xfrm1", .kind = "xfrm", .ifId = 42};
    links.linkIs(link);
    for (auto const * kind : {"vti", "gre", "vxlan"}) {
      link = {.intfId = Plexa::IntfId(link.intfId.value() + 1), .name = kind, .kind = kind};
      link.outputKey = 9;
      link.local = address("10.8.0.1");
      link.remote = address("10.8.0.2");
      links.linkIs(link);
    }
  }
  Links links;
  Ike::LinkIndex const index{links};
};

void requireShown(std::string const & text) {
  require(Os::printable(text) == text);
}

template <class Child>
std::size_t selectorsOf(std::vector<Child> const & children) {
  std::size_t all = 0;
  for (auto const & child : children) {
    requireShown(child.name);
    all += child.local.size() + child.remote.size();
  }
  return all;
}

/// True if and only if the call finds no fault in its bytes.
template <class Call>
bool isWellFormed(Call call) {
  try {
    call();
    return true;
  } catch (Vici::Malformed const & malformed) {
    require(Os::oneLine(malformed.what()) == malformed.what());
    return false;
  }
}

void takeListed(Ike::Binding & binding, Octets message) {
  isWellFormed([&] {
    for (auto const & sa : Vici::decodeSas(message)) {
      requireShown(sa.connection);
      require(selectorsOf(sa.children) <= Vici::mostSelectors);
      binding.saIs(sa);
    }
  });
  isWellFormed([&] {
    for (auto const & connection : Vici::decodeConnections(message)) {
      requireShown(connection.name);
      require(selectorsOf(connection.children) <= Vici::mostSelectors);
      binding.connectionIs(connection);
    }
  });
}

void takeAnswer(Octets message) {
  isWellFormed([&] { requireShown(Vici::decodeVersion(message)); });
  isWellFormed([&] { requireShown(Vici::decodeError(message)); });
}

/// The packets of the stream, as far as it is well-formed, when it comes in pieces of that size.
template <class Take>
std::size_t takeStream(Octets stream, std::size_t piece, Take take) {
  std::size_t packets = 0;
  isWellFormed([&] {
    Vici::Segments segments;
    for (; !stream.empty(); stream = stream.subspan(std::min(piece, stream.size()))) {
      segments.take(stream.first(std::min(piece, stream.size())));
      while (auto const packet = segments.next()) {
        ++packets;
        take(packet->message);
      }
    }
  });
  return packets;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  static FewLinks const few;
  Octets const all(data, size);
  Ike::Binding binding(few.index, {{"site", "", "gre"}});
  auto const packets = takeStream(all, 65536, [&](Octets message) {
    takeListed(binding, message);
    takeAnswer(message);
  });
  require(takeStream(all, 3, [](Octets) {}) == packets);
  takeListed(binding, all);
  takeAnswer(all);
  auto const bindings = std::move(binding).result();
  for (auto const & report : bindings.reports) {
    requireShown(report.connection);
    requireShown(report.child);
    requireShown(report.reason);
  }
  for (auto const & [intfId, bound] : bindings.interfaces)
    require(few.links.find(intfId) != nullptr && !bound.profile.empty());
  return 0;
}

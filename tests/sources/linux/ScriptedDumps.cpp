// Numbers stand as they are on the wire, with their meaning beside them.
#include "tests/sources/linux/ScriptedDumps.h"
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace LinkBytes;

void ScriptedDumps::send(Part const & part) const {
  EXPECT_EQ(::send(kernel_.get(), part.data(), part.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(part.size()));
}

Os::Descriptor ScriptedDumps::ask() {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  kernel_ = Os::Descriptor(ends[1]);
  ++asked_;
  if (!answers_.empty()) {
    for (auto const & part : answers_.front())
      send(part);
    answers_.pop_front();
  }
  return Os::Descriptor(ends[0]);
}

Octets ScriptedDumps::gre(int index, std::uint8_t hopLimit) {
  auto const data = joined({attribute(6, {10, 0, 0, 1}), // local
                            attribute(7, {10, 0, 0, 2}), // remote
                            attribute(8, {hopLimit})});
  return message(newLink, unspecified, index, link("gre" + std::to_string(index), "gre", data));
}

Octets ScriptedDumps::malformed(int index) {
  return message(newLink, unspecified, index, {200, 0, 3, 0}); // a name of 200 octets
}

Octets ScriptedDumps::interrupted(Octets message) {
  message.at(6) |= 0x10; // NLM_F_DUMP_INTR
  return message;
}

Octets ScriptedDumps::end(std::uint16_t type, std::int32_t number) {
  return joined({native<std::uint32_t>(20), native(type),
                 native<std::uint16_t>(2), // one of several
                 native<std::uint32_t>(0), native<std::uint32_t>(0), native(number)});
}

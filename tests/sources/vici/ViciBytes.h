// Messages of vici, written element by element.
#pragma once

#include "sources/vici/Message.h"
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ViciBytes {

/// The octets of the text.
inline Sources::Vici::Octets octets(std::string_view text) {
  return {reinterpret_cast<std::uint8_t const *>(text.data()), text.size()};
}

/// A message under construction. Does not look at what fits together.
class Message {
public:
  Message & section(std::string_view name) { return element(1).name(name); }
  Message & end() { return element(2); }
  Message & value(std::string_view key, std::string_view value) {
    return element(3).name(key).text(value);
  }
  Message & list(std::string_view key, std::vector<std::string> const & items) {
    element(4).name(key);
    for (auto const & item : items)
      element(5).text(item);
    return element(6);
  }
  Message & element(int type) {
    text_ += static_cast<char>(type);
    return *this;
  }
  Message & name(std::string_view name) {
    text_ += static_cast<char>(name.size());
    text_ += name;
    return *this;
  }
  Message & text(std::string_view text) {
    text_ += static_cast<char>(text.size() >> 8);
    text_ += static_cast<char>(text.size() & 0xff);
    text_ += text;
    return *this;
  }
  operator std::string() const { return text_; }
  std::string str() const { return text_; }

private:
  std::string text_;
};

// What the daemon lists.

struct Child {
  std::string name;
  std::string state = "INSTALLED";
  std::vector<std::pair<std::string, std::string>> values = {}; ///< further ones
  std::string local = "0.0.0.0/0";
  std::string remote = "0.0.0.0/0";
};

/// The message of a list-sa event: an IKE_SA between 10.0.0.1 and 10.0.0.2.
inline std::string sa(std::string_view connection, std::string_view state,
                      std::vector<Child> const & children, int uniqueId = 1) {
  Message message;
  message.section(connection).value("uniqueid", std::to_string(uniqueId)).value("version", "2");
  message.value("state", state).value("local-host", "10.0.0.1").value("remote-host", "10.0.0.2");
  message.list("tasks-queued", {"IKE_DPD"}).section("child-sas");
  for (auto const & child : children) {
    message.section(child.name + "-7").value("name", child.name).value("uniqueid", "7");
    message.value("state", child.state).value("mode", "TUNNEL");
    for (auto const & [key, value] : child.values)
      message.value(key, value);
    message.list("local-ts", {child.local}).list("remote-ts", {child.remote}).end();
  }
  return message.end().end();
}

/// The message of a list-conn event: a connection of those children, which are for everything.
inline std::string conn(std::string_view name, std::vector<std::string> const & children,
                        std::string const & local = "10.0.0.1",
                        std::string const & remote = "10.0.0.2") {
  Message message;
  message.section(name).list("local_addrs", {local}).list("remote_addrs", {remote});
  message.value("version", "IKEv2").section("local-1").value("id", "n1").list("groups", {}).end();
  message.section("children");
  for (auto const & child : children)
    message.section(child)
        .value("mode", "TUNNEL")
        .list("local-ts", {"0.0.0.0/0"})
        .list("remote-ts", {"0.0.0.0/0"})
        .end();
  return message.end().end();
}

} // namespace ViciBytes

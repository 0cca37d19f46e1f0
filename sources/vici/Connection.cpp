// Two buffers and a socket.
#include "sources/vici/Connection.h"
#include "os/UnixAddress.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>

namespace Sources::Vici {

namespace {

bool isForLater(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

Os::Descriptor connected(std::string const & path);
std::string whyNot(std::string const & path, int error);
std::string whoMay(std::string const & path);

} // namespace

Connection::Connection(std::string const & path, Os::Loop & loop, Callbacks callbacks)
    : loop_(loop),
      callbacks_(std::move(callbacks)),
      socket_(connected(path)),
      readable_(loop.readable(socket_.get(), [this] { receive(); })) {}

// By the loop, so that a failure is told by nobody but it.
void Connection::send(PacketType type, std::string_view name) {
  output_ += encodeSegment(type, name);
  if (!writable_)
    writable_ = loop_.writable(socket_.get(), [this] { flush(); });
}

void Connection::receive() {
  try {
    receiveOrRaise();
  } catch (std::exception const & reason) {
    loseIt(reason);
  }
}

void Connection::receiveOrRaise() {
  std::array<std::uint8_t, pieceSize> piece;
  auto const count = recv(socket_.get(), piece.data(), piece.size(), 0);
  if (count < 0 && isForLater(errno))
    return;
  if (count < 0)
    throw Unreachable(std::strerror(errno));
  if (count == 0)
    throw Unreachable("it has closed the connection");
  callbacks_.heard();
  input_.take(Octets(piece).first(static_cast<std::size_t>(count)));
  while (auto const packet = input_.next())
    callbacks_.received(*packet);
}

void Connection::flush() {
  try {
    flushOrRaise();
  } catch (std::exception const & reason) {
    loseIt(reason);
  }
}

void Connection::flushOrRaise() {
  auto const count = ::send(socket_.get(), output_.data(), output_.size(), MSG_NOSIGNAL);
  if (count < 0 && !isForLater(errno))
    throw Unreachable(std::strerror(errno));
  output_.erase(0, count < 0 ? 0 : static_cast<std::size_t>(count));
  if (output_.empty())
    writable_.reset();
}

// The last thing that is done: what is told may end this.
void Connection::loseIt(std::exception const & reason) {
  readable_.reset();
  writable_.reset();
  auto const lost = std::move(callbacks_.lost);
  lost(reason);
}

namespace {

// It is connected at once or not at all: a queue that is full gives EAGAIN, and no wish to wait is
// left behind.
Os::Descriptor connected(std::string const & path) {
  auto const address = Os::UnixAddress::ofPath(path);
  if (!address)
    throw Unreachable("its path is too long");
  Os::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket)
    throw Unreachable(std::strerror(errno));
  if (connect(socket.get(), address->get(), address->size()) != 0)
    throw Unreachable(whyNot(path, errno));
  return socket;
}

std::string whyNot(std::string const & path, int error) {
  switch (error) {
  case ENOENT:
    return "there is no such socket: is strongSwan running, with its plug-in vici?";
  case ECONNREFUSED:
    return "nobody listens there: is strongSwan running?";
  case EAGAIN:
    return "too many connections wait there: does strongSwan still work?";
  case EACCES:
    return whoMay(path);
  default:
    return std::strerror(error);
  }
}

std::string whoMay(std::string const & path) {
  struct stat socket {};
  if (stat(path.c_str(), &socket) != 0)
    return "permission denied already for its folder: run as root";
  std::array<char, 4096> texts;
  group entry{};
  group * found = nullptr;
  getgrgid_r(socket.st_gid, &entry, texts.data(), texts.size(), &found);
  auto const name = found != nullptr ? found->gr_name : std::to_string(socket.st_gid);
  return fmt::format("permission denied: it is for the group {}; have the user that this runs as "
                     "join it, or run as root",
                     name);
}

} // namespace

} // namespace Sources::Vici

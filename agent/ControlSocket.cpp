// The listening socket and its connections.
//
// A connection is a state of three: it waits for a line, it makes an answer piece by piece, or it
// waits until the client has read enough of it. Each piece is made in a turn of the loop of its
// own, so that a long answer takes its place among the requests of SNMP.
#include "agent/ControlSocket.h"
#include "agent/EndSignals.h"
#include "agent/Report.h"
#include "os/Descriptor.h"
#include "os/Time.h"
#include "os/UnixAddress.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

Lumo::Counter clientsDropped("agent-control-clients-dropped");
Lumo::Counter answersFailed("agent-control-answers-failed");
Lumo::Counter staleSockets("agent-control-stale-sockets");
Lumo::Counter acceptFailures("agent-control-accept-failures");

/// After an empty piece of an answer, before it is asked for the next one.
constexpr std::chrono::milliseconds untilKnown{10};
/// After a client could not be taken, before the next one is looked for: it still waits.
constexpr std::chrono::milliseconds untilAcceptAgain{100};
/// How long another daemon's start may hold the lock of the path. It takes no time but its own.
constexpr std::chrono::seconds longestLock{2};

Os::UnixAddress addressOf(std::string const & path) {
  if (auto const address = Os::UnixAddress::ofPath(path))
    return *address;
  throw std::runtime_error(
      fmt::format("the control socket {}: the path is longer than {} characters; name another "
                  "with --control",
                  path, Os::UnixAddress::longestPath));
}

std::runtime_error refusal(std::string const & path, std::string_view reason) {
  return std::runtime_error(fmt::format(
      "cannot make the control socket {}: {}; name another with --control", path, reason));
}

Os::Descriptor newSocket(std::string const & path) {
  Os::Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!descriptor)
    throw refusal(path, std::strerror(errno));
  return descriptor;
}

/// Mode 0600 from the first moment: a later chmod would leave a gap.
int bindPrivately(int descriptor, Os::UnixAddress const & address) {
  auto const before = umask(0177);
  auto const result = bind(descriptor, address.get(), address.size());
  auto const error = errno;
  umask(before);
  errno = error;
  return result;
}

/// Removes a socket at which nobody listens any more. Raises for anything else.
void removeStale(std::string const & path, Os::UnixAddress const & address) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode))
    throw refusal(path, "there is a file of another kind");
  auto const probe = newSocket(path);
  if (connect(probe.get(), address.get(), address.size()) == 0)
    throw refusal(path, "another daemon is listening there");
  if (errno == ENOENT)
    return; // it has gone meanwhile
  if (errno != ECONNREFUSED)
    throw refusal(path, std::strerror(errno));
  staleSockets.inc();
  unlink(path.c_str());
}

/// Holds, while it lives, what only one daemon at a time may: to look at what is at a path, and to
/// listen there. Otherwise of two that find a dead daemon's socket, one would remove the new socket
/// of the other. The lock is a file beside the socket, there for this moment only.
class PathLock {
public:
  explicit PathLock(std::string const & path) : path_(path + ".lock") {
    auto const end = std::chrono::steady_clock::now() + longestLock;
    while (!take(path)) {
      if (std::chrono::steady_clock::now() > end)
        throw refusal(path, fmt::format("somebody holds {}", path_));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  PathLock(PathLock const &) = delete;
  PathLock & operator=(PathLock const &) = delete;
  ~PathLock() { unlink(path_.c_str()); }

private:
  /// True if and only if the file at the path is locked by us: the one before may have removed the
  /// file that we have opened.
  bool take(std::string const & path) {
    file_ = Os::Descriptor(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file_)
      throw refusal(path, std::strerror(errno));
    struct stat ours {};
    struct stat there {};
    return flock(file_.get(), LOCK_EX | LOCK_NB) == 0 && fstat(file_.get(), &ours) == 0 &&
           lstat(path_.c_str(), &there) == 0 && ours.st_ino == there.st_ino;
  }

  std::string const path_;
  Os::Descriptor file_;
};

/// The system empties /run with each start, so that the default's folder is there only after the
/// daemon or its supervisor made it.
void makeFolder(std::string const & path) {
  auto const folder = std::filesystem::path(path).parent_path();
  if (!folder.empty() && mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
    throw refusal(path, std::strerror(errno));
}

Os::Descriptor listenAt(std::string const & path) {
  auto const address = addressOf(path);
  makeFolder(path);
  PathLock const lock(path);
  auto descriptor = newSocket(path);
  if (bindPrivately(descriptor.get(), address) != 0) {
    if (errno != EADDRINUSE)
      throw refusal(path, std::strerror(errno));
    removeStale(path, address);
    if (bindPrivately(descriptor.get(), address) != 0)
      throw refusal(path, std::strerror(errno));
  }
  if (::listen(descriptor.get(), SOMAXCONN) != 0)
    throw refusal(path, std::strerror(errno));
  return descriptor;
}

unsigned long inodeAt(std::string const & path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

/// One connection. It works on one request at a time; what else has arrived waits in its buffer.
class ControlSocket::Client {
public:
  Client(ControlSocket & owner, Os::Descriptor connection)
      : owner_(owner),
        buffer_(
            bufferevent_socket_new(owner.loop_.base(), connection.get(), BEV_OPT_CLOSE_ON_FREE)) {
    if (buffer_ == nullptr)
      throw std::runtime_error("cannot take a control connection: out of memory");
    (void)connection.release(); // the buffer closes it
    bufferevent_setcb(buffer_, &Client::readable, &Client::drained, &Client::ended, this);
    // One octet more than is allowed shows that a line is too long.
    bufferevent_setwatermark(buffer_, EV_READ, 0, owner.limits_.requestSize + 1);
    bufferevent_setwatermark(buffer_, EV_WRITE, owner.limits_.unreadSize / 2, 0);
    auto const patience = Os::toTimeval(owner.limits_.patience);
    bufferevent_set_timeouts(buffer_, nullptr, &patience);
    bufferevent_enable(buffer_, EV_READ | EV_WRITE);
  }
  Client(Client const &) = delete;
  Client & operator=(Client const &) = delete;
  ~Client() { bufferevent_free(buffer_); }

  /// True if and only if it has asked for nothing that it has not been sent.
  bool isIdle() const { return !answer_ && evbuffer_get_length(output()) == 0; }
  /// When something arrived last.
  std::chrono::steady_clock::time_point heardAt() const { return heardAt_; }

private:
  static void readable(bufferevent *, void * self) {
    static_cast<Client *>(self)->heardAt_ = std::chrono::steady_clock::now();
    static_cast<Client *>(self)->step();
  }
  static void drained(bufferevent *, void * self) { static_cast<Client *>(self)->step(); }
  static void ended(bufferevent *, short what, void * self) {
    static_cast<Client *>(self)->end(what);
  }

  evbuffer * input() const { return bufferevent_get_input(buffer_); }
  evbuffer * output() const { return bufferevent_get_output(buffer_); }

  /// Does one piece of work, if there is any that the client can take. May end this object.
  void step() {
    try {
      work();
    } catch (std::exception const & exception) { // may not pass through libevent
      reportFailure(answersFailed, "while a control request was answered", exception);
      owner_.drop(*this);
    }
  }

  void work() {
    if (next_)
      return; // the next piece comes in its turn
    if (evbuffer_get_length(output()) >= owner_.limits_.unreadSize)
      return; // drained() will come
    if (!answer_ && !takeRequest())
      return;
    next_ = owner_.loop_.after(writePiece() ? std::chrono::milliseconds(0) : untilKnown, [this] {
      next_.reset();
      step();
    });
  }

  /// Begins with the next whole line. False when there is none: then the end of the connection is
  /// looked after, and this object may be gone.
  bool takeRequest() {
    if (auto const line = takeLine()) {
      answer_ = owner_.handler_(*line);
      return true;
    }
    if (evbuffer_get_length(input()) > owner_.limits_.requestSize) {
      refuseTooLong();
      return true;
    }
    if (ending_ && evbuffer_get_length(output()) == 0)
      owner_.drop(*this);
    return false;
  }

  std::optional<std::string> takeLine() {
    evbuffer_ptr from{};
    evbuffer_ptr_set(input(), &from, searched_, EVBUFFER_PTR_SET);
    auto const end = evbuffer_search_eol(input(), &from, nullptr, EVBUFFER_EOL_LF);
    if (end.pos < 0) {
      searched_ = evbuffer_get_length(input());
      return std::nullopt;
    }
    std::string line(static_cast<std::size_t>(end.pos), '\0');
    evbuffer_remove(input(), line.data(), line.size());
    evbuffer_drain(input(), 1);
    searched_ = 0;
    return line;
  }

  void refuseTooLong() {
    clientsDropped.inc();
    ending_ = true;
    bufferevent_disable(buffer_, EV_READ);
    evbuffer_drain(input(), evbuffer_get_length(input()));
    searched_ = 0;
    answer_ =
        errorAnswer(fmt::format("the request is longer than {} bytes", owner_.limits_.requestSize));
  }

  /// True if and only if there was something to write.
  bool writePiece() {
    std::string piece;
    auto const more = answer_(piece);
    if (!more) {
      piece += '\n';
      answer_ = nullptr;
    }
    if (evbuffer_add(output(), piece.data(), piece.size()) != 0)
      throw std::bad_alloc(); // without this piece it would be another answer
    return !piece.empty();
  }

  void end(short what) {
    auto const closedBySender = (what & BEV_EVENT_EOF) != 0 && (what & BEV_EVENT_READING) != 0;
    if (closedBySender &&
        (answer_ || evbuffer_get_length(input()) != 0 || evbuffer_get_length(output()) != 0)) {
      ending_ = true; // it may still read what it has asked for
      bufferevent_setwatermark(buffer_, EV_WRITE, 0, 0);
      step();
      return;
    }
    if ((what & BEV_EVENT_TIMEOUT) != 0) {
      clientsDropped.inc();
      report("a control client read nothing for too long and was dropped");
    }
    owner_.drop(*this);
  }

  ControlSocket & owner_;
  bufferevent * const buffer_;
  Answer answer_;            // of the request at work; empty: none is
  Os::Loop::Handle next_;    // the next step, in the next turn of the loop
  bool ending_ = false;      // nothing more will arrive
  std::size_t searched_ = 0; // so much of the input is known to hold no line end
  std::chrono::steady_clock::time_point heardAt_ = std::chrono::steady_clock::now();
};

ControlSocket::ControlSocket(EventLoop & loop, std::string path, Handler handler,
                             ControlLimits limits)
    : loop_(loop),
      path_(std::move(path)),
      handler_(std::move(handler)),
      limits_(limits),
      descriptor_(listenAt(path_)),
      inode_(inodeAt(path_)),
      watch_(loop.readable(descriptor_.get(), [this] { accept(); })) {
  EndSignals::fileIs(path_);
}

ControlSocket::~ControlSocket() {
  watch_.reset();
  clients_.clear();
  if (inodeAt(path_) == inode_)
    unlink(path_.c_str());
  EndSignals::fileIs({});
}

void ControlSocket::accept() {
  Os::Descriptor connection(
      accept4(descriptor_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!connection) {
    if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) // then it has gone again
      acceptLater();
    return;
  }
  if (clients_.size() >= limits_.clients && !dropOldestIdle()) {
    clientsDropped.inc();
    return;
  }
  clients_.push_back(std::make_unique<Client>(*this, std::move(connection)));
}

// Out of descriptors, say. The client waits in the socket's queue, so that the socket stays
// readable.
void ControlSocket::acceptLater() {
  acceptFailures.inc();
  watch_ = loop_.after(untilAcceptAgain, [this] {
    watch_ = loop_.readable(descriptor_.get(), [this] { accept(); });
  });
}

/// Makes room for a new client. False when each has something to do.
bool ControlSocket::dropOldestIdle() {
  auto oldest = clients_.end();
  for (auto one = clients_.begin(); one != clients_.end(); ++one)
    if ((*one)->isIdle() && (oldest == clients_.end() || (*one)->heardAt() < (*oldest)->heardAt()))
      oldest = one;
  if (oldest == clients_.end())
    return false;
  clientsDropped.inc();
  clients_.erase(oldest);
  return true;
}

void ControlSocket::drop(Client const & client) {
  std::erase_if(clients_, [&](auto const & one) { return one.get() == &client; });
}

} // namespace Agent

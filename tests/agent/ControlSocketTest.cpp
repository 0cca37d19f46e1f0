// The control socket with clients of every kind: slow, greedy, gone.
#include "agent/ControlSocket.h"
#include "platform/Lumo.h"
#include <atomic>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

/// A client whose end never blocks; the test lets the loop turn in between.
class Peer {
public:
  explicit Peer(std::string const & path)
      : descriptor_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(0, connect(descriptor_, reinterpret_cast<sockaddr *>(&address), sizeof address));
  }
  Peer(Peer const &) = delete;
  Peer & operator=(Peer const &) = delete;
  ~Peer() { close(descriptor_); }

  std::size_t put(std::string_view text) {
    auto const sent = send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  void endPutting() { shutdown(descriptor_, SHUT_WR); }
  /// What has arrived by now; notes the end of the connection.
  std::string take() {
    std::string all;
    char part[65536];
    for (;;) {
      auto const got = recv(descriptor_, part, sizeof part, 0);
      if (got <= 0) {
        ended_ = ended_ || got == 0 || errno == ECONNRESET;
        return all;
      }
      all.append(part, static_cast<std::size_t>(got));
    }
  }
  bool ended() const { return ended_; }

private:
  int const descriptor_;
  bool ended_ = false;
};

class ControlSocket : public testing::Test {
protected:
  ControlSocket() {
    std::string pattern = testing::TempDir() + "control-XXXXXX";
    folder_ = mkdtemp(pattern.data());
    path_ = folder_ + "/sock";
  }
  ~ControlSocket() override { std::filesystem::remove_all(folder_); }

  Agent::ControlSocket & start(Agent::ControlLimits limits = {}) {
    server_ = std::make_unique<Agent::ControlSocket>(
        loop_, path_,
        [this](std::string_view request) {
          requests_.emplace_back(request);
          return answer_(request);
        },
        limits);
    return *server_;
  }

  /// Turns the loop until `done` holds; fails the test after a number of turns that no working
  /// server needs.
  void turnUntil(std::function<bool()> const & done) {
    int turns = 0;
    loop_.run([&] {
      if (done() || ++turns == 200'000)
        loop_.stop();
      return true;
    });
    EXPECT_TRUE(done());
  }
  /// Turns the loop often enough for anything that is under way to be over.
  void settle() {
    int turns = 0;
    turnUntil([&] { return ++turns > 2000; });
  }
  std::string receiveUntil(Peer & peer, std::size_t lines) {
    std::string all;
    turnUntil([&] {
      all += peer.take();
      return static_cast<std::size_t>(std::ranges::count(all, '\n')) >= lines || peer.ended();
    });
    return all;
  }

  /// Answers a request by itself.
  static Agent::Answer echo(std::string_view request) {
    return [text = std::string(request)](std::string & out) {
      out += "<" + text + ">";
      return false;
    };
  }

  Agent::EventLoop loop_;
  std::string folder_;
  std::string path_;
  std::vector<std::string> requests_;
  std::function<Agent::Answer(std::string_view)> answer_ = echo;
  std::unique_ptr<Agent::ControlSocket> server_;
};

TEST_F(ControlSocket, IsForItsOwnerOnly) {
  start();
  struct stat status {};
  ASSERT_EQ(0, stat(path_.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777u);
}

TEST_F(ControlSocket, AnswersRequestsThatArriveInOnePieceInOrder) {
  start();
  Peer peer(path_);
  peer.put("one\ntwo\nthree\n");
  EXPECT_EQ("<one>\n<two>\n<three>\n", receiveUntil(peer, 3));
}

TEST_F(ControlSocket, WaitsForTheRestOfALine) {
  start();
  Peer peer(path_);
  for (auto const * part : {"o", "n", "e"}) {
    peer.put(part);
    settle();
    EXPECT_TRUE(requests_.empty());
  }
  peer.put("\ntw");
  EXPECT_EQ("<one>\n", receiveUntil(peer, 1));
  peer.put("o\n");
  EXPECT_EQ("<two>\n", receiveUntil(peer, 1));
}

TEST_F(ControlSocket, AnswersTwoClientsIndependently) {
  start();
  Peer slow(path_);
  slow.put("never ended");
  Peer quick(path_);
  quick.put("quick\n");
  EXPECT_EQ("<quick>\n", receiveUntil(quick, 1));
}

TEST_F(ControlSocket, AnswersAClientThatHasEndedItsSide) {
  auto & server = start();
  Peer peer(path_);
  peer.put("one\ntwo\n");
  peer.endPutting();
  EXPECT_EQ("<one>\n<two>\n", receiveUntil(peer, 2));
  turnUntil([&] { return server.clients() == 0; });
}

TEST_F(ControlSocket, RefusesALineThatIsTooLongAndDropsTheClient) {
  auto & server = start({.requestSize = 1000});
  auto const before = Lumo::counter("agent-control-clients-dropped");
  Peer peer(path_);
  peer.put(std::string(1001, 'x'));
  auto const answer = receiveUntil(peer, 1);
  EXPECT_THAT(answer, StartsWith(R"({"ok":false)"));
  EXPECT_THAT(answer, HasSubstr("1000 bytes"));
  turnUntil([&] { return server.clients() == 0; });
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(before + 1, Lumo::counter("agent-control-clients-dropped"));
}

TEST_F(ControlSocket, TakesALineOfJustTheLimit) {
  start({.requestSize = 1000});
  Peer peer(path_);
  peer.put(std::string(1000, 'x') + "\n");
  EXPECT_EQ("<" + std::string(1000, 'x') + ">\n", receiveUntil(peer, 1));
}

TEST_F(ControlSocket, SurvivesAClientThatVanishesBeforeItsAnswer) {
  auto & server = start();
  {
    Peer peer(path_);
    peer.put("one\ntwo\nhalf");
    turnUntil([&] { return server.clients() == 1; });
  }
  turnUntil([&] { return server.clients() == 0; });
  Peer next(path_);
  next.put("next\n");
  EXPECT_EQ("<next>\n", receiveUntil(next, 1));
}

/// An answer without end that counts what it has made.
struct Endless {
  std::shared_ptr<std::size_t> made = std::make_shared<std::size_t>(0);
  bool operator()(std::string & out) const {
    out.append(1000, 'x');
    *made += 1000;
    return true;
  }
};

TEST_F(ControlSocket, MakesNoMoreOfAnAnswerThanTheClientReads) {
  start({.unreadSize = 10'000});
  Endless endless;
  answer_ = [&](std::string_view) { return endless; };
  Peer peer(path_);
  peer.put("go\n");
  settle();
  auto const unread = *endless.made;
  // Beyond the limit there is only what the system keeps for the connection.
  EXPECT_LT(unread, 2'000'000u);
  settle();
  EXPECT_EQ(unread, *endless.made);
  std::size_t taken = 0;
  turnUntil([&] { return (taken += peer.take().size()) > unread; });
  EXPECT_GT(*endless.made, unread);
}

TEST_F(ControlSocket, DropsAClientThatReadsNothing) {
  auto & server = start({.unreadSize = 10'000, .patience = milliseconds(1)});
  answer_ = [](std::string_view) { return Endless(); };
  Peer peer(path_);
  peer.put("go\n");
  turnUntil([&] { return !requests_.empty() && server.clients() == 0; });
}

TEST_F(ControlSocket, ServesOthersWhileALongAnswerIsMade) {
  start({.unreadSize = std::size_t{1} << 30});
  Endless endless;
  answer_ = [&](std::string_view request) -> Agent::Answer {
    return request == "long" ? Agent::Answer(endless) : echo(request);
  };
  Peer reader(path_);
  reader.put("long\n");
  turnUntil([&] { return *endless.made != 0; });
  Peer other(path_);
  other.put("short\n");
  EXPECT_EQ("<short>\n", receiveUntil(other, 1));
}

TEST_F(ControlSocket, DropsAClientWhoseAnswerFails) {
  auto & server = start();
  answer_ = [](std::string_view) -> Agent::Answer {
    return [](std::string &) -> bool { throw std::runtime_error("meant to happen"); };
  };
  Peer peer(path_);
  peer.put("go\n");
  turnUntil([&] { return !requests_.empty() && server.clients() == 0; });
  EXPECT_EQ("", peer.take());
  EXPECT_TRUE(peer.ended());
}

TEST_F(ControlSocket, DropsTheOldestSilentClientForOneTooMany) {
  auto & server = start({.clients = 2});
  Peer first(path_);
  Peer second(path_);
  turnUntil([&] { return server.clients() == 2; });
  first.put("half a li"); // heard of later than the second
  settle();
  Peer third(path_);
  turnUntil([&] {
    second.take();
    return second.ended();
  });
  third.put("three\n");
  EXPECT_EQ("<three>\n", receiveUntil(third, 1));
  first.put("ne\n");
  EXPECT_EQ("<half a line>\n", receiveUntil(first, 1));
  EXPECT_EQ(2u, server.clients());
}

TEST_F(ControlSocket, RefusesAClientTooManyWhenEachHasSomethingToDo) {
  auto & server = start({.clients = 2});
  answer_ = [](std::string_view) -> Agent::Answer {
    return [](std::string &) { return true; }; // never known
  };
  Peer first(path_);
  Peer second(path_);
  first.put("one\n");
  second.put("two\n");
  turnUntil([&] { return requests_.size() == 2; });
  Peer third(path_);
  turnUntil([&] {
    third.take();
    return third.ended();
  });
  EXPECT_EQ(2u, server.clients());
}

TEST_F(ControlSocket, TakesTheClientsThatWaitedForADescriptor) {
  start();
  std::vector<int> taken;
  Peer waiting(path_);
  for (int next = dup(0); next != -1; next = dup(0))
    taken.push_back(next);
  settle();
  auto const failures = Lumo::counter("agent-control-accept-failures");
  settle();
  EXPECT_LE(Lumo::counter("agent-control-accept-failures"), failures + 20) << "it spins";
  EXPECT_GE(failures, 1u);
  for (auto const one : taken)
    close(one);
  waiting.put("one\n");
  auto const patience = loop_.after(milliseconds(60'000), [&] { loop_.stop(); });
  loop_.run([&] { // asleep until something happens
    if (!requests_.empty())
      loop_.stop();
    return false;
  });
  EXPECT_EQ(std::vector<std::string>{"one"}, requests_);
}

TEST_F(ControlSocket, LeavesNoLockBehind) {
  start();
  EXPECT_FALSE(std::filesystem::exists(path_ + ".lock"));
}

TEST_F(ControlSocket, IsRemovedAtItsEnd) {
  start();
  server_.reset();
  EXPECT_FALSE(std::filesystem::exists(path_));
}

void leaveDeadSocket(std::string const & path) {
  auto const dead = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(0, bind(dead, reinterpret_cast<sockaddr *>(&address), sizeof address));
  close(dead);
}

struct Channel {
  Channel() { EXPECT_EQ(0, pipe(ends.data())); }
  ~Channel() {
    close(ends[0]);
    close(ends[1]);
  }
  std::array<int, 2> ends{};
};

/// Starts at the path as soon as `begin` is set, says whether it got the socket, and holds it until
/// `end` has no writer any more.
[[noreturn]] void startAndHold(std::string const & path, std::atomic<bool> const & begin,
                               Channel & said, Channel & end) {
  close(end.ends[1]);
  Agent::EventLoop loop;
  while (!begin) {
  }
  std::unique_ptr<Agent::ControlSocket> server;
  char result = 'y';
  try {
    server = std::make_unique<Agent::ControlSocket>(
        loop, path, [](std::string_view) -> Agent::Answer { return {}; });
  } catch (std::runtime_error const &) {
    result = 'n';
  }
  auto done = write(said.ends[1], &result, 1);
  done = read(end.ends[0], &result, 1);
  _exit(static_cast<int>(done));
}

TEST_F(ControlSocket, IsHadByOneOfThoseThatStartAtOnceInADeadDaemonsPlace) {
  constexpr int starts = 3;
  auto * const begin = static_cast<std::atomic<bool> *>(mmap(nullptr, sizeof(std::atomic<bool>),
                                                             PROT_READ | PROT_WRITE,
                                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (int round = 0; round != 200 && !HasFailure(); ++round) {
    std::filesystem::remove(path_);
    leaveDeadSocket(path_);
    *begin = false;
    Channel said;
    std::array<pid_t, starts> children{};
    {
      Channel end;
      for (auto & child : children)
        if ((child = fork()) == 0)
          startAndHold(path_, *begin, said, end);
      std::this_thread::sleep_for(milliseconds(2));
      *begin = true;
      std::string results(starts, ' ');
      for (auto & result : results)
        EXPECT_EQ(1, read(said.ends[0], &result, 1));
      EXPECT_EQ(1, std::ranges::count(results, 'y')) << results << " in round " << round;
    }
    for (auto const child : children)
      waitpid(child, nullptr, 0);
  }
  munmap(begin, sizeof(std::atomic<bool>));
}

TEST_F(ControlSocket, ReplacesWhatADeadDaemonLeft) {
  leaveDeadSocket(path_);
  ASSERT_TRUE(std::filesystem::exists(path_));
  start();
  Peer peer(path_);
  peer.put("one\n");
  EXPECT_EQ("<one>\n", receiveUntil(peer, 1));
}

std::string whatStartingSays(std::function<void()> const & begin) {
  try {
    begin();
  } catch (std::runtime_error const & error) {
    return error.what();
  }
  return "nothing was raised";
}

TEST_F(ControlSocket, LeavesALiveDaemonAlone) {
  start();
  auto const says = whatStartingSays([&] { Agent::ControlSocket second(loop_, path_, echo); });
  EXPECT_THAT(says, HasSubstr(path_));
  EXPECT_THAT(says, HasSubstr("another daemon"));
  Peer peer(path_);
  peer.put("one\n");
  EXPECT_EQ("<one>\n", receiveUntil(peer, 1));
}

TEST_F(ControlSocket, LeavesAnOrdinaryFileAlone) {
  std::ofstream(path_) << "precious";
  EXPECT_THAT(whatStartingSays([&] { start(); }), HasSubstr("another kind"));
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
}

TEST_F(ControlSocket, RefusesAPathThatNoSocketCanHave) {
  path_ = folder_ + "/" + std::string(200, 'x');
  EXPECT_THAT(whatStartingSays([&] { start(); }), HasSubstr("longer than"));
}

TEST_F(ControlSocket, MakesTheFolderThatIsMissing) {
  path_ = folder_ + "/run/sock";
  start();
  EXPECT_TRUE(std::filesystem::is_socket(path_));
  auto const others = std::filesystem::perms::group_write | std::filesystem::perms::others_write;
  EXPECT_EQ(std::filesystem::perms::none,
            std::filesystem::status(folder_ + "/run").permissions() & others);
  server_.reset();
  EXPECT_TRUE(std::filesystem::is_empty(folder_ + "/run"));
}

TEST_F(ControlSocket, RefusesAFolderWhoseFolderIsNotThere) {
  path_ = folder_ + "/none/none/sock";
  EXPECT_THAT(whatStartingSays([&] { start(); }), HasSubstr("No such file"));
}

TEST_F(ControlSocket, KeepsItsHandsOffASocketThatTookItsPlace) {
  start();
  std::filesystem::rename(path_, folder_ + "/old");
  auto const other = std::make_unique<Agent::ControlSocket>(loop_, path_, echo);
  server_.reset();
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(ControlSocket, LooksNowAndThenForAnAnswerThatIsNotKnownYet) {
  int looks = 0;
  bool known = false;
  answer_ = [&](std::string_view) -> Agent::Answer {
    return [&](std::string & out) {
      ++looks;
      out += known ? "at last" : "";
      return !known;
    };
  };
  start();
  Peer peer(path_);
  peer.put("what?\n");
  auto const later = loop_.after(milliseconds(60), [&] { known = true; });
  EXPECT_EQ("at last\n", receiveUntil(peer, 1));
  EXPECT_GE(looks, 2);
  EXPECT_LT(looks, 30) << "the loop must not turn for nothing";
}

} // namespace

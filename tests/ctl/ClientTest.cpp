// The client beside daemons that do not do what they should. Each of them is a thread of this test
// with a socket in a temporary folder.
#include "ctl/Client.h"
#include "os/Descriptor.h"
#include "os/UnixAddress.h"
#include "tests/support/TemporaryFolder.h"
#include <array>
#include <chrono>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing::HasSubstr;
using namespace std::chrono_literals;

/// Takes one connection, reads a line and does something with the connection.
class Daemon {
public:
  explicit Daemon(std::function<void(int connection)> answer)
      : listening_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    auto const address = Os::UnixAddress::ofPath(path()).value();
    EXPECT_EQ(0, bind(listening_.get(), address.get(), address.size()));
    EXPECT_EQ(0, listen(listening_.get(), 1));
    thread_ = std::thread([this, answer = std::move(answer)] {
      Os::Descriptor const connection(accept(listening_.get(), nullptr, nullptr));
      char character = '\0';
      while (character != '\n' && recv(connection.get(), &character, 1, 0) == 1) {
      }
      answer(connection.get());
    });
  }
  ~Daemon() { thread_.join(); }

  std::string path() const { return folder_.file("control"); }

private:
  TemporaryFolder folder_;
  Os::Descriptor listening_;
  std::thread thread_;
};

bool say(int connection, std::string_view text) {
  return send(connection, text.data(), text.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(text.size());
}

void untilClosed(int connection) {
  pollfd closed{.fd = connection, .events = POLLRDHUP, .revents = 0};
  poll(&closed, 1, 10'000);
}

nlohmann::json ask(Daemon const & daemon, Ctl::Limits const & limits = {}) {
  return Ctl::Client(daemon.path(), limits).request<nlohmann::json>("status", "{}");
}

/// What it raises.
template <class Error>
std::string complaint(Daemon const & daemon, Ctl::Limits const & limits = {}) {
  try {
    ask(daemon, limits);
  } catch (Error const & error) {
    return error.what();
  }
  ADD_FAILURE() << "nothing was raised";
  return "";
}

TEST(Client, GivesTheResultOfALineInAnyNumberOfPieces) {
  Daemon const daemon([](int connection) {
    for (auto const * piece : {"{\"ok\":", "true,\"result\"", ":{\"a\":1}}", "\nmore"}) {
      say(connection, piece);
      std::this_thread::sleep_for(5ms);
    }
  });
  EXPECT_EQ((nlohmann::json{{"a", 1}}), ask(daemon));
}

TEST(Client, GivesTheReasonOfARefusal) {
  Daemon const daemon([](int connection) { say(connection, "{\"ok\":false,\"error\":\"no\"}\n"); });
  EXPECT_EQ("no", complaint<Ctl::Refused>(daemon));
}

TEST(Client, SilenceIsOverWhenItsTimeIs) {
  Daemon const daemon(untilClosed);
  auto const before = Clock::now();
  EXPECT_THAT(complaint<Ctl::Late>(daemon, {.silence = 50ms}),
              HasSubstr("has not answered within 0.05 s; is it stopped or stuck?"));
  EXPECT_GE(Clock::now() - before, 50ms);
  EXPECT_LT(Clock::now() - before, 5s);
}

TEST(Client, HalfAnAnswerAndThenSilenceIsOverWhenItsTimeIs) {
  Daemon const daemon([](int connection) {
    say(connection, "{\"ok\":true,");
    untilClosed(connection);
  });
  EXPECT_THAT(complaint<Ctl::Late>(daemon, {.silence = 50ms}), HasSubstr("not answered"));
}

TEST(Client, AnAnswerThatTricklesForEverIsOverWhenTheWholeTimeIs) {
  Daemon const daemon([](int connection) {
    while (say(connection, " "))
      std::this_thread::sleep_for(1ms);
  });
  EXPECT_THAT(complaint<Ctl::Late>(daemon, {.silence = 10s, .whole = 100ms}),
              HasSubstr("has not answered within 0.1 s"));
}

TEST(Client, AnAnswerWithoutEndIsTakenNoFurtherThanTheLimit) {
  std::size_t given = 0;
  {
    Daemon const daemon([&](int connection) {
      std::string const piece(65536, 'x');
      while (say(connection, piece))
        given += piece.size();
    });
    EXPECT_THAT(complaint<Ctl::Unreachable>(daemon, {.answerSize = 1 << 20}),
                HasSubstr("its answer is longer than 1048576 bytes"));
  }
  EXPECT_GE(given, 1u << 20);
  EXPECT_LT(given, 4u << 20) << "more than the limit and what the system keeps";
}

TEST(Client, HalfAnAnswerIsToldFromNone) {
  Daemon const none([](int) {});
  EXPECT_THAT(complaint<Ctl::Unreachable>(none), HasSubstr("it closed the connection;"));
  Daemon const half([](int connection) { say(connection, "{\"ok\":true,\"result\":{"); });
  EXPECT_THAT(complaint<Ctl::Unreachable>(half), HasSubstr("in the middle of its answer"));
}

TEST(Client, GarbageIsNoAnswer) {
  for (auto const * garbage :
       {"SSH-2.0-OpenSSH\n", "\n", "[]\n", "7\n", "null\n", "{}\n", "{\"ok\":true}\n",
        "{\"ok\":false,\"error\":7}\n", "\xff\xfe\n", "{\"ok\":true,\"result\":{}\n"}) {
    Daemon const daemon([&](int connection) { say(connection, garbage); });
    EXPECT_THAT(complaint<Ctl::Unreachable>(daemon), HasSubstr("its answer is no JSON")) << garbage;
  }
}

TEST(Client, ADaemonThatReadsNothingHoldsNobodyUp) {
  TemporaryFolder const folder;
  auto const address = Os::UnixAddress::ofPath(folder.file("control")).value();
  Os::Descriptor const listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, bind(listening.get(), address.get(), address.size()));
  ASSERT_EQ(0, listen(listening.get(), 0)); // room for one that waits
  Ctl::Limits const limits{.silence = 50ms};
  Ctl::Client waiting(folder.file("control"), limits);
  std::string const arguments(16 << 20, ' '); // more than the system keeps
  EXPECT_THROW(waiting.request<nlohmann::json>("patch", arguments), Ctl::Late);
  EXPECT_THROW(Ctl::Client(folder.file("control"), limits), Ctl::Late) << "the queue is full";
}

TEST(Client, AnAnswerThatComesBeforeTheRequestIsReadIsTaken) {
  Daemon const daemon([](int connection) {
    say(connection, "{\"ok\":false,\"error\":\"too long\"}\n");
    shutdown(connection, SHUT_WR);
  });
  EXPECT_EQ("too long", complaint<Ctl::Refused>(daemon));
}

TEST(Client, WhereNobodyListensItSaysWhatToDo) {
  TemporaryFolder const folder;
  try {
    Ctl::Client const client(folder.file("none"));
    FAIL() << "it has connected";
  } catch (Ctl::Late const &) {
    FAIL() << "nobody is there";
  } catch (Ctl::Unreachable const & error) {
    EXPECT_THAT(error.what(), HasSubstr("is tunnelsnmpd running? Name its socket with --control"));
  }
  EXPECT_THROW(Ctl::Client(std::string(200, 'x')), Ctl::Unreachable);
}

} // namespace

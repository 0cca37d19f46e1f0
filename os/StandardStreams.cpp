// Closed streams get a placeholder, and writes are followed as far as the system.
#include "os/StandardStreams.h"
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace Os {

namespace {

/// A placeholder that fails in the direction in which the stream is used, as a closed one does.
void occupy(int stream) {
  if (fcntl(stream, F_GETFD) != -1)
    return;
  auto const wrongWay = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
  // The lowest free number is this one: those below are open already.
  (void)open("/dev/null", wrongWay);
}

} // namespace

void secureStandardStreams() {
  for (auto const stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    occupy(stream);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

bool writeOut(std::FILE * stream, std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stream) == text.size() &&
         std::fflush(stream) == 0;
}

} // namespace Os

// Any bytes at all as the file of a JSON source: they are refused with one line, or become records;
// and what the database then shows as a document is read as the same again.
#include "sources/json/JsonFile.h"
#include "statedb/Publisher.h"
#include "statedb/StateDocument.h"
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void require(bool holds) {
  if (!holds)
    std::abort();
}

/// A file in memory, written anew for each input.
class File {
public:
  std::string const & path() const { return path_; }
  void write(std::string_view text) const {
    require(ftruncate(descriptor_, 0) == 0);
    require(pwrite(descriptor_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  }

private:
  int const descriptor_ = memfd_create("document", MFD_CLOEXEC);
  std::string const path_ = "/proc/self/fd/" + std::to_string(descriptor_);
};

void requireOneLine(std::string_view said, std::string const & path) {
  require(said.starts_with(path + ":") && said.size() < path.size() + 500);
  require(said.find('\n') == said.npos && said.find("json.exception") == said.npos);
}

/// What the database shows when that text has been read; nothing when it is refused.
std::string shown(std::string_view text) {
  static File const file;
  file.write(text);
  StateDb::StateDb database;
  StateDb::Publishers publishers(database);
  StateDb::Publisher publisher(publishers);
  auto read = publisher.beginFullRead();
  try {
    Sources::readDocument(file.path(), read, [] { return true; });
  } catch (Sources::JsonFileError const & wrong) {
    requireOneLine(wrong.what(), file.path());
    return "";
  }
  std::move(read).commit(StateDb::FullRead::Pace::atOnce);
  return StateDb::StateDocument(database).read("").dump();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
  auto const document = shown({reinterpret_cast<char const *>(data), size});
  if (!document.empty())
    require(shown(document) == document);
  return 0;
}

// Pieces of the file become characters, characters become keys and values (nlohmann's parser), and
// those become records (DocumentLevels).
#include "sources/json/JsonFile.h"
#include "os/Descriptor.h"
#include "sources/json/DocumentLevels.h"
#include "statedb/Codec.h"
#include "json/Input.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Sources {

using nlohmann::json;

namespace {

using Status = struct stat;

/// A regular file that is not too large, open for reading.
struct OpenFile {
  Os::Descriptor descriptor;
  Status status;
};
/// Raises JsonFileUnreadable. Never waits.
OpenFile openDocument(std::string const & path);
FileVersion versionOf(Status const & status);
/// True if and only if whatever is written to the file from now on will bear another time.
bool isSettled(FileVersion const & version);

/// The characters of a file, one after the other, with the line of each.
class FileText {
public:
  /// Raises JsonFileError.
  FileText(std::string const & path, BetweenPieces const & betweenPieces);

  FileVersion version() const { return versionOf(file_.status); }

  /// True if and only if there is no further character. Raises JsonFileError, and NotWanted.
  bool atEnd() { return at_ == size_ && !refill(); }
  /// Requires: not at the end, as for next().
  char const & character() const { return piece_[at_]; }
  void next();

  /// The line of the character that was read last, from 1.
  std::size_t line() const { return line_; }
  /// The line of character `number`, counted from 1. Requires: it is the last that was read, or the
  /// end.
  std::size_t lineOf(std::size_t number) const;
  /// True if and only if nothing but blanks has been read.
  bool isBlank() const { return isBlank_; }
  /// Lets others work, if it is time. Raises NotWanted.
  void betweenPieces() const;

private:
  struct NotWanted {};
  bool refill();
  std::size_t receive();

  std::string const & path_;
  BetweenPieces const & betweenPieces_;
  OpenFile const file_;
  off_t left_; // bytes of the file that have not been taken
  std::array<char, 2 * 1024> piece_;
  std::size_t at_ = 0;
  std::size_t size_ = 0;
  std::size_t count_ = 0;      // characters read
  std::size_t line_ = 1;       // of the last one
  bool lastEndedLine_ = false; // it was a line end, so that the next one's line is another
  bool isBlank_ = true;
};

/// What the parser wants to go through a text with.
class TextIterator {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = char const *;
  using reference = char const &;

  /// Null: the end.
  explicit TextIterator(FileText * text) : text_(text) {}
  reference operator*() const { return text_->character(); }
  TextIterator & operator++() {
    text_->next();
    return *this;
  }
  bool operator==(TextIterator const & other) const { return isEnd() == other.isEnd(); }
  bool operator!=(TextIterator const & other) const { return !(*this == other); }

private:
  bool isEnd() const { return text_ == nullptr || text_->atEnd(); }
  FileText * text_;
};

/// Takes the keys and values that the parser reads, and keeps the reason why the file is refused. A
/// value that does not fit into the document ends its publication but not the parsing, because a
/// fault of the text itself, or a key that is there twice, is reported first wherever it is.
class Listener final : public json::json_sax_t {
public:
  Listener(FileText const & text, StateDb::FullRead & read) : text_(text) {
    levels_.push_back({.content = aroundDocument(read)});
  }

  /// What is wrong; empty: nothing. With its line.
  std::string const & reason() const { return reason_; }
  std::size_t wrongLine() const { return wrongLine_; }

  bool start_object(std::size_t size) override;
  bool end_object() override;
  bool key(string_t & key) override;
  bool start_array(std::size_t size) override;
  bool end_array() override;
  bool parse_error(std::size_t byte, std::string const &, json::exception const & error) override;
  bool null() override { return value(nullptr); }
  bool boolean(bool value) override { return this->value(value); }
  bool number_integer(number_integer_t value) override { return this->value(value); }
  bool number_unsigned(number_unsigned_t value) override { return this->value(value); }
  bool number_float(number_float_t value, string_t const &) override { return this->value(value); }
  bool string(string_t & value) override { return this->value(std::move(value)); }
  bool binary(binary_t &) override { return true; } // JSON text has none

private:
  struct OneLevel {
    std::string key{}; // the last one
    // Of the standard library: the B-tree's loses memory when it gets none in the middle of
    // growing.
    std::set<std::string> keys{};
    std::unique_ptr<DocumentLevel> content{}; // null where nothing is read any more
    std::optional<std::size_t> elements{};    // of an array: how many have begun
  };

  template <class Value>
  bool value(Value && value);
  void valueBegins();
  bool mayOpen();
  void forget(std::set<std::string> & keys) const;
  template <class Tell>
  void tell(Tell tell);
  void doesNotFit(std::string_view reason);
  /// Where the last key is, cut when it is long.
  std::string pointer() const;

  FileText const & text_;
  std::vector<OneLevel> levels_;
  std::size_t keyLine_ = 1; // of the last key
  std::string reason_;
  std::size_t wrongLine_ = 0;
};

/// In a message, in octets; the line is named as well.
constexpr std::size_t longestPointer = 150;

/// Of an object with many: as much work as a piece of the file is.
constexpr std::size_t keysAPiece = 4096;

/// The coarsest clock by which a file system gives times has two seconds.
constexpr std::chrono::seconds settling{3};

JsonFileUnreadable unreadable(std::string const & path) {
  return JsonFileUnreadable(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
}

} // namespace

std::optional<FileVersion> readDocument(std::string const & path, StateDb::FullRead & read,
                                        BetweenPieces const & betweenPieces) {
  FileText text(path, betweenPieces);
  auto const settled = isSettled(text.version());
  Listener listener(text, read);
  json::json_sax_t * const parserWants = &listener; // it takes no derived class with private parts
  json::sax_parse(TextIterator(&text), TextIterator(nullptr), parserWants);
  if (text.isBlank())
    throw JsonFileError(fmt::format("{}: the file is empty; write at least {{}}", path));
  if (!listener.reason().empty())
    throw JsonFileError(fmt::format("{}:{}: {}", path, listener.wrongLine(), listener.reason()));
  return settled ? std::optional(text.version()) : std::nullopt;
}

std::optional<FileVersion> readableVersion(std::string const & path) {
  try {
    return versionOf(openDocument(path).status);
  } catch (JsonFileUnreadable const &) {
    return std::nullopt;
  }
}

namespace {

char const * kindOf(Status const & status) {
  switch (status.st_mode & S_IFMT) {
  case S_IFDIR:
    return "a folder";
  case S_IFIFO:
    return "a named pipe";
  case S_IFSOCK:
    return "a socket";
  case S_IFCHR:
  case S_IFBLK:
    return "a device";
  default:
    return "of an unknown kind";
  }
}

void requireUsable(std::string const & path, Status const & status) {
  if (!S_ISREG(status.st_mode))
    throw JsonFileUnreadable(
        fmt::format("{}: is {}; the tunnels must be in a regular file", path, kindOf(status)));
  if (status.st_size > largestFile)
    throw JsonFileUnreadable(fmt::format("{}: has {} bytes; no more than {} are read", path,
                                         status.st_size, largestFile));
}

// Looked at before it is opened, since to open a device can have effects; and afterwards, since it
// may be another file by then.
OpenFile openDocument(std::string const & path) {
  Status status;
  if (::stat(path.c_str(), &status) != 0)
    throw unreadable(path);
  requireUsable(path, status);
  Os::Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!descriptor || ::fstat(descriptor.get(), &status) != 0)
    throw unreadable(path);
  requireUsable(path, status);
  return {std::move(descriptor), status};
}

FileVersion versionOf(Status const & status) {
  constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
  return {status.st_dev, status.st_ino, status.st_size,
          status.st_mtim.tv_sec * nanosecondsPerSecond + status.st_mtim.tv_nsec};
}

bool isSettled(FileVersion const & version) {
  auto const now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::nanoseconds(version.modified) < now - settling;
}

FileText::FileText(std::string const & path, BetweenPieces const & betweenPieces)
    : path_(path),
      betweenPieces_(betweenPieces),
      file_(openDocument(path)),
      left_(file_.status.st_size) {}

// The parser would take a NUL octet for the end.
void FileText::next() {
  line_ += lastEndedLine_ ? 1 : 0;
  auto const character = piece_[at_++];
  if (character == '\0')
    throw JsonFileError(fmt::format("{}:{}: {}", path_, line_, JsonInput::holdsNul));
  lastEndedLine_ = character == '\n';
  isBlank_ = isBlank_ && std::strchr(" \t\r\n", character) != nullptr;
  ++count_;
}

std::size_t FileText::lineOf(std::size_t number) const {
  auto const isEnd = number > count_;
  return line_ + (isEnd && lastEndedLine_ ? 1 : 0);
}

void FileText::betweenPieces() const {
  if (!betweenPieces_())
    throw NotWanted();
}

bool FileText::refill() {
  betweenPieces();
  at_ = 0;
  size_ = receive();
  left_ -= static_cast<off_t>(size_);
  return size_ != 0;
}

std::size_t FileText::receive() {
  auto const wanted = std::min(static_cast<off_t>(piece_.size()), left_);
  for (;;) {
    auto const size =
        ::read(file_.descriptor.get(), piece_.data(), static_cast<std::size_t>(wanted));
    if (size >= 0)
      return static_cast<std::size_t>(size);
    if (errno != EINTR)
      throw unreadable(path_);
  }
}

bool Listener::start_object(std::size_t) {
  valueBegins();
  if (!mayOpen())
    return false;
  std::unique_ptr<DocumentLevel> inside;
  tell([&](DocumentLevel & level) { inside = level.object(); });
  levels_.push_back({.content = std::move(inside)});
  return true;
}

bool Listener::end_object() {
  tell([](DocumentLevel & level) { level.end(); });
  forget(levels_.back().keys);
  levels_.pop_back();
  return true;
}

bool Listener::key(string_t & key) {
  auto & level = levels_.back();
  level.key = std::move(key);
  keyLine_ = text_.line();
  if (!level.keys.insert(level.key).second) {
    wrongLine_ = keyLine_;
    reason_ = pointer() + ": this key is there twice";
    return false;
  }
  tell([&](DocumentLevel & content) { content.key(level.key); });
  return true;
}

bool Listener::start_array(std::size_t) {
  value(json::array());
  if (!mayOpen())
    return false;
  levels_.push_back({.elements = 0});
  return true;
}

bool Listener::end_array() {
  levels_.pop_back();
  return true;
}

bool Listener::parse_error(std::size_t byte, std::string const &, json::exception const & error) {
  reason_ = JsonInput::plainReason(error);
  wrongLine_ = text_.lineOf(byte);
  return false;
}

template <class Value>
bool Listener::value(Value && value) {
  valueBegins();
  tell([&](DocumentLevel & level) { level.value(json(std::forward<Value>(value))); });
  return true;
}

void Listener::valueBegins() {
  if (auto & elements = levels_.back().elements)
    ++*elements;
}

bool Listener::mayOpen() {
  if (levels_.size() <= JsonInput::deepest)
    return true;
  reason_ = JsonInput::tooDeep();
  wrongLine_ = text_.line();
  return false;
}

// Not all at once: to forget a hundred thousand keys takes a millisecond.
void Listener::forget(std::set<std::string> & keys) const {
  for (; keys.size() > keysAPiece; text_.betweenPieces())
    keys.erase(keys.begin(), std::next(keys.begin(), keysAPiece));
}

// Nothing is told once something does not fit: what follows would be published in vain.
template <class Tell>
void Listener::tell(Tell tell) {
  if (!reason_.empty() || !levels_.back().content)
    return;
  try {
    tell(*levels_.back().content);
  } catch (StateDb::Unusable const & unusable) {
    doesNotFit(unusable.what());
  }
}

void Listener::doesNotFit(std::string_view reason) {
  auto const where = pointer();
  reason_ = fmt::format("{}: {}", where.empty() ? "\"\"" : where, reason);
  wrongLine_ = keyLine_;
}

bool isControl(char character) {
  return static_cast<unsigned char>(character) < ' ' || character == '\x7f';
}

std::string Listener::pointer() const {
  std::string pointer;
  for (auto const & level : levels_)
    if (&level != &levels_.front()) // what is around the document has no name
      pointer += "/" + (level.elements ? std::to_string(*level.elements - 1)
                                       : StateDb::escaped(level.key));
  std::ranges::replace_if(pointer, isControl, '?'); // it is for one line
  return pointer.size() > longestPointer ? pointer.substr(0, longestPointer) + "..." : pointer;
}

} // namespace
} // namespace Sources

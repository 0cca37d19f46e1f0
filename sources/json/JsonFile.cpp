// Pieces of the file become characters, characters become keys and values (nlohmann's parser), and
// those become records (DocumentLevels).
#include "sources/json/JsonFile.h"
#include "sources/json/DocumentLevels.h"
#include "statedb/Codec.h"
#include <absl/container/btree_set.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace Sources {

using nlohmann::json;

namespace {

/// The characters of a file, one after the other, with the line of each.
class FileText {
public:
  /// Raises JsonFileError.
  FileText(std::string const & path, BetweenPieces const & betweenPieces);

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

private:
  struct NotWanted {};
  bool refill();

  std::string const & path_;
  BetweenPieces const & betweenPieces_;
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> const file_;
  std::array<char, 8 * 1024> piece_; // some 0.2 ms of work between two looks at the time
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

  bool start_object(std::size_t) override;
  bool end_object() override;
  bool key(string_t & key) override;
  bool start_array(std::size_t) override;
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
    absl::btree_set<std::string> keys{};
    std::unique_ptr<DocumentLevel> content; // null where nothing is read any more
  };

  template <class Value>
  bool value(Value && value);
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

JsonFileError unreadable(std::string const & path) {
  return JsonFileError(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
}

} // namespace

void readDocument(std::string const & path, StateDb::FullRead & read,
                  BetweenPieces const & betweenPieces) {
  FileText text(path, betweenPieces);
  Listener listener(text, read);
  json::json_sax_t * const parserWants = &listener; // it takes no derived class with private parts
  json::sax_parse(TextIterator(&text), TextIterator(nullptr), parserWants);
  if (text.isBlank())
    throw JsonFileError(fmt::format("{}: the file is empty; write at least {{}}", path));
  if (!listener.reason().empty())
    throw JsonFileError(fmt::format("{}:{}: {}", path, listener.wrongLine(), listener.reason()));
}

namespace {

FileText::FileText(std::string const & path, BetweenPieces const & betweenPieces)
    : path_(path),
      betweenPieces_(betweenPieces),
      file_(std::fopen(path.c_str(), "re"), [](std::FILE * file) { return std::fclose(file); }) {
  if (!file_)
    throw unreadable(path);
  std::setvbuf(file_.get(), nullptr, _IONBF, 0); // we have a buffer
}

void FileText::next() {
  line_ += lastEndedLine_ ? 1 : 0;
  auto const character = piece_[at_++];
  lastEndedLine_ = character == '\n';
  isBlank_ = isBlank_ && std::strchr(" \t\r\n", character) != nullptr && character != '\0';
  ++count_;
}

std::size_t FileText::lineOf(std::size_t number) const {
  auto const isEnd = number > count_;
  return line_ + (isEnd && lastEndedLine_ ? 1 : 0);
}

bool FileText::refill() {
  if (!betweenPieces_())
    throw NotWanted();
  at_ = 0;
  size_ = std::fread(piece_.data(), 1, piece_.size(), file_.get());
  if (size_ == 0 && std::ferror(file_.get()) != 0)
    throw unreadable(path_);
  return size_ != 0;
}

bool Listener::start_object(std::size_t) {
  std::unique_ptr<DocumentLevel> inside;
  tell([&](DocumentLevel & level) { inside = level.object(); });
  levels_.push_back({.content = std::move(inside)});
  return true;
}

bool Listener::end_object() {
  tell([](DocumentLevel & level) { level.end(); });
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
  levels_.emplace_back();
  return true;
}

bool Listener::end_array() {
  levels_.pop_back();
  return true;
}

// The library's reason without its number and its place, and not longer than a line should be.
bool Listener::parse_error(std::size_t byte, std::string const &, json::exception const & error) {
  std::string_view const reason = error.what();
  auto const begin = reason.find("syntax error");
  reason_ = reason.substr(begin == std::string_view::npos ? 0 : begin, 200);
  wrongLine_ = text_.lineOf(byte);
  return false;
}

template <class Value>
bool Listener::value(Value && value) {
  tell([&](DocumentLevel & level) { level.value(json(std::forward<Value>(value))); });
  return true;
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

std::string Listener::pointer() const {
  std::string pointer;
  for (auto const & level : levels_)
    if (&level != &levels_.front())
      pointer += "/" + StateDb::escaped(level.key);
  return pointer.size() > longestPointer ? pointer.substr(0, longestPointer) + "..." : pointer;
}

} // namespace
} // namespace Sources

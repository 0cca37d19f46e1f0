// Reading and parsing, with an eye on keys and lines, which the JSON library does not keep.
#include "sources/json/JsonFile.h"
#include "statedb/StateDocument.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <unordered_set>
#include <vector>

namespace Sources {

using nlohmann::json;

namespace {

/// Counts the lines that the parser goes through.
class LineIterator {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = char const *;
  using reference = char const &;

  LineIterator(char const * at, std::size_t & line) : at_(at), line_(&line) {}
  reference operator*() const { return *at_; }
  LineIterator & operator++() {
    *line_ += *at_++ == '\n';
    return *this;
  }
  bool operator==(LineIterator const & other) const { return at_ == other.at_; }
  bool operator!=(LineIterator const & other) const { return at_ != other.at_; }

private:
  char const * at_;
  std::size_t * line_; // shared by the copies that the parser makes
};

/// Goes through a text and tells each key, when it has been read, to onKey(). Builds nothing.
class Walk : public json::json_sax_t {
public:
  /// False if and only if the walk ended early: onKey() said so, or syntaxError() did.
  bool over(std::string_view text) {
    json::json_sax_t * const listener = this; // the parser wants its functions public
    return json::sax_parse(LineIterator(text.data(), line_),
                           LineIterator(text.data() + text.size(), line_), listener);
  }
  /// The line of the last key.
  std::size_t line() const { return keyLine_; }
  /// The pointer that leads to the last key.
  std::string pointer() const {
    json::json_pointer pointer;
    for (auto const & level : levels_)
      pointer /= level.key;
    return pointer.to_string();
  }

protected:
  /// `first`: true if and only if the object has not had this key before. Returns whether to go on.
  virtual bool onKey(bool first) = 0;
  /// `byte` counts from 1 and is the last that was read.
  virtual void syntaxError(std::size_t byte, std::string_view reason) = 0;

private:
  struct Level {
    std::string key;
    std::unordered_set<std::string> keys;
  };

  bool start_object(std::size_t) override { return enter(); }
  bool start_array(std::size_t) override { return enter(); }
  bool end_object() override { return leave(); }
  bool end_array() override { return leave(); }
  bool key(string_t & key) override {
    auto & level = levels_.back();
    level.key = key;
    keyLine_ = line_;
    return onKey(level.keys.insert(key).second);
  }
  bool parse_error(std::size_t byte, std::string const &, json::exception const & error) override {
    syntaxError(byte, error.what());
    return false;
  }
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, string_t const &) override { return true; }
  bool string(string_t &) override { return true; }
  bool binary(binary_t &) override { return true; }

  bool enter() {
    levels_.emplace_back();
    return true;
  }
  bool leave() {
    levels_.pop_back();
    return true;
  }

  std::size_t line_ = 1;
  std::size_t keyLine_ = 1;
  std::vector<Level> levels_;
};

/// Finds out what is wrong with the text, and in which line.
class Inspection final : public Walk {
public:
  explicit Inspection(std::string_view text) : text_(text) {}
  std::size_t wrongLine() const { return wrongLine_; }
  std::string const & reason() const { return reason_; }

private:
  bool onKey(bool first) override {
    if (first)
      return true;
    wrongLine_ = line();
    reason_ = pointer() + ": this key is there twice";
    return false;
  }
  // The library's reason without its number and its place, and not longer than a line should be.
  void syntaxError(std::size_t byte, std::string_view reason) override {
    auto const before = text_.substr(0, byte == 0 ? 0 : byte - 1);
    wrongLine_ = 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
    auto const begin = reason.find("syntax error");
    reason_ = reason.substr(begin == std::string_view::npos ? 0 : begin, 200);
  }

  std::string_view text_;
  std::size_t wrongLine_ = 0;
  std::string reason_;
};

class Search final : public Walk {
public:
  explicit Search(std::string_view wanted) : wanted_(wanted) {}
  std::size_t found() const { return found_; }

private:
  bool onKey(bool) override {
    auto const here = pointer();
    if (here.size() > longest_ && (wanted_ == here || wanted_.starts_with(here + "/"))) {
      longest_ = here.size();
      found_ = line();
    }
    return true;
  }
  void syntaxError(std::size_t, std::string_view) override {} // what was found until then counts

  std::string_view wanted_;
  std::size_t longest_ = 0;
  std::size_t found_ = 1;
};

JsonFileError error(std::string const & path, std::size_t line, std::string_view reason) {
  return JsonFileError(fmt::format("{}:{}: {}", path, line, reason));
}

// The library's own callback while it builds the document would do for keys and lines, but takes
// time by the square of the number of records.
json parseDocument(std::string const & path, std::string_view text) {
  if (text.find_first_not_of(" \t\r\n") == std::string_view::npos)
    throw JsonFileError(fmt::format("{}: the file is empty; write at least {{}}", path));
  if (Inspection inspection(text); !inspection.over(text))
    throw error(path, inspection.wrongLine(), inspection.reason());
  return json::parse(text);
}

} // namespace

std::string readFile(std::string const & path) {
  std::unique_ptr<std::FILE, int (*)(std::FILE *)> const file(std::fopen(path.c_str(), "re"),
                                                              &std::fclose);
  std::string text;
  std::array<char, 16 * 1024> buffer;
  std::size_t size = 0;
  while (file && (size = std::fread(buffer.data(), 1, buffer.size(), file.get())) != 0)
    text.append(buffer.data(), size);
  if (!file || std::ferror(file.get()) != 0)
    throw JsonFileError(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
  return text;
}

json decodeDocument(std::string const & path, std::string_view text) {
  auto document = parseDocument(path, text);
  try {
    StateDb::StateDocument::check(document);
  } catch (StateDb::DocumentError const & exception) {
    throw error(path, lineOf(text, exception.pointer()), exception.what());
  }
  return document;
}

std::size_t lineOf(std::string_view text, std::string_view pointer) {
  Search search(pointer);
  search.over(text);
  return search.found();
}

} // namespace Sources

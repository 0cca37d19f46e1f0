// A document file: JSON text that knows the line of each of its parts. Every error says which line
// is wrong.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Sources {

/// What is wrong with a file; what() is "FILE:LINE: REASON", or "FILE: REASON" where no line is.
class JsonFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Reads the whole file. Raises JsonFileError.
std::string readFile(std::string const & path);

/// The document that `text` is; `path` only names it in errors. It has passed
/// StateDocument::check(). A key that an object has twice is an error. Raises JsonFileError.
nlohmann::json decodeDocument(std::string const & path, std::string_view text);

/// The line, from 1, of the key that the JSON pointer leads to; of the nearest part around it when
/// there is no such key. Requires: the text is JSON.
std::size_t lineOf(std::string_view text, std::string_view pointer);

} // namespace Sources

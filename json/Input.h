// JSON that comes from outside: requests, patches, files. How deep it may be, which octets it may
// not have, and what is wrong with it, in words for somebody who does not know our libraries.
//
// What reads a text as a whole calls parse(); the JSON source, which reads a file piece by piece,
// keeps the same bounds with what is here besides.
#pragma once

#include <cstddef>
#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace JsonInput {

/// So many arrays and objects may be inside each other, the outermost one counted. What we read
/// has less than ten; printing, copying and comparing take a stack frame for each.
inline constexpr std::size_t deepest = 64;

/// Why a text cannot be used; what() is one line.
class Wrong : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The value that the text describes, all of it. Raises Wrong, with the line where there is one to
/// be named, when it is no JSON, holds a NUL octet, or is deeper than `deepest`. `AnyJson` is
/// nlohmann::json or nlohmann::ordered_json.
template <class AnyJson>
AnyJson parse(std::string_view text);

/// Said of an array or object inside `deepest` others.
std::string tooDeep();
/// Said of a NUL octet, which the parser would take for the end of the text.
inline constexpr std::string_view holdsNul =
    "there is a NUL octet, which JSON text cannot hold; is it UTF-8?";
/// What an exception of the parser says, without the names, numbers and places that are its own:
/// some 200 octets of it, in ASCII.
std::string plainReason(std::exception const & error);

} // namespace JsonInput

// A document file: JSON text whose records are handed over as they are read, without the document
// ever being in memory. Every error says which line is wrong.
#pragma once

#include "statedb/FullRead.h"
#include <functional>
#include <stdexcept>
#include <string>

namespace Sources {

/// What is wrong with a file; what() is "FILE:LINE: REASON", or "FILE: REASON" where no line is.
class JsonFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Called after each piece of the file, some microseconds of work. False: the file is not wanted
/// any more, and the reading ends at once with an exception that is no JsonFileError.
using BetweenPieces = std::function<bool()>;

/// Reads the file from beginning to end and hands every record to `read`, which is the caller's to
/// commit. The file is a document as StateDb::StateDocument has it; a key that an object has twice
/// is an error. Raises JsonFileError; `read` has then been given an unknown part and is to be
/// dropped.
void readDocument(std::string const & path, StateDb::FullRead & read,
                  BetweenPieces const & betweenPieces);

} // namespace Sources

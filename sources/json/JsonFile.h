// A document file: JSON text whose records are handed over as they are read, without the document
// ever being in memory. Every error says which line is wrong.
#pragma once

#include "statedb/FullRead.h"
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>

namespace Sources {

/// What is wrong with a file; what() is "FILE:LINE: REASON", or "FILE: REASON" where no line is.
class JsonFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
/// It is not the text that is wrong: there is no such file, or it cannot be opened or read.
class JsonFileUnreadable : public JsonFileError {
public:
  using JsonFileError::JsonFileError;
};

/// Tells two contents of a file apart without reading them: what is written to a file, or put in
/// its place, has another version, and what only gets other rights or names has not.
struct FileVersion {
  dev_t device;
  ino_t inode;
  off_t size;            ///< bytes
  std::int64_t modified; ///< when its content was, in nanoseconds since 1970

  bool operator==(FileVersion const &) const = default;
};

/// No larger file is read: 256 MiB, more than a million tunnels.
inline constexpr off_t largestFile = off_t{256} << 20;

/// Called before each piece of the file, some ten microseconds of work. False: the file is not
/// wanted any more, and the reading ends at once with an exception that is no JsonFileError.
using BetweenPieces = std::function<bool()>;

/// Reads the file, as long as it was when it was opened, and hands every record to `read`, which is
/// the caller's to commit. The file is a document as StateDb::StateDocument has it; a key that an
/// object has twice is an error, and so is what is no regular file. Never waits for anybody to
/// write. Raises JsonFileError; `read` has then been given an unknown part and is to be dropped.
///
/// Returns the version that was read. Nothing when the file was modified so shortly before that a
/// further change might bear the same time.
std::optional<FileVersion> readDocument(std::string const & path, StateDb::FullRead & read,
                                        BetweenPieces const & betweenPieces);

/// The version of the file that readDocument would read now; nothing when it would be refused.
std::optional<FileVersion> readableVersion(std::string const & path);

} // namespace Sources

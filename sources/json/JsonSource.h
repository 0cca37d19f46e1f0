// The scripted source: a file holds the tunnels, written by people and programs.
//
// The file is a document as StateDocument reads it; containers may be missing. Whenever the file
// has been read, the records that it names, and those that it named before, become what it says;
// all other records are left alone. A file that is broken, empty or gone changes nothing: the last
// good state stays and the status says what is wrong.
//
// A large file is read in many runs of a task, between which everything else goes on; nothing of it
// is published before all of it has been understood. A file of more than 256 MiB, and what is no
// regular file, are refused. Nothing is read when only the rights or names of the file change.
//
// The file's folder is watched, since editors put a new file in the place of the old one. Of a
// symbolic link only the link is watched, not the file behind it.
#pragma once

#include "sources/Source.h"
#include <chrono>
#include <memory>
#include <string>

namespace Sources {

/// How long the start may wait for the file to be read, before the reading goes on in runs.
inline constexpr std::chrono::milliseconds startPatience{1000};
/// After a reading that failed for want of memory or the like, or because the file could not be
/// read, until the next one.
inline constexpr std::chrono::seconds jsonRetryPeriod{10};

/// Makes the source for that file. Nothing is opened before start().
std::unique_ptr<Source> makeJsonSource(std::string path, Surroundings const & surroundings,
                                       std::chrono::milliseconds patience = startPatience);

} // namespace Sources

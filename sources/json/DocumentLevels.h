// What may stand where in a document, level by level, for a parser that tells keys and values as it
// meets them. Each record goes to a full read as soon as it is complete.
#pragma once

#include "statedb/FullRead.h"
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Sources {

/// An object of the document, or what is around it: its keys and values come in the order of the
/// text. Each function raises StateDb::Unusable, with an empty pointer, when the key or the value
/// does not fit; nothing more may be told then.
class DocumentLevel {
public:
  virtual ~DocumentLevel() = default;
  /// Each value comes after its key.
  virtual void key(std::string const & key) = 0;
  /// A value that is no object; an array comes as an empty one, as far as it has been read.
  virtual void value(nlohmann::json const & value) = 0;
  /// A value that is an object: what its keys and values are to be told.
  virtual std::unique_ptr<DocumentLevel> object() = 0;
  /// The object is over.
  virtual void end() {}
};

/// The level around the document: one value without a key. `read` outlives every level.
std::unique_ptr<DocumentLevel> aroundDocument(StateDb::FullRead & read);

} // namespace Sources

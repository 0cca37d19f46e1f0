// What is wrong with a patch, or with a pointer into the document: where, and why.
#pragma once

#include "statedb/Codec.h"
#include <cstddef>
#include <stdexcept>
#include <string>

namespace StateDb {

/// A patch, or a document, that cannot be used. what() is one line with the place and the reason.
class DocumentError : public std::runtime_error {
public:
  /// what() is "operation OPERATION (POINTER): REASON", or "POINTER: REASON" for operation npos.
  DocumentError(std::size_t operation, std::string pointer, std::string const & reason);
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  /// Which operation of the patch is wrong, counted from 0; npos when it is no patch's.
  std::size_t operation() const { return operation_; }
  /// The JSON pointer (RFC 6901) that the error is about.
  std::string const & pointer() const { return pointer_; }

private:
  std::size_t operation_;
  std::string pointer_;
};

/// Calls `call`; what it raises as Unusable goes on as DocumentError of that operation.
template <class Call>
auto inOperation(std::size_t operation, Call const & call) {
  try {
    return call();
  } catch (Unusable const & unusable) {
    throw DocumentError(operation, unusable.pointer(), unusable.what());
  }
}

} // namespace StateDb

// The errors of the object framework. Broken preconditions do not come here: they are fatal.
#pragma once

#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Zel {

/// Base of every error below. what() is one line that names the attribute or the place.
class Exception : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// A mutator was called again for an existing key with a different argument.
class ReinstantiationError : public Exception {
public:
  explicit ReinstantiationError(std::string_view attribute);
};

/// A mutator was given null where an object is required.
class NullArgumentError : public Exception {
public:
  explicit NullArgumentError(std::string_view attribute);
};

/// An empty Optional was dereferenced.
class BadOptionalAccess : public Exception {
public:
  BadOptionalAccess();
};

/// A value does not fit where it should go.
class RangeException : public Exception {
public:
  using Exception::Exception;
};

/// A text form could not be parsed.
class StrepError : public RangeException {
public:
  using RangeException::RangeException;
};

/// The text of one attribute of a value could not be parsed; attribute() names it.
class DeserialisationError : public StrepError {
public:
  DeserialisationError(std::string_view attribute, std::string_view reason);
  std::string const & attribute() const { return attribute_; }

private:
  std::string attribute_;
};

/// Runs steps of which none may keep the next from running: the first exception is kept, each
/// further one dropped and counted ("zel-exceptions-dropped").
class FirstException {
public:
  template <class Step>
  void run(Step step) {
    try {
      step();
    } catch (...) {
      keep();
    }
  }
  /// True if and only if one was kept.
  explicit operator bool() const { return first_ != nullptr; }
  /// Throws what was kept, if anything.
  void rethrow() const {
    if (first_)
      std::rethrow_exception(first_);
  }

private:
  void keep();

  std::exception_ptr first_;
};

/// Is told of each exception that was contained: where, in words for an operator, and what. It must
/// not throw.
using ExceptionReporter = std::function<void(std::string_view where, std::exception const & what)>;
/// Sets who is told from now on; an empty function: nobody. Returns who it was before.
ExceptionReporter exceptionReporterIs(ExceptionReporter reporter);
/// Counts the exception under way ("zel-exceptions-contained") and hands it to the reporter.
/// Requires: it is called where that exception is caught.
void reportContained(std::string_view where);

/// What the function gives; where there is no memory for that, a text that needs none.
template <class Words>
std::string wordsOf(Words words) {
  try {
    return words();
  } catch (std::bad_alloc const &) {
    return "(no memory)";
  }
}

/// Runs a step whose exception nobody waits for: it ends here, counted and reported, also where
/// there is no memory. `where` is a function that makes the words, and is called only then.
template <class Step, class Where>
void contained(Step step, Where where) {
  try {
    step();
  } catch (...) {
    reportContained(wordsOf(where));
  }
}

/// A type, an attribute or an argument list that the generic interface does not know.
class GenericAccessError : public Exception {
public:
  using Exception::Exception;
};

} // namespace Zel

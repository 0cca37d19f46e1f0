// Lets allocations fail. A program that has FailingMemory.cpp among its sources gets an operator
// new of its own.
#pragma once

/// While it lives, `operator new` raises std::bad_alloc. One at a time; counts for every thread.
class FailingMemory {
public:
  enum class Fails {
    once,   ///< one allocation
    always, ///< that one and all that follow
  };
  /// The first `before` allocations go well.
  FailingMemory(long before, Fails fails);
  FailingMemory(FailingMemory const &) = delete;
  FailingMemory & operator=(FailingMemory const &) = delete;
  ~FailingMemory();

  /// True if and only if an allocation has failed since the last construction of one.
  static bool hasFailed();
};

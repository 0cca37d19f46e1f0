// Work in small steps: some at once, the rest in runs of a task that lets others work when its
// share is used up.
#pragma once

#include "platform/Flowa.h"
#include "platform/Kiln.h"
#include <exception>
#include <functional>
#include <string_view>

namespace Sources::Linux {

class Runs {
public:
  /// Does one step, of some microseconds; false when there is nothing to do.
  using Step = std::function<bool()>;
  using Failed = std::function<void(std::exception const &)>;

  /// What a step raises inside a run goes to `failed`; the other steps wait for the next call then.
  Runs(std::string_view name, Step step, Failed failed);
  Runs(Runs const &) = delete;
  Runs & operator=(Runs const &) = delete;
  ~Runs() { run_->ownerDeletedIs(); }

  /// Does so many steps now that nobody has to wait, and the rest in runs. Raises what a step does.
  void begin();
  /// Does all in runs.
  void beginLater() { task_->scheduleTask(); }
  /// Does all now. Raises what a step does.
  void finish();

private:
  using Run = Flowa::Gen::InReactor<Runs>;

  void run(Zel::Attribute const &, Flowa::Gen::NoKey const &);

  Step const step_;
  Failed const failed_;
  Zel::Ptr<Kiln::Task> const task_;
  Zel::Ptr<Run> const run_;
};

} // namespace Sources::Linux

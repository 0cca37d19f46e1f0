// GET first, then the walk, which GetNext and GetBulk share, then the steps of a SET.
#include "agent/agentx/Requests.h"
#include <algorithm>
#include <optional>
#include <utility>

namespace Agent::AgentX {

namespace {

bool isMissing(ValueType type) {
  return type == ValueType::noSuchObject || type == ValueType::noSuchInstance ||
         type == ValueType::endOfMibView;
}

std::vector<VarBind> namesOf(std::vector<SearchRange> const & ranges) {
  std::vector<VarBind> names;
  names.reserve(ranges.size());
  for (auto const & range : ranges)
    names.push_back({range.start, ValueType::null, {}});
  return names;
}

} // namespace

/// A GetNext or GetBulk under way, round by round: a GetNext has one. In each round every name that
/// is asked for gets an answer: the start of its range if that is included and exists, else the
/// next name, or the end of the range.
class Requests::Walk : public std::enable_shared_from_this<Walk> {
public:
  Walk(LocalAgent & agent, std::string context, std::vector<SearchRange> ranges,
       std::size_t nonRepeaters, std::size_t repetitions, LocalAgent::Done done)
      : agent_(agent),
        context_(std::move(context)),
        ranges_(std::move(ranges)),
        found_(ranges_.size()),
        nonRepeaters_(std::min(nonRepeaters, ranges_.size())),
        roundsLeft_(repetitions),
        done_(std::move(done)) {}

  void begin() { beginRound(0, roundsLeft_ == 0 ? nonRepeaters_ : ranges_.size()); }

private:
  void beginRound(std::size_t first, std::size_t end);
  void askStarts();
  void askNext();
  void endRound();
  void take(SearchRange const & range, std::optional<VarBind> & found, VarBind & answer) const;
  template <class Wanted>
  std::vector<std::size_t> open(Wanted wanted) const;
  template <class Take>
  void ask(Question question, std::vector<std::size_t> asked, Take take);

  LocalAgent & agent_;
  std::string const context_;
  std::vector<SearchRange> ranges_; // what is left of them
  std::vector<std::optional<VarBind>> found_;
  std::size_t const nonRepeaters_;
  std::size_t roundsLeft_;
  LocalAgent::Done const done_;
  std::size_t first_ = 0; // the names of this round
  std::size_t end_ = 0;
  Response response_;
};

void Requests::take(Header const & header, Body const & body) {
  if (agent_.pending() >= mostRequests && header.type <= Type::testSet)
    refuse(header, Error::processingError);
  else if (auto const * one = std::get_if<Get>(&body))
    get(header, *one);
  else if (auto const * next = std::get_if<GetNext>(&body))
    getNext(header, *next);
  else if (auto const * bulk = std::get_if<GetBulk>(&body))
    walk(header, bulk->context, bulk->ranges, bulk->nonRepeaters, bulk->maxRepetitions);
  else if (auto const * set = std::get_if<TestSet>(&body))
    test(header, *set);
  else if (std::holds_alternative<CommitSet>(body))
    commit(header);
  else if (std::holds_alternative<UndoSet>(body))
    undo(header);
  else
    cleanUp(header);
  agent_.deliver();
}

void Requests::forget() {
  ++session_;
  for (auto const & [transaction, set] : std::exchange(sets_, {}))
    end(set, set.isCommitted ? Question::undo : Question::free, [](Response const &) {});
  agent_.deliver();
}

void Requests::get(Header const & header, Get const & get) {
  if (get.ranges.empty())
    answer(header, {});
  else if (!answersAtOnce(header, Question::get, get.context, get.ranges))
    agent_.ask(Question::get, get.context, 0, namesOf(get.ranges), answering(header));
}

void Requests::getNext(Header const & header, GetNext const & next) {
  if (!answersAtOnce(header, Question::getNext, next.context, next.ranges))
    walk(header, next.context, next.ranges, next.ranges.size(), 0);
}

// Nearly all requests are about cells of our tables: for those the agent's preparations would take
// most of the time. Where one name needs the agent, it is asked about all, and so about errors in
// their order.
bool Requests::answersAtOnce(Header const & header, Question question, std::string const & context,
                             std::vector<SearchRange> const & ranges) {
  if (!context.empty())
    return false;
  Response response;
  response.varBinds.reserve(ranges.size());
  for (auto const & range : ranges) {
    auto found = answerAtOnce(question, range);
    if (!found)
      return false;
    response.varBinds.push_back(*std::move(found));
  }
  answer(header, std::move(response));
  return true;
}

std::optional<VarBind> Requests::answerAtOnce(Question question, SearchRange const & range) {
  if (question == Question::getNext && range.includesStart)
    if (auto start = agent_.answerAtOnce(Question::get, range.start);
        !start || !isMissing(start->type))
      return start;
  auto found = agent_.answerAtOnce(question, range.start);
  if (found && question == Question::getNext && !range.end.empty() && found->name >= range.end)
    return VarBind{range.start, ValueType::endOfMibView, {}};
  return found;
}

void Requests::walk(Header const & header, std::string context, std::vector<SearchRange> ranges,
                    std::size_t nonRepeaters, std::size_t repetitions) {
  std::make_shared<Walk>(agent_, std::move(context), std::move(ranges), nonRepeaters, repetitions,
                         answering(header))
      ->begin();
}

void Requests::Walk::beginRound(std::size_t first, std::size_t end) {
  first_ = first;
  end_ = end;
  for (auto i = first_; i != end_; ++i)
    // What has come to its end stays there.
    if (!found_[i] || !isMissing(found_[i]->type))
      found_[i].reset();
  askStarts();
}

// An agent knows nothing of included starts, but it knows whether a name exists.
void Requests::Walk::askStarts() {
  auto const asked = open([](SearchRange const & range) { return range.includesStart; });
  if (asked.empty()) {
    askNext();
    return;
  }
  ask(Question::get, asked, [self = shared_from_this(), asked](std::vector<VarBind> & answers) {
    for (std::size_t i = 0; i != asked.size(); ++i)
      if (!isMissing(answers[i].type))
        self->found_[asked[i]] = std::move(answers[i]);
    self->askNext();
  });
}

void Requests::Walk::askNext() {
  auto const asked = open([](SearchRange const &) { return true; });
  if (asked.empty()) {
    endRound();
    return;
  }
  ask(Question::getNext, asked, [self = shared_from_this(), asked](std::vector<VarBind> & answers) {
    for (std::size_t i = 0; i != asked.size(); ++i)
      self->take(self->ranges_[asked[i]], self->found_[asked[i]], answers[i]);
    self->endRound();
  });
}

// The agent looks to the end of the MIB, and so may have found a name beyond the range.
void Requests::Walk::take(SearchRange const & range, std::optional<VarBind> & found,
                          VarBind & answer) const {
  auto const isBeyond = !range.end.empty() && answer.name >= range.end;
  if (isBeyond || isMissing(answer.type))
    found = {range.start, ValueType::endOfMibView, {}};
  else
    found = std::move(answer);
}

// A value is moved, never copied: when there is no memory for the copy of a string in a variant,
// libstdc++ 12 destroys what is not there. An end of a range has none, and comes in each round
// again.
void Requests::Walk::endRound() {
  auto isOver = true;
  for (auto i = first_; i != end_; ++i) {
    auto & found = *found_[i];
    auto const isEnd = isMissing(found.type);
    ranges_[i].start = found.name;
    ranges_[i].includesStart = false;
    isOver = isOver && (i < nonRepeaters_ || isEnd);
    if (isEnd)
      response_.varBinds.push_back({found.name, found.type, {}});
    else
      response_.varBinds.push_back(std::move(found));
  }
  if (roundsLeft_ > 1 && !isOver && response_.varBinds.size() < mostBulkAnswers) {
    --roundsLeft_;
    beginRound(nonRepeaters_, ranges_.size());
  } else
    done_(std::move(response_));
}

/// Those of this round's names that have no answer and are wanted.
template <class Wanted>
std::vector<std::size_t> Requests::Walk::open(Wanted wanted) const {
  std::vector<std::size_t> all;
  for (auto i = first_; i != end_; ++i)
    if (!found_[i] && wanted(ranges_[i]))
      all.push_back(i);
  return all;
}

/// Asks for the ranges' starts. Calls `take` with an answer for each; an error ends the walk.
template <class Take>
void Requests::Walk::ask(Question question, std::vector<std::size_t> asked, Take take) {
  std::vector<VarBind> names;
  names.reserve(asked.size());
  for (auto const i : asked)
    names.push_back({ranges_[i].start, ValueType::null, {}});
  agent_.ask(question, context_, 0, names,
             [self = shared_from_this(), asked = std::move(asked),
              take = std::move(take)](Response response) {
               if (response.error == Error::none && response.varBinds.size() == asked.size()) {
                 take(response.varBinds);
                 return;
               }
               auto const error = response.error == Error::none ? Error::generic : response.error;
               auto const index = response.index == 0 || response.index > asked.size()
                                      ? std::size_t{0}
                                      : asked[response.index - 1U] + 1;
               self->done_(
                   {.error = error, .index = static_cast<std::uint16_t>(index), .varBinds = {}});
             });
}

void Requests::test(Header const & header, TestSet const & test) {
  if (sets_.contains(header.transaction)) {
    refuse(header, Error::processingError);
    return;
  }
  if (sets_.size() == mostSets) {
    refuse(header, Error::resourceUnavailable);
    return;
  }
  Set const set{++lastSet_, test.context};
  sets_.emplace(header.transaction, set);
  agent_.ask(Question::reserve, set.context, set.id, test.varBinds,
             [this, header, set, session = session_](Response response) {
               if (session != session_)
                 return;
               if (response.error != Error::none)
                 answer(header, std::move(response));
               else
                 reserveMore(header, set);
             });
}

void Requests::reserveMore(Header const & header, Set const & set) {
  agent_.ask(Question::reserveMore, set.context, set.id, {}, answering(header));
}

void Requests::commit(Header const & header) {
  auto const found = sets_.find(header.transaction);
  if (found == sets_.end() || found->second.isCommitted) {
    refuse(header, Error::commitFailed);
    return;
  }
  found->second.isCommitted = true; // as far as it came
  end(found->second, Question::act, answering(header, Error::commitFailed));
}

void Requests::undo(Header const & header) {
  auto const found = sets_.find(header.transaction);
  if (found == sets_.end()) {
    refuse(header, Error::undoFailed);
    return;
  }
  auto const set = sets_.extract(found).mapped();
  end(set, set.isCommitted ? Question::undo : Question::free, answering(header, Error::undoFailed));
}

void Requests::cleanUp(Header const & header) {
  auto const found = sets_.find(header.transaction);
  if (found == sets_.end())
    return;
  auto const set = sets_.extract(found).mapped();
  end(set, set.isCommitted ? Question::commit : Question::free, [](Response const &) {});
}

void Requests::end(Set const & set, Question how, LocalAgent::Done done) {
  agent_.ask(how, set.context, set.id, {}, std::move(done));
}

/// Answers the master with what the agent says, or with the one error that fits the step.
LocalAgent::Done Requests::answering(Header const & header, Error failure) {
  return [this, header, failure, session = session_](Response response) {
    if (session != session_)
      return;
    if (response.error != Error::none && failure != Error::none)
      response.error = failure;
    answer(header, std::move(response));
  };
}

void Requests::answer(Header const & header, Response response) {
  // A SET's answers have no varbinds (RFC 2741 section 7.2.4).
  if (header.type >= Type::testSet)
    response.varBinds.clear();
  answer_(header, std::move(response));
}

void Requests::refuse(Header const & header, Error error) {
  if (header.type != Type::cleanupSet)
    answer(header, {.error = error, .varBinds = {}});
}

} // namespace Agent::AgentX

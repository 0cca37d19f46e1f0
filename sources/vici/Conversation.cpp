// Matches answers with questions.
#include "sources/vici/Conversation.h"
#include <fmt/format.h>
#include <utility>

namespace Sources::Vici {

namespace {

/// True if and only if a question of that type may be answered so.
bool isAnswerTo(PacketType question, PacketType answer) {
  if (question == PacketType::request)
    return answer == PacketType::response || answer == PacketType::unknownCommand;
  return answer == PacketType::confirmed || answer == PacketType::unknownEvent;
}

} // namespace

Conversation::Conversation(std::string const & path, Os::Loop & loop, Callbacks callbacks)
    : loop_(loop),
      callbacks_(std::move(callbacks)),
      connection_(path, loop,
                  {.heard = [this] { heard(); },
                   .received = [this](Packet const & packet) { received(packet); },
                   .lost = [this](std::exception const & reason) { giveUp(reason); }}) {}

void Conversation::call(std::string_view command, Answered answered) {
  ask({PacketType::request, std::string(command),
       [answered = std::move(answered)](Packet const & packet) { answered(packet.message); }});
}

void Conversation::registerEvent(std::string_view name, Registered registered) {
  ask({PacketType::registerEvent, std::string(name),
       [registered = std::move(registered)](Packet const & packet) {
         registered(packet.type == PacketType::confirmed);
       }});
}

void Conversation::ask(Question question) {
  questions_.push_back(std::move(question));
  if (questions_.size() == 1)
    sendFirst();
}

void Conversation::sendFirst() {
  auto const & question = questions_.front();
  connection_.send(question.type, question.name);
  events_ = 0;
  isLate_ = loop_.after(patience, [this] { isSilent(); });
  isTooLong_ = loop_.after(longestAnswer, [this] { isEndless(); });
}

void Conversation::received(Packet const & packet) {
  if (packet.type == PacketType::event)
    takeEvent(packet);
  else
    takeAnswer(packet);
}

void Conversation::takeEvent(Packet const & packet) {
  if (!questions_.empty() && ++events_ > mostEvents)
    throw Malformed(fmt::format("more than {} events before an answer", mostEvents));
  callbacks_.event(packet.name, packet.message);
}

// An answer may ask the next question, which then is not the first one yet.
void Conversation::takeAnswer(Packet const & packet) {
  if (questions_.empty() || !isAnswerTo(questions_.front().type, packet.type))
    throw Malformed(
        fmt::format("a packet of type {} that nobody asked for", static_cast<int>(packet.type)));
  if (packet.type == PacketType::unknownCommand)
    throw Unreachable(fmt::format("it does not know \"{}\"", questions_.front().name));
  questions_.front().answered(packet);
  questions_.pop_front();
  if (questions_.empty())
    isNotAsked();
  else
    sendFirst();
}

void Conversation::isNotAsked() {
  isLate_.reset();
  isTooLong_.reset();
}

void Conversation::heard() {
  if (!questions_.empty())
    isLate_ = loop_.after(patience, [this] { isSilent(); });
}

void Conversation::isSilent() {
  giveUp(Silent(
      fmt::format("it does not answer \"{}\": does it still work?", questions_.front().name)));
}

void Conversation::isEndless() {
  giveUp(Unreachable(
      fmt::format("its answer to \"{}\" does not come to an end", questions_.front().name)));
}

void Conversation::giveUp(std::exception const & reason) {
  auto const lost = std::move(callbacks_.lost);
  lost(reason);
}

} // namespace Sources::Vici

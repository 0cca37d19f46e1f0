// JSON pointers (RFC 6901) against the table of the document.
#include "statedb/Location.h"
#include <algorithm>
#include <utility>

namespace StateDb {

namespace {

std::string unescaped(std::string_view token) {
  std::string name;
  for (std::size_t i = 0; i != token.size(); ++i) {
    if (token[i] != '~') {
      name += token[i];
      continue;
    }
    auto const code = ++i == token.size() ? '\0' : token[i];
    if (code != '0' && code != '1')
      throw Unusable("", "\"~\" must stand as ~0 and \"/\" as ~1 within a name");
    name += code == '0' ? '~' : '/';
  }
  return name;
}

/// Takes the names of a pointer one by one.
class Tokens {
public:
  explicit Tokens(std::string_view pointer) : pointer_(pointer) {
    if (!pointer.empty() && pointer.front() != '/')
      throw Unusable("", "a JSON pointer is empty or begins with \"/\"");
  }
  bool empty() const { return taken_ == pointer_.size(); }
  std::string take() {
    auto const begin = taken_ + 1;
    taken_ = std::min(pointer_.find('/', begin), pointer_.size());
    return unescaped(pointer_.substr(begin, taken_ - begin));
  }
  /// The part of the pointer that has been taken.
  std::string_view taken() const { return pointer_.substr(0, taken_); }

private:
  std::string_view pointer_;
  std::size_t taken_ = 0;
};

// One name after an object: its member, its collection, or a record of that collection. Returns
// what type of object the location has come to; null when nothing can follow.
ObjectType const * descend(Location & location, ObjectType const & type, Tokens & tokens) {
  auto const name = tokens.take();
  location.member = type.member(name);
  location.container = type.collection(name);
  if (!location.member && !location.container)
    throw Unusable("", "there is no such member");
  if (location.member || tokens.empty())
    return nullptr;
  auto const & collection = *std::exchange(location.container, nullptr);
  auto key = tokens.take();
  collection.checkKey(key);
  location.steps.push_back({&collection, std::move(key), std::string(tokens.taken())});
  return collection.recordType;
}

Location walk(std::string_view pointer) {
  Tokens tokens(pointer);
  Location location;
  location.pointer = pointer;
  if (tokens.empty())
    return location;
  location.entity = &entityType(tokens.take());
  auto const * type = location.entity->type;
  while (type != nullptr && !tokens.empty())
    type = descend(location, *type, tokens);
  if (!tokens.empty())
    throw Unusable("", "nothing can be below a member or an ifIndex");
  return location;
}

} // namespace

Location locate(std::string_view pointer) {
  // Every reason is about the pointer, so the whole of it is named.
  return atPointer(pointer, [&] { return walk(pointer); });
}

} // namespace StateDb

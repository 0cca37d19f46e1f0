// The document's levels from the outermost to the innermost: document, entity, collection, record.
#include "sources/json/DocumentLevels.h"
#include "platform/Lumo.h"
#include "statedb/Codec.h"
#include "statedb/Schema.h"
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace Sources {

using nlohmann::json;
using StateDb::FullRead;
using Level = DocumentLevel;

namespace {

std::unique_ptr<Level> collectionLevel(std::string_view name, FullRead & read);

/// The collections of an entity.
class EntityLevel final : public Level {
public:
  EntityLevel(FullRead & read, StateDb::EntityType const & entity) : read_(read), entity_(entity) {}

  void key(std::string const & key) override {
    if (entity_.type->collection(key) == nullptr)
      throw StateDb::Unusable("", "there is no such member");
    key_ = key;
  }
  void value(json const & value) override {
    StateDb::mismatch("an object with a record for each key", value);
  }
  std::unique_ptr<Level> object() override { return collectionLevel(key_, read_); }

private:
  FullRead & read_;
  StateDb::EntityType const & entity_;
  std::string key_;
};

/// The entities.
class RootLevel final : public Level {
public:
  explicit RootLevel(FullRead & read) : read_(read) {}

  void key(std::string const & key) override { entity_ = &StateDb::entityType(key); }
  void value(json const & value) override { StateDb::mismatch("an object", value); }
  std::unique_ptr<Level> object() override {
    return std::make_unique<EntityLevel>(read_, *entity_);
  }

private:
  FullRead & read_;
  StateDb::EntityType const * entity_ = nullptr;
};

class AroundLevel final : public Level {
public:
  explicit AroundLevel(FullRead & read) : read_(read) {}

  void key(std::string const &) override {}
  // The schema says what a document must be, and takes nothing that is no object.
  void value(json const & value) override {
    StateDb::StateDb nowhere;
    StateDb::fill(nowhere, value);
  }
  std::unique_ptr<Level> object() override { return std::make_unique<RootLevel>(read_); }

private:
  FullRead & read_;
};

/// Takes a record when it is complete; nothing stands for null.
template <class Key, class Values>
using Give = std::function<void(Key const &, std::optional<Values> const &)>;

/// The members of a record.
template <class Values, class Done>
class RecordLevel final : public Level {
public:
  explicit RecordLevel(Done done) : done_(std::move(done)) {}

  void key(std::string const & key) override { key_ = key; }
  void value(json const & value) override { StateDb::parseMember(values_, key_, value); }
  std::unique_ptr<Level> object() override {
    value(json::object()); // no member is an object
    return nullptr;
  }
  void end() override { done_(values_); }

private:
  Done const done_;
  std::string key_;
  Values values_;
};

/// The records of a collection, by key.
template <class Key, class Values>
class RecordsLevel final : public Level {
public:
  explicit RecordsLevel(Give<Key, Values> give) : give_(std::move(give)) {}

  void key(std::string const & key) override { key_ = StateDb::keyFrom<Key>(key); }
  void value(json const & value) override {
    if (!value.is_null())
      StateDb::mismatch("an object with the record's members, or null", value);
    give_(key_, std::nullopt);
  }
  std::unique_ptr<Level> object() override {
    auto const done = [this](Values const & values) { give_(key_, values); };
    return std::make_unique<RecordLevel<Values, decltype(done)>>(done);
  }

private:
  Give<Key, Values> const give_;
  Key key_;
};

/// The ifIndex of each interface.
class IfIndexesLevel final : public Level {
public:
  explicit IfIndexesLevel(FullRead & read) : read_(read) {}

  void key(std::string const & key) override { key_ = StateDb::keyFrom<Plexa::IntfId>(key); }
  void value(json const & value) override {
    read_.ifIndexIs(key_, StateDb::Codec<std::uint32_t>::parse(value, StateDb::ifIndexRange));
  }
  std::unique_ptr<Level> object() override {
    value(json::object());
    return nullptr;
  }

private:
  FullRead & read_;
  Plexa::IntfId key_;
};

/// The connections of one profile.
class ProfileLevel final : public Level {
public:
  ProfileLevel(FullRead & read, std::string profile) : read_(read), profile_(std::move(profile)) {
    read_.profileIs(profile_);
  }

  void key(std::string const & key) override {
    if (key != "appliedIntfId")
      throw StateDb::Unusable("", "there is no such member");
  }
  void value(json const & value) override {
    StateDb::mismatch("an object with a record for each key", value);
  }
  std::unique_ptr<Level> object() override {
    return std::make_unique<RecordsLevel<Plexa::IntfId, FullRead::Connection>>(
        [this](Plexa::IntfId intfId, std::optional<FullRead::Connection> const & connection) {
          read_.connectionIs(profile_, intfId, connection);
        });
  }

private:
  FullRead & read_;
  std::string const profile_;
};

/// The profiles by name.
class ProfilesLevel final : public Level {
public:
  explicit ProfilesLevel(FullRead & read) : read_(read) {}

  void key(std::string const & key) override { key_ = StateDb::keyFrom<std::string>(key); }
  void value(json const & value) override {
    if (!value.is_null())
      StateDb::mismatch("an object with the record's members, or null", value);
    read_.nullProfileIs(key_);
  }
  std::unique_ptr<Level> object() override { return std::make_unique<ProfileLevel>(read_, key_); }

private:
  FullRead & read_;
  std::string key_;
};

/// Requires: the schema has a collection of that name at an entity.
std::unique_ptr<Level> collectionLevel(std::string_view name, FullRead & read) {
  using Plexa::IntfId;
  if (name == "intfStatus")
    return std::make_unique<RecordsLevel<IntfId, FullRead::Status>>(
        [&read](IntfId intfId, std::optional<FullRead::Status> const & status) {
          read.statusIs(intfId, status);
        });
  if (name == "ifIndexByIntfId")
    return std::make_unique<IfIndexesLevel>(read);
  if (name == "ipsecTunnelInfo")
    return std::make_unique<RecordsLevel<IntfId, FullRead::TunnelInfo>>(
        [&read](IntfId intfId, std::optional<FullRead::TunnelInfo> const & info) {
          read.tunnelInfoIs(intfId, info);
        });
  LUMO_ASSERT(name == "appliedProfiles", "the document has a collection that no file can fill");
  return std::make_unique<ProfilesLevel>(read);
}

} // namespace

std::unique_ptr<Level> aroundDocument(FullRead & read) {
  return std::make_unique<AroundLevel>(read);
}

} // namespace Sources

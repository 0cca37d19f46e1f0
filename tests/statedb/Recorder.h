// Listens to the inputs of a state database and writes down, as "attribute key", what it is told.
#pragma once

#include "statedb/StateDb.h"
#include <functional>
#include <string>
#include <vector>

class Recorder {
public:
  explicit Recorder(StateDb::StateDb & database) {
    listenTo(*database.tunnelIntfStatusDir());
    listenTo(*database.ifMib());
    listenTo(*database.ikeStatus());
  }

  /// Also hears of that object, until the recorder ends.
  void listenTo(Zel::PtrInterface const & object) {
    ears_.push_back(Zel::makePtr<Ear>(*this));
    ears_.back()->notifierIs(&object);
  }
  /// Called inside each notification, after it has been written down.
  std::function<void(std::string const & heard)> then = [](auto const &) {};
  std::vector<std::string> heard;

private:
  class Ear final : public Zel::Notifiee {
  public:
    explicit Ear(Recorder & recorder) : recorder_(recorder) {}
    void onNotification(Zel::Notification const & notification) override {
      auto const text = describe(notification);
      recorder_.heard.push_back(text);
      recorder_.then(text);
    }

  private:
    static std::string describe(Zel::Notification const & notification) {
      std::string const name(notification.attribute().name);
      if (notification.attribute().typeName != "Zel::HashMap2018")
        return name;
      if (name == "appliedProfiles")
        return name + " " + notification.key<std::string>();
      return name + " " + notification.key<Plexa::IntfId>().stringValue();
    }
    Recorder & recorder_;
  };

  std::vector<Zel::Ptr<Ear>> ears_;
};

// One line at a time. What belongs together over several lines (com2sec, group, access) is joined
// at the end, since their order is free.
#include "ctl/doctor/SnmpdConfig.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <strings.h>

namespace Ctl::Doctor {

namespace {

using Words = std::vector<std::string>;

/// The words of a line; those in quotation marks may have blanks. A comment ends it.
Words wordsOf(std::string_view line) {
  Words words;
  for (std::size_t at = 0; at != line.size();) {
    if (std::isspace(static_cast<unsigned char>(line[at])) != 0) {
      ++at;
      continue;
    }
    if (line[at] == '#')
      break;
    auto const quote = line[at] == '"' || line[at] == '\'' ? line[at] : '\0';
    auto const begin = quote == '\0' ? at : at + 1;
    auto end = quote == '\0' ? line.find_first_of(" \t\r", begin) : line.find(quote, begin);
    end = std::min(end, line.size());
    words.emplace_back(line.substr(begin, end - begin));
    at = std::min(line.size(), quote == '\0' ? end : end + 1);
  }
  return words;
}

bool isSame(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string wordAt(Words const & words, std::size_t place) {
  return place < words.size() ? words[place] : std::string();
}

class Reading {
public:
  explicit Reading(ConfigFiles const & files) : files_(files) {}

  void readFile(std::string const & path) {
    if (depth_ == deepestInclude)
      return;
    ++depth_;
    try {
      readText(files_.read(path));
    } catch (std::runtime_error const & error) {
      config_.unreadable.emplace_back(error.what());
    }
    --depth_;
  }

  void readText(std::string_view text) {
    while (!text.empty()) {
      auto const end = text.find('\n');
      takeLine(wordsOf(text.substr(0, end)));
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
  }

  SnmpdConfig result() && {
    joinAccess();
    return std::move(config_);
  }

private:
  static constexpr int deepestInclude = 16;
  struct Security {
    std::string name, source, community;
  };
  struct Group {
    std::string name, model, security;
  };
  struct Access {
    std::string group, model, view;
  };
  using Take = void (Reading::*)(Words const & words);

  void takeLine(Words const & words) {
    static constexpr std::array<std::pair<std::string_view, Take>, 18> directives{
        {{"rocommunity", &Reading::takeCommunity},
         {"rwcommunity", &Reading::takeCommunity},
         {"rocommunity6", &Reading::takeCommunity},
         {"rwcommunity6", &Reading::takeCommunity},
         {"rouser", &Reading::takeUser},
         {"rwuser", &Reading::takeUser},
         {"com2sec", &Reading::takeSecurity},
         {"com2sec6", &Reading::takeSecurity},
         {"group", &Reading::takeGroup},
         {"access", &Reading::takeAccess},
         {"view", &Reading::takeView},
         {"master", &Reading::takeMaster},
         {"agentxsocket", &Reading::takeSocket},
         {"agentaddress", &Reading::takeAddress},
         {"includefile", &Reading::takeFile},
         {"includedir", &Reading::takeFolder},
         {"authcommunity", &Reading::takeAuthCommunity},
         {"authuser", &Reading::takeAuthUser}}};
    if (words.size() < 2)
      return;
    for (auto const & [name, take] : directives)
      if (isSame(words[0], name))
        return (this->*take)(words);
  }

  /// rocommunity COMMUNITY [SOURCE [OID | -V VIEW]]
  void takeCommunity(Words const & words) {
    Reader reader{.name = words[1], .source = wordAt(words, 2)};
    limit(reader, words, 3);
  }
  /// rouser USER [noauth|auth|priv [OID | -V VIEW]]
  void takeUser(Words const & words) {
    Reader reader{.name = words[1], .isCommunity = false};
    limit(reader, words, 3);
  }
  /// authcommunity TYPES COMMUNITY [SOURCE [OID | -V VIEW]]
  void takeAuthCommunity(Words const & words) {
    if (words[1].find("read") == std::string::npos || words.size() < 3)
      return;
    Reader reader{.name = words[2], .source = wordAt(words, 3)};
    limit(reader, words, 4);
  }
  /// authuser TYPES USER [LEVEL [OID | -V VIEW]]
  void takeAuthUser(Words const & words) {
    if (words[1].find("read") == std::string::npos || words.size() < 3)
      return;
    Reader reader{.name = words[2], .isCommunity = false};
    limit(reader, words, 4);
  }

  /// Adds the reader, with what the words from that place on say of what it may read.
  void limit(Reader & reader, Words const & words, std::size_t place) {
    if (wordAt(words, place) == "-V")
      reader.view = wordAt(words, place + 1);
    else if (auto const oid = wordAt(words, place); !oid.empty()) {
      reader.subtree = oidFromText(oid);
      if (!reader.subtree)
        return config_.notUnderstood.push_back(fmt::format("{}", fmt::join(words, " ")));
    }
    config_.readers.push_back(std::move(reader));
  }

  /// com2sec [-Cn CONTEXT] NAME SOURCE COMMUNITY
  void takeSecurity(Words const & words) {
    auto const first = words[1] == "-Cn" ? std::size_t{3} : std::size_t{1};
    if (words.size() >= first + 3)
      securities_.push_back({words[first], words[first + 1], words[first + 2]});
  }
  void takeGroup(Words const & words) {
    if (words.size() >= 4)
      groups_.push_back({words[1], words[2], words[3]});
  }
  /// access GROUP CONTEXT MODEL LEVEL PREFIX READ WRITE NOTIFY
  void takeAccess(Words const & words) {
    if (words.size() >= 7)
      accesses_.push_back({words[1], words[3], words[6]});
  }

  void takeView(Words const & words) {
    if (words.size() < 4)
      return;
    auto subtree = oidFromText(words[3]);
    if (!subtree)
      return config_.notUnderstood.push_back(fmt::format("{}", fmt::join(words, " ")));
    config_.views[words[1]].push_back({.isIncluded = isSame(words[2], "included"),
                                       .subtree = *std::move(subtree),
                                       .mask = maskOf(wordAt(words, 4))});
  }
  /// Hexadecimal octets with "." or ":" between them, bit by bit.
  static std::vector<bool> maskOf(std::string const & text) {
    std::vector<bool> mask;
    std::istringstream octets(text);
    for (std::string octet;
         std::getline(octets, octet, text.find(':') == std::string::npos ? '.' : ':');) {
      auto const bits = std::strtoul(octet.c_str(), nullptr, 16);
      for (int bit = 7; bit >= 0; --bit)
        mask.push_back((bits >> bit & 1) != 0);
    }
    return mask;
  }

  void takeMaster(Words const & words) {
    config_.isMaster = isSame(words[1], "agentx") || isSame(words[1], "all") ||
                       isSame(words[1], "yes") || isSame(words[1], "on");
  }
  void takeSocket(Words const & words) { addTo(config_.agentxSockets, words); }
  void takeAddress(Words const & words) { addTo(config_.listeners, words); }
  /// Addresses with commas between them.
  static void addTo(std::vector<std::string> & addresses, Words const & words) {
    for (std::size_t i = 1; i != words.size(); ++i) {
      std::istringstream parts(words[i]);
      for (std::string part; std::getline(parts, part, ',');)
        if (!part.empty())
          addresses.push_back(part);
    }
  }

  void takeFile(Words const & words) { readFile(words[1]); }
  void takeFolder(Words const & words) {
    try {
      for (auto const & file : files_.list(words[1]))
        readFile(file);
    } catch (std::runtime_error const & error) {
      config_.unreadable.emplace_back(error.what());
    }
  }

  void joinAccess() {
    for (auto const & security : securities_)
      for (auto const & group : groups_)
        for (auto const & access : accesses_)
          if (group.security == security.name && !isSame(group.model, "usm") &&
              access.group == group.name)
            config_.readers.push_back(
                {.name = security.community, .source = security.source, .view = access.view});
  }

  ConfigFiles const & files_;
  int depth_ = 0;
  SnmpdConfig config_;
  std::vector<Security> securities_;
  std::vector<Group> groups_;
  std::vector<Access> accesses_;
};

std::runtime_error cannotRead(std::string const & path, std::string const & reason) {
  return std::runtime_error(fmt::format("{}: {}", path, reason));
}

std::string readRealFile(std::string const & path) {
  std::ifstream file(path);
  if (!file)
    throw cannotRead(path, std::strerror(errno));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> listRealFolder(std::string const & folder) {
  std::error_code error;
  std::filesystem::directory_iterator const entries(folder, error);
  if (error)
    throw cannotRead(folder, error.message());
  std::vector<std::string> files;
  for (auto const & entry : entries)
    if (entry.path().extension() == ".conf")
      files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

/// True if and only if the subtree of the line has the OID in it.
bool covers(ViewLine const & line, Oid const & oid) {
  if (oid.size() < line.subtree.size())
    return false;
  for (std::size_t i = 0; i != line.subtree.size(); ++i)
    if ((i >= line.mask.size() || line.mask[i]) && line.subtree[i] != oid[i])
      return false;
  return true;
}

Sight sightOfView(std::vector<ViewLine> const & view, Oid const & subtree) {
  ViewLine const * nearest = nullptr; // RFC 3415 section 4: the longest decides
  auto isDivided = false;
  for (auto const & line : view) {
    if (covers(line, subtree)) {
      if (nearest == nullptr || line.subtree.size() >= nearest->subtree.size())
        nearest = &line;
    } else if (isWithin(line.subtree, subtree))
      isDivided = true;
  }
  auto const isSeen = nearest != nullptr && nearest->isIncluded;
  auto const isPartIncluded = std::ranges::any_of(view, [&](ViewLine const & line) {
    return line.isIncluded && isWithin(line.subtree, subtree);
  });
  if (isDivided)
    return isSeen || isPartIncluded ? Sight::part : Sight::nothing;
  return isSeen ? Sight::all : Sight::nothing;
}

} // namespace

ConfigFiles realConfigFiles() {
  return {readRealFile, listRealFolder};
}

SnmpdConfig readSnmpdConfig(std::string const & path, ConfigFiles const & files) {
  Reading reading(files);
  reading.readFile(path);
  return std::move(reading).result();
}

SnmpdConfig parseSnmpdConfig(std::string_view text) {
  ConfigFiles const none{
      [](std::string const & path) -> std::string { throw cannotRead(path, "not read"); },
      [](std::string const & path) -> std::vector<std::string> {
        throw cannotRead(path, "not read");
      }};
  Reading reading(none);
  reading.readText(text);
  return std::move(reading).result();
}

Sight sightOf(SnmpdConfig const & config, Reader const & reader, Oid const & subtree) {
  if (!reader.view.empty()) {
    auto const view = config.views.find(reader.view);
    return view == config.views.end() ? Sight::nothing : sightOfView(view->second, subtree);
  }
  if (!reader.subtree || isWithin(subtree, *reader.subtree))
    return Sight::all;
  return isWithin(*reader.subtree, subtree) ? Sight::part : Sight::nothing;
}

bool mayAskFromHere(Reader const & reader) {
  auto const & source = reader.source;
  return source.empty() || source == "default" || source == "localhost" || source == "::1" ||
         source.starts_with("127.") || source.starts_with("0.0.0.0");
}

std::string addressFromHere(std::vector<std::string> const & listeners) {
  for (auto const & listener : listeners) {
    auto const prefix = listener.starts_with("udp:") ? std::string("udp:").size() : 0;
    auto const rest = listener.substr(prefix);
    if (prefix == 0 && rest.find_first_of("/[") != std::string::npos)
      continue; // of another transport, or IPv6
    if (rest.find_first_not_of("0123456789") == std::string::npos)
      return "udp:127.0.0.1:" + rest; // a port alone
    auto const colon = rest.rfind(':');
    auto const host = rest.substr(0, colon);
    auto const port = colon == std::string::npos ? "161" : rest.substr(colon + 1);
    if (host.find(':') == std::string::npos &&
        std::isdigit(static_cast<unsigned char>(host[0])) != 0)
      return fmt::format("udp:{}:{}", host == "0.0.0.0" ? "127.0.0.1" : host, port);
  }
  return listeners.empty() ? "udp:127.0.0.1:161" : listeners.front();
}

} // namespace Ctl::Doctor

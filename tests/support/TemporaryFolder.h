// A folder of one test's own, removed with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <stdlib.h>
#include <string>

class TemporaryFolder {
public:
  TemporaryFolder() {
    auto name = (std::filesystem::temp_directory_path() / "tunnelsXXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
      throw std::runtime_error("no temporary folder can be made");
    path_ = name;
  }
  TemporaryFolder(TemporaryFolder const &) = delete;
  TemporaryFolder & operator=(TemporaryFolder const &) = delete;
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }

  std::filesystem::path const & path() const { return path_; }
  std::string file(std::string const & name) const { return (path_ / name).string(); }
  void write(std::string const & name, std::string const & text) const {
    std::ofstream(file(name)) << text;
  }

private:
  std::filesystem::path path_;
};

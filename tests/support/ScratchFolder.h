// A folder of its own for a test, removed with all it holds.
#ifndef TAVREL_TESTS_SCRATCHFOLDER_H
#define TAVREL_TESTS_SCRATCHFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace tavrel::tests {

class ScratchFolder {
 public:
  ScratchFolder() {
    std::string path = (std::filesystem::temp_directory_path() / "tavrel-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no scratch folder");
    path_ = path;
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder() { std::filesystem::remove_all(path_); }

  // The path of `name` in it.
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace tavrel::tests

#endif

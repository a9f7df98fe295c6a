// A directory of files and links for one test.
#ifndef ZU_TESTS_SUPPORT_TEST_TREE_H_
#define ZU_TESTS_SUPPORT_TEST_TREE_H_

#include <stdlib.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace zu::test {

// Empty at first; goes away with all that it holds.
class TestTree {
 public:
  TestTree() {
    std::string pattern = std::filesystem::temp_directory_path() / "zuXXXXXX";
    root_ = std::filesystem::canonical(::mkdtemp(pattern.data()));
  }
  ~TestTree() { std::filesystem::remove_all(root_); }
  TestTree(const TestTree&) = delete;
  TestTree& operator=(const TestTree&) = delete;

  std::string root() const { return root_; }
  std::string Path(const std::string& name) const { return root_ / name; }

  // Replaces what is there and makes the directories above. A line is
  // "name=text" for a file, "name>target" for a link, "name/" for a directory,
  // or "-name", which removes.
  void Put(const std::string& line) const {
    const size_t mark = line.find_first_of("=>");
    const bool gone = line.front() == '-';
    const std::filesystem::path path =
        root_ / (gone ? line.substr(1) : line.substr(0, mark));
    if (line.back() == '/') {
      std::filesystem::create_directories(path);
      return;
    }
    std::filesystem::remove_all(path);
    if (gone) return;
    std::filesystem::create_directories(path.parent_path());
    if (line[mark] == '>') {
      std::filesystem::create_symlink(line.substr(mark + 1), path);
    } else {
      std::ofstream(path, std::ios::binary) << line.substr(mark + 1);
    }
  }

  // Lines without blanks, between which there is white space.
  void PutAll(const std::string& lines) const {
    std::istringstream stream(lines);
    for (std::string line; stream >> line;) Put(line);
  }

 private:
  std::filesystem::path root_;
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_TEST_TREE_H_

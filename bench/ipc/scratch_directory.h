// Where the sockets of a benchmark's own servers are.
#ifndef ZU_BENCH_IPC_SCRATCH_DIRECTORY_H_
#define ZU_BENCH_IPC_SCRATCH_DIRECTORY_H_

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace zu::bench {

// Removed with all in it. The path is empty when it could not be made.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::error_code error;
    std::string pattern =
        std::filesystem::temp_directory_path(error) / "zu_bench.XXXXXX";
    if (!error && ::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace zu::bench

#endif  // ZU_BENCH_IPC_SCRATCH_DIRECTORY_H_

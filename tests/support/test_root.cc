#include "tests/support/test_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

#include "support/file_descriptor.h"

namespace zu::test {
namespace {

namespace fs = std::filesystem;

constexpr char kMarker[] = "/.zu_test_root";
// Until the new root is entered its parts lie in a tmpfs over this directory.
const fs::path kStage = "/tmp";
const fs::path kRoot = kStage / "root";
// Directories that are made anew instead of being layered.
const std::set<fs::path> kFresh = {"/proc", "/sys", "/dev", "/run", "/tmp"};

// Why there is no test root, for the program that runs without it.
constexpr char kFailureVariable[] = "ZU_TEST_ROOT_FAILURE";

void Check(bool good, const std::string& what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

void Mount(const fs::path& source, const fs::path& target, const char* type,
           unsigned long flags, const std::string& options = {}) {
  fs::create_directories(target);
  Check(::mount(source.c_str(), target.c_str(), type, flags, options.c_str()) ==
            0,
        "mount " + target.string());
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream file(path);
  Check(bool(file << text << std::flush), path.string());
}

// True when the process had to become root of a user namespace.
bool EnterNamespaces() {
  const uid_t uid = ::getuid();
  const gid_t gid = ::getgid();
  const bool own_user = ::unshare(CLONE_NEWNS) != 0;
  if (own_user) {
    Check(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
    WriteText("/proc/self/setgroups", "deny");
    WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  // Without this, mounts could spread back to the machine's namespace.
  Check(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
        "private mounts");
  return own_user;
}

bool IsFresh(const fs::path& path) {
  const auto second = std::next(path.begin());
  return second == path.end() || kFresh.contains("/" / *second);
}

// The machine's other mounts, each after those that it lies in. A layer shows
// nothing of what is mounted below it.
std::set<fs::path> ReadMountPoints() {
  std::set<fs::path> points;
  std::ifstream table("/proc/self/mounts");
  for (std::string device, point, rest;
       table >> device >> point && std::getline(table, rest);) {
    // Automounters would mount on sight; "\" starts an escaped character.
    if (!rest.starts_with(" autofs") && point.find('\\') == point.npos &&
        !IsFresh(point)) {
      points.insert(point);
    }
  }
  return points;
}

// Gives `made` the mode and, as far as possible, the owner of `model`.
void MakeAlike(const fs::path& model, const fs::path& made) {
  struct stat status;
  fs::create_directories(made);
  if (::stat(model.c_str(), &status) != 0) return;
  Check(::chmod(made.c_str(), status.st_mode & 07777) == 0, made.string());
  // Owners outside of the user namespace cannot be given: the root in it then
  // owns the directory, which lets it add files there.
  std::ignore = ::chown(made.c_str(), status.st_uid, status.st_gid);
}

// Shows `directory` in the new root, with changes going to memory.
void Layer(const fs::path& directory, bool own_user) {
  static int count = 0;
  const fs::path layer = kStage / "layers" / std::to_string(count++);
  const fs::path target = kRoot / directory.relative_path();
  MakeAlike(directory, layer / "upper");
  fs::create_directories(layer / "work");
  std::error_code error;
  if (own_user) {
    for (const auto& entry : fs::directory_iterator(directory, error)) {
      if (entry.is_directory(error) && !entry.is_symlink(error)) {
        MakeAlike(entry, layer / "upper" / entry.path().filename());
      }
    }
  }
  fs::create_directories(target, error);
  // Through a descriptor: a path could hold the options' separators.
  const FileDescriptor lower(::open(directory.c_str(), O_PATH | O_CLOEXEC));
  const std::string options =
      "lowerdir=/proc/self/fd/" + std::to_string(lower.get()) +
      ",upperdir=" + (layer / "upper").string() +
      ",workdir=" + (layer / "work").string() + (own_user ? ",userxattr" : "");
  if (::mount("zu_test_root", target.c_str(), "overlay", 0, options.c_str()) ==
      0) {
    return;
  }
  // What cannot be layered is there to be read, or not at all.
  if (::mount(directory.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC,
              nullptr) == 0 &&
      ::mount(nullptr, target.c_str(), nullptr,
              MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
    ::umount2(target.c_str(), MNT_DETACH);
  }
}

void MakeDevices() {
  const fs::path devices = kRoot / "dev";
  Mount("tmpfs", devices, "tmpfs", MS_NOSUID, "mode=0755,size=1m");
  for (const char* name :
       {"null", "zero", "full", "random", "urandom", "tty"}) {
    if (!fs::exists(fs::path("/dev") / name)) continue;
    WriteText(devices / name, "");
    Check(::mount((fs::path("/dev") / name).c_str(), (devices / name).c_str(),
                  nullptr, MS_BIND, nullptr) == 0,
          name);
  }
  Mount("devpts", devices / "pts", "devpts", MS_NOSUID | MS_NOEXEC,
        "newinstance,ptmxmode=0666,mode=0620");
  Mount("tmpfs", devices / "shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
  for (const auto& [name, target] :
       std::to_array<std::array<const char*, 2>>({{"ptmx", "pts/ptmx"},
                                                  {"fd", "/proc/self/fd"},
                                                  {"stdin", "fd/0"},
                                                  {"stdout", "fd/1"},
                                                  {"stderr", "fd/2"}})) {
    fs::create_symlink(target, devices / name);
  }
}

void BuildRoot() {
  const fs::path working_directory = fs::current_path();
  const std::set<fs::path> mount_points = ReadMountPoints();
  const bool own_user = EnterNamespaces();
  // Opened before the stage can hide it.
  const FileDescriptor build(
      ::open(ZU_TEST_BUILD_DIRECTORY, O_PATH | O_CLOEXEC));
  Check(build.valid(), ZU_TEST_BUILD_DIRECTORY);

  Mount("tmpfs", kStage, "tmpfs", 0, "mode=0755");
  Mount("tmpfs", kRoot, "tmpfs", 0, "mode=0755");
  for (const auto& entry : fs::directory_iterator("/")) {
    if (entry.is_symlink()) {
      fs::copy_symlink(entry, kRoot / entry.path().filename());
    } else if (entry.is_directory() && !IsFresh(entry)) {
      Layer(entry, own_user);
    }
  }
  for (const fs::path& point : mount_points) {
    if (fs::is_directory(point)) Layer(point, own_user);
  }
  Mount("/proc", kRoot / "proc", nullptr, MS_BIND | MS_REC);
  Mount("/sys", kRoot / "sys", nullptr, MS_BIND | MS_REC);
  Mount("tmpfs", kRoot / "run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
  Mount("tmpfs", kRoot / "tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
  MakeDevices();
  Mount("/proc/self/fd/" + std::to_string(build.get()),
        kRoot / fs::path(ZU_TEST_BUILD_DIRECTORY).relative_path(), nullptr,
        MS_BIND | MS_REC);
  WriteText(kRoot.string() + kMarker, "");

  Check(::chroot(kRoot.c_str()) == 0 && ::chdir("/") == 0, "chroot");
  std::ignore = ::chdir(working_directory.c_str());
}

}  // namespace

void EnterTestRoot(char** argv) {
  if (InTestRoot() || std::getenv(kFailureVariable) != nullptr) return;
  const fs::path program = fs::read_symlink("/proc/self/exe");
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      BuildRoot();
    } catch (const std::exception& error) {
      ::setenv(kFailureVariable, error.what(), 1);
    }
    ::execv(program.c_str(), argv);
    std::_Exit(127);
  }
  int status = 0;
  if (child < 0 ||
      RetryOnInterrupt([&] { return ::waitpid(child, &status, 0); }) < 0) {
    std::perror("cannot run in the test root");
    std::_Exit(127);
  }
  if (WIFSIGNALED(status)) {
    std::signal(WTERMSIG(status), SIG_DFL);
    std::raise(WTERMSIG(status));
  }
  std::_Exit(WEXITSTATUS(status));
}

bool InTestRoot() { return ::access(kMarker, F_OK) == 0; }

std::string RootFailure() {
  const char* const failure = std::getenv(kFailureVariable);
  return failure != nullptr ? failure : "EnterTestRoot was not called";
}

}  // namespace zu::test

// Volumes: real mounts in memory, which the mount table and the tree of block
// devices show as what the tests want.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

// In the place of the C library's functions, what only root and special file
// systems could show: directories "folds" fold case, and /dev/loop77 is there.
extern "C" {
#pragma GCC visibility push(default)

int ioctl(int file, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  int* const flags = va_arg(list, int*);
  va_end(list);
  if (request != FS_IOC_GETFLAGS) return -1;
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const bool folds = std::filesystem::read_symlink(path).filename() == "folds";
  *flags = FS_NOATIME_FL | (folds ? FS_CASEFOLD_FL : 0);
  return 0;
}

int stat(const char* path, struct stat* status) noexcept {
  if (std::string_view(path) != "/dev/loop77") {
    return ::fstatat(AT_FDCWD, path, status, 0);
  }
  *status = {};
  status->st_mode = S_IFBLK;
  status->st_rdev = makedev(7, 77);
  return 0;
}

#pragma GCC visibility pop
}  // extern "C"

namespace {

namespace fs = std::filesystem;
using zu::test::WriteFile;
using Texts = std::map<std::string, std::string>;

constexpr char kTable[] = "/proc/self/mountinfo";
constexpr char kVolume[] = "/tmp/volume";
constexpr char kFile[] = "/tmp/volume/file";
constexpr char kServer[] = "/tmp/server";
constexpr char kBlockDevices[] = "/sys/dev/block";

// A mount table that has "number type source options" for these mount points.
class FakeTable {
 public:
  explicit FakeTable(const Texts& mounts) {
    std::string text;
    for (const auto& [point, row] : mounts) {
      struct statx status;
      EXPECT_EQ(::statx(AT_FDCWD, point.c_str(), 0, STATX_MNT_ID, &status), 0);
      const std::string id = std::to_string(status.stx_mnt_id);
      const size_t space = row.find(' ');
      text += id + "0 1 0:9 / /other rw - nfs hfs rw\n" + id + " 1 " +
              row.substr(0, space) + " / " + point +
              " rw,noatime shared:1 master:2 -" + row.substr(space) + "\n";
    }
    WriteFile("/tmp/table", text);
    EXPECT_EQ(::mount("/tmp/table", kTable, nullptr, MS_BIND, nullptr), 0);
  }
  FakeTable(const FakeTable&) = delete;
  FakeTable& operator=(const FakeTable&) = delete;
  ~FakeTable() { ::umount2(kTable, MNT_DETACH); }
};

class VolumeTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    for (const char* point : {kVolume, kServer, kBlockDevices}) {
      fs::create_directories(point);
      ASSERT_EQ(::mount("tmpfs", point, "tmpfs", 0, nullptr), 0) << point;
    }
    WriteFile(kFile, "");
  }
  void TearDown() override {
    for (const char* point : {kVolume, kServer, kBlockDevices}) {
      ::umount2(point, MNT_DETACH);
    }
  }
};

TEST_F(VolumeTest, TypeAndOptionsTell) {
  const struct {
    const char* row;
    uint8_t local;
    int64_t case_sensitive;
  } kCases[] = {
      {"0:9 nfs4 server:/export rw,vers=4.2", 0, 1},
      {"0:9 cifs //server/nocase rw,vers=3", 0, 1},
      {"0:9 cifs //server/share rw,nocase,vers=3", 0, 0},
      {"0:9 autofs systemd-1 rw", 0, 1},
      {"0:9 fuse.sshfs user@host: rw", 0, 1},
      {"0:9 fuse anything rw", 0, 1},
      {"0:9 fusectl fusectl rw", 1, 1},
      {"0:9 overlay nfs rw,lowerdir=/nfs", 1, 1},
      {"8:1 fuseblk /dev/sda1 rw", 1, 1},
      {"8:1 ext4 /dev/sda1 rw", 1, 1},
      {"8:1 vfat /dev/sda1 rw,check=r,errors=remount-ro", 1, 0},
      {"8:1 vfat /dev/sda1 rw,check=s", 1, 1},
      {"8:1 exfat /dev/sda1 rw", 1, 0},
      {"8:1 hfsplus /dev/sda1 rw", 1, 0},
      {"8:1 ntfs3 /dev/sda1 rw,uid=0", 1, 1},
      {"8:1 ntfs3 /dev/sda1 rw,nocase", 1, 0},
  };
  for (const auto& c : kCases) {
    const FakeTable table(Texts{{kVolume, c.row}});
    for (const char* path : {kVolume, kFile}) {
      EXPECT_EQ(ZuIsParentPathLocal(path), c.local) << c.row;
      EXPECT_EQ(ZuIsVolumeCaseSensitive(path), c.case_sensitive) << c.row;
    }
    EXPECT_EQ(isParentPathLocal("/tmp/volume/none"), 1) << c.row;
  }
  // With the table as it is: memory, and the test root's layers.
  for (const char* path : {kFile, "/usr", "/", "/dev/", "\xFF"}) {
    EXPECT_EQ(ZuIsParentPathLocal(path), 1) << path;
  }
  EXPECT_EQ(ZuIsParentPathLocal(nullptr), 1);
  EXPECT_EQ(ZuIsParentPathLocal("/dev"), 0);
}

TEST_F(VolumeTest, AnImageIsWhereItsFileIs) {
  const fs::path devices = kBlockDevices;
  constexpr char kImage[] = "/tmp/server/image\n";
  WriteFile("/tmp/server/image", "");
  fs::create_directories(devices / "7:77/loop77p1");
  fs::create_directory_symlink("7:77/loop77p1", devices / "259:7");
  // A logical volume on an encrypted partition of the image, and a circle.
  for (const auto& [upper, lower] :
       Texts{{"253:0", "253:1"}, {"253:1", "259:7"}, {"253:9", "253:9"}}) {
    fs::create_directories(devices / upper / "slaves");
    fs::create_directory_symlink("../../" + lower,
                                 devices / upper / "slaves/part");
  }
  const struct {
    const char* row;
    const char* backing_file;
    uint8_t local;
  } kCases[] = {
      {"7:77 ext4 /dev/loop77 rw", kImage, 0},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/server/image (deleted)\n", 0},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/server/no/image\n", 1},
      {"7:77 ext4 /dev/loop77 rw", "/tmp/image\n", 1},
      {"7:77 ext4 /dev/loop77 rw", "tmp/server/image\n", 1},
      {"259:7 ext4 /dev/loop77p1 rw", kImage, 0},
      {"253:0 xfs /dev/mapper/volume rw", kImage, 0},
      {"253:9 xfs /dev/mapper/endless rw", kImage, 1},
      {"7:78 ext4 /dev/loop78 rw", kImage, 1},
      {"0:60 btrfs /dev/loop77 rw", kImage, 0},
      {"0:60 btrfs /dev/null rw", kImage, 1},
  };
  fs::current_path("/");  // What a name that is not absolute would start from.
  for (const auto& c : kCases) {
    WriteFile(devices / "7:77/loop/backing_file", c.backing_file);
    const FakeTable table(
        Texts{{kVolume, c.row}, {kServer, "0:9 nfs server:/x rw"}});
    EXPECT_EQ(ZuIsParentPathLocal(kFile), c.local) << c.row << c.backing_file;
  }
}

TEST_F(VolumeTest, DirectoriesFoldCase) {
  WriteFile("/tmp/volume/folds/file", "");
  fs::create_directory("/tmp/volume/folds/plain");
  fs::create_symlink("folds/file", "/tmp/volume/link");
  const struct {
    const char* path;
    int64_t case_sensitive;
    int error;
  } kCases[] = {
      {"/tmp/volume/folds", 0, 0},      {"/tmp/volume/folds/plain", 1, 0},
      {"/tmp/volume/link", 0, 0},       {kFile, 1, 0},
      {"/tmp/volume/none", -1, ENOENT}, {"/tmp/volume/file/none", -1, ENOTDIR}};
  for (const auto& c : kCases) {
    EXPECT_EQ(ZuIsVolumeCaseSensitive(c.path), c.case_sensitive) << c.path;
    EXPECT_EQ(c.case_sensitive == -1 ? errno : 0, c.error) << c.path;
  }
  EXPECT_EQ(ZuIsVolumeCaseSensitive(nullptr), -1);
}

}  // namespace

// Volumes: real mounts in memory, which the mount table and the tree of block
// devices show as what the tests want.

#include <sys/mount.h>
#include <sys/stat.h>
#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "tests/support/fake_tool.h"
#include "tests/support/test_root.h"

namespace {

namespace fs = std::filesystem;
using zu::test::WriteFile;

constexpr char kTable[] = "/proc/self/mountinfo";
constexpr char kVolume[] = "/tmp/volume";
constexpr char kFile[] = "/tmp/volume/file";
constexpr char kServer[] = "/tmp/server";
const fs::path kBlockDevices = "/sys/dev/block";

class VolumeTest : public zu::test::RootedTest {
 protected:
  void SetUp() override {
    RootedTest::SetUp();
    if (IsSkipped()) return;
    for (const fs::path& point :
         {fs::path(kVolume), fs::path(kServer), kBlockDevices}) {
      fs::create_directories(point);
      ASSERT_EQ(::mount("tmpfs", point.c_str(), "tmpfs", 0, nullptr), 0);
    }
    WriteFile(kFile, "");
    WriteFile("/tmp/table", "");
    ASSERT_EQ(::mount("/tmp/table", kTable, nullptr, MS_BIND, nullptr), 0);
  }
  void TearDown() override {
    for (const char* point : {kTable, kVolume, kServer, "/sys/dev/block"}) {
      ::umount2(point, MNT_DETACH);
    }
  }

  // The mount table has "number type source options" for the volume, and the
  // server's directory is a server's.
  static void SetTable(const std::string& volume) {
    std::string text;
    for (const auto& [point, row] :
         {std::pair(kVolume, volume), {kServer, "0:9 nfs server:/x rw"}}) {
      struct statx status;
      EXPECT_EQ(::statx(AT_FDCWD, point, 0, STATX_MNT_ID, &status), 0);
      const std::string id = std::to_string(status.stx_mnt_id);
      const size_t space = row.find(' ');
      text.append(id).append("0 1 0:9 / /other rw - nfs hfs rw\n");
      text.append(id).append(" 1 ").append(row, 0, space).append(" / ");
      text.append(point).append(" rw,noatime shared:1 master:2 -");
      text.append(row, space).append("\n");
    }
    WriteFile("/tmp/table", text);
  }
};

TEST_F(VolumeTest, TypeAndOptionsTell) {
  const struct {
    const char* row;
    uint8_t local;
    int64_t case_sensitive;
  } cases[] = {
      {"0:9 nfs4 server:/export rw,vers=4.2", 0, 1},
      {"0:9 cifs //server/share rw,nocase,vers=3", 0, 0},
      {"0:9 fuse.sshfs user@host: rw", 0, 1},
      {"0:9 fusectl fusectl rw", 1, 1},
      {"0:9 overlay nfs rw,lowerdir=/nfs", 1, 1},
      {"8:1 fuseblk /dev/sda1 rw", 1, 1},
      {"8:1 vfat /dev/sda1 rw,check=r,errors=remount-ro", 1, 0},
      {"8:1 vfat /dev/sda1 rw,check=s", 1, 1},
  };
  for (const auto& c : cases) {
    SetTable(c.row);
    for (const char* path : {kVolume, kFile}) {
      EXPECT_EQ(ZuIsParentPathLocal(path), c.local) << c.row;
      EXPECT_EQ(ZuIsVolumeCaseSensitive(path), c.case_sensitive) << c.row;
    }
    EXPECT_EQ(isParentPathLocal("/tmp/volume/none"), 1) << c.row;
  }
  for (const char* path : {"/usr", "/", "/dev/", "\xFF"}) {
    EXPECT_EQ(ZuIsParentPathLocal(path), 1) << path;
  }
  EXPECT_EQ(ZuIsParentPathLocal(nullptr), 1);
  EXPECT_EQ(ZuIsParentPathLocal("/dev"), 0);
  for (const char* path : {static_cast<const char*>(nullptr), "/tmp/none"}) {
    EXPECT_EQ(ZuIsVolumeCaseSensitive(path), -1);
  }
  EXPECT_EQ(errno, ENOENT);
}

// The volume is a partition of the image, whose directory in the tree is below
// that of its disk. Of a file that was removed the folder is still there.
TEST_F(VolumeTest, AnImageIsWhereItsFileIs) {
  fs::create_directories(kBlockDevices / "7:77/loop77p1");
  fs::create_directory_symlink("7:77/loop77p1", kBlockDevices / "259:7");
  SetTable("259:7 xfs /dev/loop77p1 rw");
  for (const auto& [image, local] :
       {std::pair("/tmp/server/image (deleted)\n", 0), {"/tmp/image\n", 1}}) {
    WriteFile(kBlockDevices / "7:77/loop/backing_file", image);
    EXPECT_EQ(ZuIsParentPathLocal(kFile), local) << image;
  }
}

}  // namespace

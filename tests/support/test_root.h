// A private copy of the machine's file tree for one test process.
#ifndef ZU_TESTS_SUPPORT_TEST_ROOT_H_
#define ZU_TESTS_SUPPORT_TEST_ROOT_H_

#include <gtest/gtest.h>
#include <string>

namespace zu::test {

// Puts the calling process, and so its later threads and children, under a root
// of its own: everything on the machine's file systems is there and can be
// written, but changes go to memory and end with the process. /run, /tmp and
// /dev start empty (/dev with the usual devices, without /dev/log). Only the
// build tree, /proc and /sys are the real ones.
//
// For the start of the test main. Libraries may have started threads by then,
// which must not be left outside, so a child without any enters the root and
// runs the program anew; this process waits for it and exits as it did. Returns
// in that second run only.
//
// Uses root's rights, or else a user namespace in which the process is root;
// there a file that somebody else owns can be replaced or covered but not
// changed. On a machine that allows neither nothing is changed, and
// RootFailure() says why.
void EnterTestRoot(char** argv);

// Also true in a child that runs a program there.
bool InTestRoot();
std::string RootFailure();

// Base of fixtures that write to the test root. A derived SetUp calls this one
// first and returns when IsSkipped().
class RootedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InTestRoot()) GTEST_SKIP() << "no test root: " << RootFailure();
  }
};

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_TEST_ROOT_H_

// What no system under test can be made to do.

#include <csignal>

#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "platform/console.h"

// In the place of the system's side.
zu::platform::ConsoleResult zu::platform::ReadConsoleUser(std::string&) {
  return ConsoleResult::kUnreachable;
}

TEST(ConsoleFailureTest, StopsTheProcess) {
  EXPECT_EXIT(WebSitesRestricationLevel(), ::testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(store != NULL\\), function "
              "WebSitesRestricationLevel, file SystemInfo, line [0-9]+\\.\n$");
}

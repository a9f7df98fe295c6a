#include "signing/signature_status.h"

#include <gtest/gtest.h>
#include <cmath>
#include <cstring>

namespace zu::signing {
namespace {

// Times from `date -u`, less those of 2001-01-01.
TEST(SigningDateTest, IsMonthDayYearHourMinuteInGmt) {
  const struct {
    double time;
    const char* text;
    uint32_t capacity = 17;
  } cases[] = {
      {636818700, "03/07/2021 14:05"},    {730900859.9, "02/29/2024 12:00"},
      {-0.5, "12/31/2000 23:59"},         {-63113904000, "01/01/1 00:00"},
      {std::nan(""), "01/01/2001 00:00"}, {636818700, "", 16},
  };
  for (const auto& c : cases) {
    char buffer[32] = {};
    FormatSigningDate(c.time, buffer, c.capacity);
    EXPECT_STREQ(buffer, c.text) << c.time;
  }
  char buffer[64] = {};
  FormatSigningDate(-INFINITY, buffer, sizeof(buffer));
  EXPECT_GT(std::strlen(buffer), 16u);
}

}  // namespace
}  // namespace zu::signing

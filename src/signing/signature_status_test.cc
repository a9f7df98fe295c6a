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
      {636818700, "03/07/2021 14:05"},
      {636818759.9, "03/07/2021 14:05"},
      {730900800, "02/29/2024 12:00"},
      {-0.5, "12/31/2000 23:59"},
      {-63113904000, "01/01/1 00:00"},
      {std::nan(""), "01/01/2001 00:00"},
      {636818700, "", 16},
      {636818700, "", 0},
  };
  for (const auto& c : cases) {
    char buffer[32] = {};
    FormatSigningDate(c.time, buffer, c.capacity);
    EXPECT_STREQ(buffer, c.text) << c.time;
  }
  for (const double far : {double{INFINITY}, -1e300}) {
    char buffer[64] = {};
    FormatSigningDate(far, buffer, sizeof(buffer));
    EXPECT_GT(std::strlen(buffer), 16u);
  }
  FormatSigningDate(0, nullptr, 17);
}

}  // namespace
}  // namespace zu::signing

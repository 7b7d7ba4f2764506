#include <kel/logging.h>

#include <gmock/gmock.h>

#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;

TEST(Log, KeepsErrnoAndTheLastMessage) {
  ReportCapture reports;
  errno = 7;
  ErrorA(22, "%s: failed", "F");
  EXPECT_EQ(errno, 7);
  EXPECT_STREQ(kelLogLastErrorA(), "22: F: failed\n");
  EXPECT_STREQ(kelLogLastMessageA(), "F: failed");
  EXPECT_THAT(reports.take(), ::testing::ElementsAre(error(22, "F: failed")));
}

}  // namespace

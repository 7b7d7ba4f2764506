// Calls that have to fail, one a row.
#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/reports.h"

namespace kel::testing {

struct Refusal {
  int code;            // errno after the call, and of the report
  std::string report;  // empty where there is none
  std::function<bool()> fails;
};

inline void expect_refused(ReportCapture& reports, std::initializer_list<Refusal> rows) {
  for (const Refusal& row : rows) {
    SCOPED_TRACE(row.report);
    errno = 0;
    EXPECT_TRUE(row.fails());
    EXPECT_EQ(errno, row.code);
    std::vector<Report> expected;
    if (!row.report.empty()) expected.push_back(error(row.code, row.report));
    EXPECT_EQ(reports.take(), expected);
  }
}

/// Calls that fail with `code` and one report of it each.
inline void expect_refused(ReportCapture& reports, int code,
                           std::initializer_list<std::function<bool()>> calls) {
  int row = 0;
  for (const auto& fails : calls) {
    SCOPED_TRACE(row++);
    errno = 0;
    EXPECT_TRUE(fails());
    EXPECT_EQ(errno, code);
    EXPECT_THAT(reports.take(), ::testing::ElementsAre(::testing::Field(&Report::code, code)));
  }
}

}  // namespace kel::testing

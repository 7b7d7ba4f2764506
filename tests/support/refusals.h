// Calls that have to fail, one a row.
#pragma once

#include <gtest/gtest.h>

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

}  // namespace kel::testing

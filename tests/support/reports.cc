#include "support/reports.h"

#include <utility>

namespace kel::testing {
namespace {

thread_local std::vector<Report> caught;

void catch_report(int level, int code, const char* text) { caught.push_back({level, code, text}); }

}  // namespace

ReportCapture::ReportCapture(int flags) {
  kelLogGetFlags(&saved_flags_, &saved_mask_);
  kelLogSetFlags(flags | KEL_LOG_NO_OUTPUT, saved_mask_);
  caught.clear();
  kelLogSetRedirector(catch_report);
}

ReportCapture::~ReportCapture() {
  kelLogSetRedirector(nullptr);
  kelLogSetFlags(saved_flags_, saved_mask_);
}

std::vector<Report> ReportCapture::take() { return std::exchange(caught, {}); }

std::vector<std::string> ReportCapture::take_texts() {
  std::vector<std::string> texts;
  for (Report& report : take()) texts.push_back(std::move(report.text));
  return texts;
}

}  // namespace kel::testing

// Catches the reports of the calling thread instead of letting them reach the console.
#pragma once

#include <kel/logging.h>

#include <cerrno>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

namespace kel::testing {

struct Report {
  int level;
  int code;
  std::string text;

  friend bool operator==(const Report&, const Report&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Report& r) {
    return out << "{level " << r.level << ", code " << r.code << ", \"" << r.text << "\"}";
  }
};

/// While it lives, every level but trace is enabled and reports are kept here; one per thread at a
/// time.
class ReportCapture {
 public:
  explicit ReportCapture(int flags = KEL_LOG_VERBOSE);
  ~ReportCapture();
  ReportCapture(const ReportCapture&) = delete;
  ReportCapture& operator=(const ReportCapture&) = delete;

  /// What came since the last call.
  std::vector<Report> take();
  /// The texts alone.
  std::vector<std::string> take_texts();

 private:
  int saved_flags_ = 0;
  int saved_mask_ = 0;
};

inline Report error(int code, std::string text) { return {KEL_LOG_ERR, code, std::move(text)}; }
inline Report warning(int code, std::string text) { return {KEL_LOG_WARN, code, std::move(text)}; }

/// A report of a missing argument for each of these functions of a family.
inline std::vector<Report> null_reports(const std::string& family,
                                        std::initializer_list<const char*> functions) {
  std::vector<Report> reports;
  for (const char* name : functions)
    reports.push_back(error(EINVAL, family + name + ": invalid NULL parameter"));
  return reports;
}

}  // namespace kel::testing

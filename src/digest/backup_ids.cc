// Ids in the names of backup images and in lists of containers.
#include <kel/logging.h>
#include <kel/serialize.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string_view>

#include "internal/report.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_allocation;
using kel::internal::report_warning;

constexpr std::string_view kSpace = " \t\n\r\v\f";
constexpr std::array<std::string_view, 5> kImageExtensions = {".info", ".img", ".hdr", ".map",
                                                              ".fmk"};
/// Ids below are reserved.
constexpr unsigned long kFirstContainerId = 64;

std::string_view trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kSpace);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

/// The id in a trimmed line; 0 when it holds none.
unsigned long parse_container_id(const char* line) {
  // strtoull() takes a sign, and gives ULLONG_MAX for what is too large.
  const unsigned long long id = *line == '-' ? 0 : std::strtoull(line, nullptr, 10);
  return id < kFirstContainerId || id == ULLONG_MAX ? 0 : id;
}

/// Puts the id of one line into the set, or warns.
void take_line(const std::string& line, std::set<unsigned long>* set) {
  if (line.empty()) return;
  const unsigned long id = parse_container_id(line.c_str());
  if (id == 0)
    report_warning(-1, "%s: Discard invalid dcid %s", "ReadDcidFile", line.c_str());
  else
    set->insert(id);
}

}  // namespace

std::string getbackupid(const std::string& name) try {
  const std::string_view all = name;
  const size_t dot = all.rfind('.');
  if (dot == all.npos) return name;
  const std::string_view extension = all.substr(dot);
  const bool is_image = std::ranges::any_of(
      kImageExtensions, [&](std::string_view known) { return extension.starts_with(known); });
  return is_image ? std::string(trim(all.substr(0, dot))) : std::string();
} catch (const std::bad_alloc&) {
  return fail_allocation(std::string(), name.size(), "getbackupid");
}

bool ReadDcidFile(const std::string& path, std::set<unsigned long>* set) try {
  if (set == nullptr) return fail(false, EINVAL, "%s: invalid NULL parameter", __func__);
  std::ifstream in(path);
  if (!in) return fail(false, -1, "%s: Failed to open file %s", __func__, path.c_str());
  for (std::string line; std::getline(in, line);) take_line(std::string(trim(line)), set);
  if (in.bad()) return fail(false, -1, "%s: Failed to read file %s", __func__, path.c_str());
  return true;
} catch (const std::bad_alloc&) {
  return fail_allocation(false, sizeof(unsigned long), "ReadDcidFile");
}

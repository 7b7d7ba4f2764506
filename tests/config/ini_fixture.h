// One INI file in a directory of its own, and its calls without the path.
#pragma once

#include <kel/inifile.h>

#include <string_view>

#include "support/test.h"

namespace kel::testing {

class IniFixture : public ::testing::Test {
 protected:
  ~IniFixture() override { InifileReleaseAll(); }

  /// Writes `text` to the file and has it loaded anew.
  void given(std::string_view text) {
    write_file(path, text);
    InifileReleaseA(path.c_str());
  }
  std::string on_disk() const { return read_file(path); }

  std::string get(const char* section, const char* key, int n = 0) const {
    std::vector<char> buf(1 << 16);
    const int size = InifileGetNthValueA(n, section, key, buf.data(), 1 << 16, nullptr, file);
    return size == -1 ? "(none)" : buf.data();
  }
  int exists(const char* section, const char* key) const {
    return InifileValueExistsA(section, key, file);
  }
  std::string comment(const char* section, const char* key) const {
    char buf[4096];
    return InifileGetCommentA(section, key, buf, sizeof buf, file) < 0 ? "(none)" : buf;
  }
  /// The names of the sections, or of the keys of one.
  std::vector<std::string> names(const char* section = nullptr) const {
    std::vector<char> buf(1 << 20);
    const int size = InifileGetValueA(section, nullptr, buf.data(), 1 << 20, nullptr, file);
    std::vector<std::string> found;
    for (int at = 0; at < size; at += static_cast<int>(found.back().size()) + 1)
      found.emplace_back(&buf[static_cast<size_t>(at)]);
    return found;
  }
  /// What a save writes, seen by way of a save under another name.
  std::string saved() const {
    const std::string copy = dir / "copy";
    EXPECT_EQ(IniFileLoadAndSaveAsA(file, copy.c_str(), 1), 0);
    return read_file(copy);
  }

  TempDir dir;
  const std::string path = dir / "svc.conf";
  const char* const file = path.c_str();
  ReportCapture reports;
};

}  // namespace kel::testing

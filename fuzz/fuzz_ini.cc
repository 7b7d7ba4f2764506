// Any bytes as an INI file: what is loaded can be listed and read, and what a save writes is
// stable: loaded and saved again it is the same text with the same sections and keys.
#include <kel/inifile.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

const std::string folder = "/tmp/kel-fuzz-ini-" + std::to_string(::getpid());

void write_file(const std::string& path, const void* data, size_t size) {
  FILE* out = std::fopen(path.c_str(), "wb");
  require(out != nullptr && std::fwrite(data, 1, size, out) == size);
  std::fclose(out);
}

std::string read_file(const std::string& path) {
  std::string text;
  FILE* in = std::fopen(path.c_str(), "rb");
  require(in != nullptr);
  for (int c; (c = std::getc(in)) != EOF;) text.push_back(static_cast<char>(c));
  std::fclose(in);
  return text;
}

std::vector<std::string> names(const char* section, const std::string& path) {
  static char buf[1 << 13];  // cleared by every call
  const int size = InifileGetValueA(section, nullptr, buf, sizeof buf, nullptr, path.c_str());
  std::vector<std::string> found;
  if (size > static_cast<int>(sizeof buf)) return found;
  for (int at = 0; at < size; at += static_cast<int>(found.back().size()) + 1)
    found.emplace_back(&buf[at]);
  return found;
}

/// Every name is found again under itself, and every definition can be read.
std::string listing(const std::string& path) {
  std::string all;
  char buf[256];
  for (const std::string& section : names(nullptr, path)) {
    all += "[" + section + "]\n";
    if (section.empty()) continue;
    require(InifileValueExistsA(section.c_str(), nullptr, path.c_str()) == 0);
    InifileGetCommentA(section.c_str(), nullptr, buf, sizeof buf, path.c_str());
    for (const std::string& key : names(section.c_str(), path)) {
      require(key.empty() || InifileValueExistsA(section.c_str(), key.c_str(), path.c_str()) == 0);
      all += key + "\n";
      for (int n = 1; n < 8; ++n)
        InifileGetNthValueA(n, section.c_str(), key.c_str(), buf, sizeof buf, "", path.c_str());
      InifileGetCommentA(section.c_str(), key.c_str(), buf, sizeof buf, path.c_str());
    }
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string given = folder + ".given", once = folder + ".once", twice = folder + ".twice";
  write_file(given, data, size);
  const std::string seen = listing(given);
  require(InifileSaveAsA(given.c_str(), once.c_str(), 1) == 0);
  require(listing(once) == seen);
  require(InifileSaveAsA(once.c_str(), twice.c_str(), 1) == 0);
  require(read_file(once) == read_file(twice));

  // Changes leave a model that can still be written and released.
  for (const std::string& section : names(nullptr, given)) {
    InifileSaveValueA(section.c_str(), "k", "v", given.c_str());
    for (const std::string& key : names(section.c_str(), given))
      InifileDeleteValueA(section.c_str(), key.c_str(), given.c_str());
    if (section.size() % 2 != 0) InifileDeleteValueA(section.c_str(), nullptr, given.c_str());
  }
  require(InifileSaveAsA(given.c_str(), twice.c_str(), 1) == 0);
  InifileReleaseAll();
  for (const std::string& path : {given, once, twice}) ::unlink(path.c_str());
  return 0;
}

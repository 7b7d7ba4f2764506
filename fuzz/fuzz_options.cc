// Option vectors and configuration files: parsing ends within the vector, stores only values of the
// option's type, gives the same again, and the help keeps to its widths.
#include <kel/inifile.h>
#include <kel/options.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_target.h"

namespace {

bool set_flag, clear_flag, boolean;
uint64_t number64, size64;
uint32_t number32;
uint16_t size16;
char *string, *utf8, *text, *config;

opt_t options[] = {
    {"Flags", 'v', "verbose", OPT_SET, nullptr, nullptr, nullptr, nullptr, 0, &set_flag, "help"},
    {"Flags", 'q', nullptr, OPT_CLEAR, nullptr, nullptr, nullptr, nullptr, OPT_STOP, &clear_flag,
     nullptr},
    {nullptr, 'b', "bool", OPT_BOOLEAN, nullptr, "no", "a", "b", 0, &boolean, nullptr},
    {nullptr, 'n', "number", OPT_NUMBER64, nullptr, "1", "a", "n", 0, &number64, nullptr},
    {nullptr, 'N', "number32", OPT_NUMBER32, nullptr, nullptr, "a", "N32", 0, &number32, nullptr},
    {nullptr, 's', "size", OPT_SIZE64, nullptr, "1k", "a", "s", 0, &size64, nullptr},
    {nullptr, 0, "size16", OPT_SIZE16, nullptr, nullptr, "b", "s", 0, &size16, nullptr},
    {nullptr, 't', "text", OPT_TEXT, "WORD", nullptr, "b", "t", 0, &text, nullptr},
    {nullptr, 'u', "utf8", OPT_STRING_UTF8, nullptr, "default", "b", "u", 0, &utf8, nullptr},
    {nullptr, 'm', "must", OPT_STRING, nullptr, nullptr, "b", "m", OPT_MANDATORY, &string, nullptr},
    {nullptr, 'f', "file", OPT_INIFILE, nullptr, nullptr, nullptr, nullptr, 0, &config, nullptr}};
opt_t* table[std::size(options) + 1];

/// The values that a parse left behind, as one text.
std::string stored_values() {
  std::string all;
  for (const bool flag : {set_flag, clear_flag, boolean}) all += flag ? '1' : '0';
  for (const uint64_t number : {number64, uint64_t{number32}, size64, uint64_t{size16}})
    all += std::to_string(number) + ' ';
  for (const char* s : {string, utf8, text})
    all += s == nullptr ? "(null)" : s + std::string(1, '|');
  return all;
}

std::string parse(std::vector<char*>& argv) {
  const int argc = static_cast<int>(argv.size()) - 1;
  const int result = opt_parse(table, argc, argv.data());
  require(result >= -1 && result <= argc && result != 0);
  return std::to_string(result) + stored_values();
}

void check_help(std::vector<char*>& argv) {
  char* help = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&help, &size);
  const int argc = static_cast<int>(argv.size()) - 1;
  require(opt_fprintf_help(stream, "prog", argc, argv.data(), table, nullptr) == 0);
  std::fclose(stream);
  for (const char* at = help; *at != '\0'; at += std::strcspn(at, "\n") + 1) {
    size_t characters = 0;
    for (const char* c = at; *c != '\n'; ++c) characters += (*c & 0xC0) != 0x80;
    require(characters <= 80);
  }
  std::free(help);
}

/// Leaves out what would name another file than ours.
std::vector<std::string> arguments_of(std::string_view lines) {
  std::vector<std::string> arguments = {"prog"};
  while (!lines.empty()) {
    const size_t end = std::min(lines.find('\n'), lines.size());
    const std::string argument(std::string(lines.substr(0, end)).c_str());
    lines.remove_prefix(std::min(end + 1, lines.size()));
    if (!argument.starts_with("-f") && !argument.starts_with("--file"))
      arguments.push_back(argument);
  }
  return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (size_t i = 0; i < std::size(options); ++i) table[i] = &options[i];
  return 0;
}

// The arguments, one a line, and behind a line "[" the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t lines = std::min(input.find("\n[\n"), size);
  const std::string_view ini = input.substr(std::min(lines + 3, size));
  static const int file = memfd_create("options", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  require(ftruncate(file, 0) == 0);
  require(pwrite(file, ini.data(), ini.size(), 0) == static_cast<ssize_t>(ini.size()));
  options[std::size(options) - 1].default_value = ini.empty() ? nullptr : path.c_str();

  auto arguments = arguments_of(input.substr(0, lines));
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const std::string first = parse(argv);
  check_help(argv);
  opt_free(table);
  for (const opt_t& option : options) require((option.flags >> 61) == 0);
  number32 = size16 = 0;
  const std::string second = parse(argv);
  require(first.starts_with("-1") || first == second);
  opt_free(table);
  number32 = size16 = 0;
  InifileReleaseAll();
  return 0;
}

// The loaded files on standard output, for people.
#include <kel/inifile.h>

#include "config/ini_cache.h"

using namespace kel::config;

namespace {

void print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void print_escaped(std::string_view text) {
  for (const char c : text) {
    switch (c) {
      case '\n':
        print("\\n");
        break;
      case '\r':
        print("\\r");
        break;
      case '\t':
        print("\\t");
        break;
      case '"':
        print("\\\"");
        break;
      default:
        std::putchar(c);
    }
  }
}

void print_comment(const char* indent, const Text& comment) {
  if (comment.empty()) return;
  std::printf("%sComment \"", indent);
  print_escaped(comment.visible());
  print("\"\n");
}

void print_entry(const Entry& entry) {
  print_comment("\t\t\t", entry.comment);
  print("\t\t\t\"");
  print(entry.key.visible());
  print("\" = \"");
  print(entry.value.visible());
  print("\"\n");
}

void print_section(const Section& section) {
  print_comment("\t\t", section.comment);
  print("\t\tSection \"");
  print(section.name.visible());
  print("\"\n");
  if (section.first == nullptr) print("\t\t\tNo entries found.\n");
  for (const Entry* entry = section.first; entry != nullptr; entry = entry->next)
    print_entry(*entry);
}

void print_file(int number, const IniFile& file) {
  std::printf("\tFile %d: \"%s\" (modified: %s)\n", number, file.path(),
              file.modified ? "YES" : "no");
  if (file.sections() == nullptr) print("\t\tNo sections found.\n");
  for (const Section* section = file.sections(); section != nullptr; section = section->next)
    print_section(*section);
}

}  // namespace

void inifilePrintLoadedFiles(void) {
  const auto lock = lock_files();
  print(first_file() == nullptr ? "No INI files are currently loaded. :(\n"
                                : "Currently loaded INI files:\n");
  int number = 0;
  for (const IniFile* file = first_file(); file != nullptr; file = file->next)
    std::printf("\tFile #%d: char str: \"%s\"\n", ++number, file->path());
}

void inifilePrintLoadedFileContents(void) {
  const auto lock = lock_files();
  print("Currently loaded INI files:\n");
  if (first_file() == nullptr) print("\tNo INI files are loaded. :(\n");
  int number = 0;
  for (const IniFile* file = first_file(); file != nullptr; file = file->next)
    print_file(++number, *file);
}

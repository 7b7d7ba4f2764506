// The help: usage, then each option with its default and its text, broken into lines.
#include <kel/safeio.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config/options_table.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kHelp[] = "opt_fprintf_help";

/// Breaks text into lines of at most `width` characters behind `indent` spaces. Texts that are
/// added one after the other are one text.
class LineBreaker {
 public:
  LineBreaker(FILE* stream, int indent, size_t width) noexcept
      : stream_(stream), indent_(indent), width_(width) {}

  /// False after a report when a line could not be written.
  bool add(const char* text) {
    for (; *text != '\0'; ++text)
      if (!add(*text)) return false;
    return true;
  }
  /// Writes what is left.
  bool end() { return size_ == 0 || write_line(size_); }

 private:
  static constexpr size_t kWidest = 72;
  static constexpr size_t kLongestCharacter = 4;  // bytes of UTF-8

  bool add(char c) {
    if (c == '\n') return write_line(size_);
    if (c == ' ' || c == '\t') {
      after_blank_ = true;
      return true;
    }
    if (is_continuation(c)) {
      ++character_size_;
      line_[size_++] = c;
      return true;
    }
    if (after_blank_ && size_ != 0) {
      // The space must be followed by something on its line.
      if (length_ + 2 > width_) {
        if (!write_line(size_)) return false;
      } else {
        line_[size_++] = ' ';
        ++length_;
        word_ = size_;
        word_length_ = length_;
      }
    }
    after_blank_ = false;
    if (length_ == width_ && !make_room()) return false;
    line_[size_++] = c;
    ++length_;
    character_size_ = 1;
    return true;
  }

  /// Whether the byte belongs to the character before it. Bytes that are no UTF-8 count as a
  /// character each, so that the line has room for everything that is counted.
  bool is_continuation(char c) const noexcept {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80 && !after_blank_ && size_ != 0 &&
           character_size_ < kLongestCharacter;
  }

  /// The line is full within a word: the word goes to the next line, or is cut when it fills this.
  bool make_room() {
    if (word_ == 0) return write_line(size_);
    char word[sizeof line_];
    const size_t size = size_ - word_;
    const size_t length = length_ - word_length_;
    std::memcpy(word, line_ + word_, size);
    if (!write_line(word_ - 1)) return false;
    std::memcpy(line_, word, size);
    size_ = size;
    length_ = length;
    return true;
  }

  bool write_line(size_t size) {
    constexpr char kFunction[] = "opt_fprintf_indented";
    if (std::fprintf(stream_, "%*s", indent_, "") < 0)
      return fail(false, errno, "%s: could not print indentation", kFunction);
    if (std::fprintf(stream_, "%.*s\n", static_cast<int>(size), line_) < 0)
      return fail(false, errno, "%s: could not print line", kFunction);
    size_ = length_ = word_ = word_length_ = 0;
    after_blank_ = false;
    return true;
  }

  FILE* stream_;
  int indent_;
  size_t width_;
  char line_[kWidest * kLongestCharacter];
  size_t size_ = 0;         // bytes of the line, without blanks at its end
  size_t length_ = 0;       // characters of it
  size_t word_ = 0;         // where its last word starts
  size_t word_length_ = 0;  // and how many characters are before
  size_t character_size_ = 0;
  bool after_blank_ = false;
};

bool is_mandatory(const opt_t& option) noexcept { return (option.flags & OPT_MANDATORY) != 0; }

int print_shortest(FILE* stream, const opt_t& option) {
  const char* const word = word_of(option);
  if (option.short_name != '\0') return std::fprintf(stream, " -%c %s", option.short_name, word);
  return std::fprintf(stream, " --%s%s%s", option.long_name, is_flag(option) ? "" : "=", word);
}

bool print_usage(FILE* stream, const char* program, opt_t** options, const char* operands) {
  bool printed = std::fprintf(stream, "\nUsage: %s", program) >= 0;
  bool has_optional = false;
  for (; *options != nullptr && printed; ++options) {
    if (is_mandatory(**options))
      printed = print_shortest(stream, **options) >= 0;
    else
      has_optional = true;
  }
  printed = printed && (!has_optional || std::fputs(" [options ...]", stream) >= 0) &&
            std::fputs(" [--]", stream) >= 0 &&
            (operands == nullptr || std::fprintf(stream, " %s", operands) >= 0);
  return printed || fail(false, errno, "%s: could not print usage line", kHelp);
}

bool add_default(LineBreaker& line, const opt_t& option, const opt_t* ini_option) {
  // A flag has no default but that it is not given, and takes nothing from the file.
  if (is_flag(option)) return true;
  char buf[kFileValue];
  const char* const text = default_text(option, ini_option, buf, sizeof buf).text;
  if (text == nullptr) return true;
  const bool hidden = (option.flags & OPT_HIDE_DEFAULT) != 0;
  const bool quoted = !hidden && option.type <= OPT_INIFILE;
  const char* const quote = quoted ? "\"" : "";
  return line.add(" (default: ") && line.add(quote) && line.add(hidden ? "(hidden)" : text) &&
         line.add(quote) &&
         line.add(text == buf ? " (configuration default))" : " (application default))");
}

bool print_option(FILE* stream, const opt_t& option, const opt_t* ini_option) {
  LineBreaker line(stream, 8, 72);
  if (!line.add(OptionText(option).text) || (is_mandatory(option) && !line.add(" (*)")) ||
      !add_default(line, option, ini_option) || !line.end())
    return false;
  LineBreaker help(stream, 16, 64);
  return option.help == nullptr || (help.add(option.help) && help.end());
}

bool print_options(FILE* stream, opt_t** options, const opt_t* ini_option) {
  const char* group = nullptr;
  for (; *options != nullptr; ++options) {
    const opt_t& option = **options;
    if (option.group != nullptr && option.group != group) {
      group = option.group;
      if (std::fprintf(stream, "\n%s:\n", group) < 0)
        return fail(false, errno, "%s: could not write line", kHelp);
    }
    if (!print_option(stream, option, ini_option)) return false;
  }
  return true;
}

}  // namespace

int opt_fprintf_help(FILE* stream, const char* programName, int argc, char** argv, opt_t** options,
                     const char* operandsText) {
  if (stream == nullptr || programName == nullptr || options == nullptr ||
      (argv == nullptr && argc > 1))
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  if (opt_validate(options) != 0) return refuse(EINVAL, "%s: invalid options", __func__);
  opt_t* ini_option = nullptr;
  if (!choose_ini_option(options, argc, argv, ini_option)) return -1;

  if (!print_usage(stream, programName, options, operandsText)) return -1;
  if (std::fputs("\n\nOptions marked with (*) are mandatory.\n", stream) < 0)
    return fail(-1, errno, "%s: could not write usage line", __func__);
  if (!print_options(stream, options, ini_option)) return -1;
  // What the stream holds back may fail only now.
  return safe_fflush(stream) == 0 ? 0 : fail(-1, errno, "%s: could not write line", __func__);
}

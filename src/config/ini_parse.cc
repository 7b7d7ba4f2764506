// INI text in. One pass over the text, which stays where it is: names, values and comments become
// views into it. docs/formats/ini.md describes the dialect.
#include <algorithm>

#include "config/ini_model.h"
#include "internal/report.h"

namespace kel::config {
namespace {

using internal::report_error;

constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }
/// Whether a line that begins with `c` can mean anything: ASCII letters, digits and punctuation.
constexpr bool begins_line(char c) noexcept { return c > ' ' && c < '\x7F'; }

std::string_view trim(const char* from, const char* to) noexcept {
  while (from != to && is_space(*from)) ++from;
  while (from != to && is_space(to[-1])) --to;
  return {from, static_cast<std::size_t>(to - from)};
}

const char* find(const char* from, const char* to, char c) noexcept {
  const void* found = std::memchr(from, c, static_cast<std::size_t>(to - from));
  return found == nullptr ? to : static_cast<const char*>(found);
}

/// Cuts a text at '\n', '\r' and "\r\n". Looks for either break once and keeps where the next one
/// is, so that a text with one kind of break costs no more than its length.
class Lines {
 public:
  Lines(const char* text, std::size_t size) noexcept
      : at_(text),
        end_(text + size),
        line_feed_(find(at_, end_, '\n')),
        carriage_return_(find(at_, end_, '\r')) {}

  bool next() noexcept {
    if (at_ == end_) return false;
    ++number;
    begin = at_;
    if (line_feed_ < at_) line_feed_ = find(at_, end_, '\n');
    if (carriage_return_ < at_) carriage_return_ = find(at_, end_, '\r');
    if (line_feed_ < carriage_return_) {
      end = line_feed_;
      at_ = end + 1;
    } else {
      end = carriage_return_;
      at_ = end == end_ ? end : end + 1;
      if (at_ < end_ && *at_ == '\n') ++at_;
    }
    return true;
  }

  const char* end_of_text() const noexcept { return end_; }

  const char* begin = nullptr;  ///< the current line
  const char* end = nullptr;    ///< its break, or the end of the text
  int number = 0;

 private:
  const char* at_;
  const char* end_;
  const char* line_feed_;
  const char* carriage_return_;
};

class Parser {
 public:
  Parser(IniFile& file, const char* text, std::size_t size) noexcept
      : file_(file),
        lines_(text, size),
        section_(file.sections()),
        has_nul_(std::memchr(text, '\0', size) != nullptr) {}

  bool run() {
    while (lines_.next())
      if (!take_line()) return false;
    return take_comment(file_.trailing, lines_.end_of_text());
  }

 private:
  bool take_line() {
    const char* at = lines_.begin;
    while (at != lines_.end && is_space(*at)) ++at;
    if (at == lines_.end || *at == '#' || *at == ';') {
      if (comment_ == nullptr) comment_ = lines_.begin;
      return true;
    }
    if (!begins_line(*at)) return true;
    return *at == '[' ? take_header(at + 1) : take_entry(at);
  }

  bool take_header(const char* name) {
    const char* const bracket = find(name, lines_.end, ']');
    if (bracket == lines_.end) return complain(']');
    Text comment;
    if (!take_comment(comment, lines_.begin)) return false;
    section_ = file_.open_section(lend({name, static_cast<std::size_t>(bracket - name)}),
                                  std::move(comment));
    return section_ != nullptr;
  }

  bool take_entry(const char* key) {
    const char* const sign = find(key, lines_.end, '=');
    if (sign == lines_.end) return complain('=');
    Text comment;
    if (!take_comment(comment, lines_.begin)) return false;
    return file_.define(*section_, lend(trim(key, sign)), lend(trim(sign + 1, lines_.end)),
                        std::move(comment));
  }

  /// Moves the pending comment, which reaches up to `end`, to `to`.
  bool take_comment(Text& to, const char* end) {
    const char* const from = std::exchange(comment_, nullptr);
    if (from == nullptr) return true;
    const std::string_view text(from, static_cast<std::size_t>(end - from));
    if (!text.ends_with('\n')) return to.copy(text, "\n", has_nul_);
    to = lend(text);
    return true;
  }

  Text lend(std::string_view part) const noexcept { return Text(part, has_nul_); }

  bool complain(char expected) const {
    report_error(EINVAL,
                 "Syntax error on line %d while parsing configuration file %s: \"%c\" expected.",
                 lines_.number, file_.path(), expected);
    return true;
  }

  IniFile& file_;
  Lines lines_;
  Section* section_;
  const bool has_nul_;
  const char* comment_ = nullptr;  ///< where the pending comment starts
};

}  // namespace

bool IniFile::parse(internal::MallocPtr<char> text, std::size_t size) {
  // About as many entries as usual files of this size have; more make the index grow.
  constexpr std::size_t kUsualLine = 32;
  constexpr std::size_t kMostExpected = 1 << 16;
  text_ = std::move(text);
  if (!entry_index_.reserve_first(std::min(size / kUsualLine, kMostExpected))) return false;
  return Parser(*this, text_.get(), size).run();
}

}  // namespace kel::config

// The command line: recognising arguments, and the three sources of values in their order.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "config/options_table.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kParse[] = "opt_parse";

/// What an argument is.
enum class Kind { kOption, kOperand, kEnd, kUnknown, kUnwantedValue, kMissingValue };

struct Match {
  Kind kind = Kind::kUnknown;
  bool is_long = false;
  opt_t* option = nullptr;
  const char* text = nullptr;  ///< of its value; null for a flag
  int consumed = 0;            ///< arguments
};

/// Whether `argument` gives the option; `attached` is then the text behind the name, if any.
bool is_given(const opt_t& option, const char* argument, bool is_long, const char*& attached) {
  if (!is_long) {
    if (option.short_name == '\0' || argument[1] != option.short_name) return false;
    attached = argument[2] == '\0' ? nullptr : argument + 2;
    return true;
  }
  if (option.long_name == nullptr) return false;
  const char* const name = argument + 2;
  const size_t length = std::strcspn(name, "=");
  if (std::string_view(name, length) != option.long_name) return false;
  attached = name[length] == '\0' ? nullptr : name + length + 1;
  return true;
}

/// Finds what the value of a recognised option is.
void take_value(Match& match, const char* attached, const char* next) {
  match.kind = Kind::kOption;
  match.consumed = 1;
  match.text = attached;
  if (is_flag(*match.option)) {
    if (attached != nullptr) match.kind = Kind::kUnwantedValue;
  } else if (attached == nullptr && next != nullptr && next[0] != '-') {
    match.text = next;
    match.consumed = 2;
  } else if (attached == nullptr) {
    match.kind = Kind::kMissingValue;
  }
}

/// Recognises argv[0], the first of `argc` arguments; reports nothing.
Match match_argument(opt_t** options, int argc, char** argv) {
  const char* const argument = argv[0];
  Match match;
  if (argument[0] != '-') {
    match.kind = Kind::kOperand;
    return match;
  }
  match.is_long = argument[1] == '-';
  if (match.is_long && argument[2] == '\0') {
    match.kind = Kind::kEnd;
    return match;
  }
  for (; *options != nullptr; ++options) {
    const char* attached = nullptr;
    if (!is_given(**options, argument, match.is_long, attached)) continue;
    match.option = *options;
    take_value(match, attached, argc > 1 ? argv[1] : nullptr);
    break;
  }
  return match;
}

/// Reports what is wrong with an argument; the result of opt_identify().
int report_match(const Match& match, const char* argument) {
  constexpr char kLong[] = "opt_long_find_value";
  constexpr char kShort[] = "opt_short_find_value";
  const opt_t* const option = match.option;
  switch (match.kind) {
    case Kind::kOption:
      return match.consumed;
    case Kind::kOperand:
      return -2;
    case Kind::kEnd:
      return -3;
    case Kind::kUnknown:
      refuse(EINVAL, "%s: invalid option %s", "opt_identify", argument);
      return 0;
    case Kind::kUnwantedValue:
      return match.is_long ? refuse(EINVAL, "%s: option --%s does not accept a value", kLong,
                                    option->long_name)
                           : refuse(EINVAL, "%s: option -%c does not accept a value", kShort,
                                    option->short_name);
    case Kind::kMissingValue:
      return match.is_long ? refuse(EINVAL, "%s: option --%s requires a %s value", kLong,
                                    option->long_name, word_of(*option))
                           : refuse(EINVAL, "%s: option -%c requires a %s value", kShort,
                                    option->short_name, word_of(*option));
  }
  return -1;
}

bool stops(const opt_t& option) { return (option.flags & OPT_STOP) != 0; }

/// The last configuration file option among those that opt_parse() will come to.
Match find_ini_option(opt_t** options, int argc, char** argv) {
  Match found;
  for (int i = 1; i < argc && argv[i] != nullptr;) {
    const Match match = match_argument(options, argc - i, argv + i);
    if (match.kind != Kind::kOption) break;
    if (match.option->type == OPT_INIFILE) found = match;
    if (stops(*match.option)) break;
    i += match.consumed;
  }
  return found;
}

int store_defaults(opt_t** options, const opt_t* ini_option) {
  for (; *options != nullptr; ++options) {
    opt_t& option = **options;
    if (is_flag(option)) {
      reset_flag(option);
      continue;
    }
    // Its path was chosen before: from the command line it stands above a default.
    if (&option == ini_option) continue;
    char buf[kFileValue];
    const DefaultText found = default_text(option, ini_option, buf, sizeof buf);
    if (found.cut)
      return fail(-1, ENOBUFS, "%s: value too long in the configuration file for option %s", kParse,
                  OptionText(option).text);
    if (found.text != nullptr && opt_parse_value(&option, found.text, option.value) != 0) return -1;
  }
  return 0;
}

/// Stores the values of the command line. The index of the first argument that is no option, or -1;
/// `to_the_end` tells whether all of them were looked at.
int store_arguments(opt_t** options, int argc, char** argv, const opt_t* ini_option,
                    bool& to_the_end) {
  to_the_end = false;
  for (int i = 1; i < argc && argv[i] != nullptr;) {
    const Match match = match_argument(options, argc - i, argv + i);
    if (match.kind == Kind::kOperand) return i;
    if (match.kind == Kind::kEnd) return i + 1;
    if (report_match(match, argv[i]) <= 0) return -1;
    opt_t& option = *match.option;
    if (&option != ini_option && opt_parse_value(&option, match.text, option.value) != 0) return -1;
    i += match.consumed;
    if (stops(option)) return i;
  }
  to_the_end = true;
  return argc;
}

int check_mandatory(opt_t** options) {
  int result = 0;
  for (; *options != nullptr; ++options) {
    const opt_t& option = **options;
    if ((option.flags & OPT_MANDATORY) == 0 || (option.flags & kStored) != 0) continue;
    result = refuse(EINVAL, "%s: Mandatory option %s has not been specified", kParse,
                    OptionText(option).text);
  }
  return result;
}

}  // namespace

bool kel::config::choose_ini_option(opt_t** options, int argc, char** argv, opt_t*& chosen) {
  const Match given = find_ini_option(options, argc, argv);
  chosen = given.option;
  if (chosen != nullptr) return opt_parse_value(chosen, given.text, chosen->value) == 0;
  for (; *options != nullptr; ++options) {
    if ((*options)->type != OPT_INIFILE) continue;
    chosen = *options;
    if (chosen->default_value != nullptr &&
        opt_parse_value(chosen, chosen->default_value, chosen->value) != 0)
      chosen = nullptr;
    break;
  }
  return true;
}

int opt_identify(opt_t** options, int argc, char** argv, opt_t** option, const char** text) {
  if (options == nullptr || argc < 1 || argv == nullptr || argv[0] == nullptr ||
      option == nullptr || text == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const Match match = match_argument(options, argc, argv);
  if (match.kind == Kind::kOption) {
    *option = match.option;
    *text = match.text;
  }
  return report_match(match, argv[0]);
}

int opt_parse(opt_t** options, int argc, char** argv) {
  if (options == nullptr || (argv == nullptr && argc > 1))
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  if (opt_validate(options) != 0) return fail(-1, EINVAL, "%s: invalid options", __func__);
  opt_t* ini_option = nullptr;
  if (!choose_ini_option(options, argc, argv, ini_option) ||
      store_defaults(options, ini_option) != 0)
    return -1;
  bool to_the_end;
  const int first = store_arguments(options, argc, argv, ini_option, to_the_end);
  return to_the_end && check_mandatory(options) != 0 ? -1 : first;
}

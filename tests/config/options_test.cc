#include <kel/options.h>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;
using Args = std::vector<std::string>;

/// A tool's options of several types; the base has a file for them.
class Options : public IniFixture {
 protected:
  ~Options() override { opt_free(table); }

  int parse(const Args& args) {
    opt_free(table);
    arguments = {"prog"};
    arguments.insert(arguments.end(), args.begin(), args.end());
    argv.clear();
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return opt_parse(table, static_cast<int>(arguments.size()), argv.data());
  }
  /// The report of a run that has to fail.
  std::string refusal(const Args& args) {
    errno = 0;
    EXPECT_EQ(parse(args), -1);
    EXPECT_NE(errno, 0);
    const auto texts = reports.take_texts();
    return texts.empty() ? "" : texts.back();
  }

  bool verbose = false, sign = false, deep = false;
  uint32_t count = 0;
  uint16_t block = 0;
  uint64_t limit = 0;
  char *name = nullptr, *place = nullptr, *config = nullptr, *mode = nullptr;
  opt_t verbose_o{"General", 'v', "verbose", OPT_SET, 0, 0, 0, 0, 0, &verbose, "Tell more."};
  opt_t count_o{"Numbers", 'n', "count", OPT_NUMBER32, 0, "10", "Tool", "Count", 0, &count, 0};
  opt_t block_o{0, 'b', 0, OPT_SIZE16, 0, 0, "Tool", "Block", 0, &block, 0};
  opt_t limit_o{0, 0, "limit", OPT_SIZE64, "BYTES", "1GiB", "Tool", "Limit", 0, &limit, 0};
  opt_t name_o{0, 'N', "name", OPT_STRING, 0, 0, "Tool", "Name", OPT_MANDATORY, &name, 0};
  opt_t place_o{0, 'p', "place", OPT_STRING_UTF8, 0, "here", "Tool", "Place", 0, &place, 0};
  opt_t config_o{0, 'c', "config", OPT_INIFILE, "FILE", 0, 0, 0, 0, &config, 0};
  opt_t sign_o{0, 's', "sign", OPT_BOOLEAN, 0, "no", "Tool", "Sign", 0, &sign, 0};
  opt_t deep_o{0, 0, "shallow", OPT_CLEAR, 0, 0, 0, 0, OPT_STOP, &deep, 0};
  opt_t mode_o{0, 0, "mode", OPT_TEXT, 0, "fast", "Tool", "Mode", OPT_HIDE_DEFAULT, &mode, 0};
  opt_t* table[11] = {&verbose_o, &count_o, &block_o, &limit_o, &name_o, &place_o,
                      &config_o,  &sign_o,  &deep_o,  &mode_o,  nullptr};
  Args arguments;
  std::vector<char*> argv;
};

TEST_F(Options, EndAtOperandsAtTheEndMarkAndBehindStoppers) {
  const struct {
    Args args;
    int result;
    uint32_t wanted;
  } cases[] = {{{"-v", "--count=5", "file"}, 3, 5},
               {{"--count", "5", "file", "-n6"}, 3, 5},
               {{"-n5", "--", "-v"}, 3, 5},
               {{"-n", "5", "--shallow", "-n6", "-x"}, 4, 5},
               {{"", "-x"}, 1, 10},
               {{"-Nx"}, 2, 10},
               {{"-N=x", "-n6", "-n7"}, 4, 7},
               {{"--"}, 2, 10}};
  for (const auto& [args, result, wanted] : cases) {
    EXPECT_EQ(parse(args), result) << args[0];
    EXPECT_EQ(count, wanted);
    EXPECT_EQ(verbose, args[0] == "-v");
    EXPECT_EQ(deep, args.size() < 3 || args[2] != "--shallow");
  }
  EXPECT_EQ(opt_parse(table, 0, nullptr), -1) << "the mandatory option has no value";
  EXPECT_THAT(reports.take_texts(), ElementsAre(HasSubstr("-N, --name=STRING")));
}

TEST_F(Options, RefuseWhatDoesNotFit) {
  const struct {
    Args args;
    const char* why;
  } cases[] = {{{"--count", "-5"}, "option --count requires a NUMBER value"},
               {{"--limit"}, "option --limit requires a BYTES value"},
               {{"--verbose=yes"}, "option --verbose does not accept a value"},
               {{"-vx"}, "option -v does not accept a value"},
               {{"-b", "-v"}, "option -b requires a SIZE value"},
               {{"-x"}, "invalid option -x"},
               {{"-"}, "invalid option -"},
               {{"--coun=5"}, "invalid option --coun=5"},
               {{"--=5"}, "invalid option --=5"},
               {{"-b64KiB"}, "invalid value \"64KiB\" for option -b SIZE"},
               {{"--limit=16EiB"}, "invalid value \"16EiB\" for option --limit=BYTES"},
               {{"-syes please"}, "invalid value \"yes please\" for option -s, --sign=BOOLEAN"},
               {{"--sign=maybe"}, "invalid value \"maybe\" for option -s, --sign=BOOLEAN"}};
  for (const auto& [args, why] : cases)
    EXPECT_THAT(refusal(args), EndsWith(std::string(": ") + why));
  for (const char* value : {"-5", "+5", " 5", "5 ", "", "KiB", "5KiB", "4294967296", "70000000000",
                            "18446744073709551616"})
    EXPECT_THAT(refusal({std::string("--count=") + value}), HasSubstr("invalid value"));
}

TEST_F(Options, EverySourceOverrulesTheOneBefore) {
  std::mt19937 random(7);
  const auto one_of = [&random](uint_fast32_t n) { return random() % n; };
  struct Model {
    const char *key, *short_form, *long_form, *start;  // what an option without a source gives
  };
  const Model models[] = {{"Count", "-n", "--count", "10"},
                          {"Limit", nullptr, "--limit", "1073741824"},
                          {"Name", "-N", "--name", "7"},
                          {"Place", "-p", "--place", "here"}};
  for (int round = 0; round < 200; ++round) {
    std::string text = "[tool]\n";
    const bool by_default = one_of(2) == 0;
    Args args, expected;
    if (!by_default) args = {"--config", path};
    config_o.default_value = by_default ? file : "/nowhere";
    for (const Model& model : models) {
      expected.emplace_back(model.start);
      if (one_of(2) == 0) text += std::string(model.key) + "=\n";  // no value
      if (one_of(2) == 0 || model.start[0] == '7')
        text += std::string(model.key) + "=" + (expected.back() = std::to_string(random())) + "\n";
      for (auto times = one_of(3); times != 0; --times) {
        const std::string value = expected.back() = std::to_string(random());
        const bool is_short = model.short_form != nullptr && one_of(2) == 0;
        const std::string form = is_short ? model.short_form : model.long_form;
        if (one_of(2) == 0)
          args.insert(args.end(), {form, value});
        else
          args.push_back(form + (is_short ? "" : "=") + value);
      }
    }
    given(text);
    ASSERT_EQ(parse(args), static_cast<int>(args.size()) + 1);
    ASSERT_THAT((Args{std::to_string(count), std::to_string(limit), name, place}), expected);
    ASSERT_EQ(config, path);
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Options, FilesStayLoadedUntilTheTableIsFreed) {
  const std::string other = dir / "other.conf";
  write_file(other, "[Tool]\nName=other\n");
  given("[Tool]\nName=first\nSign=TRUE\n");
  EXPECT_EQ(parse({"-c", file, "-c" + other, "--shallow", "-c", "elsewhere"}), 5);
  EXPECT_STREQ(name, "other");
  EXPECT_EQ(parse({"-c", file, "-c", "", "x"}), 5);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(parse({"-c", file}), 3);
  EXPECT_STREQ(name, "first");
  EXPECT_TRUE(sign);
  EXPECT_EQ(opt_parse(table, 3, argv.data()), 3) << "without a release between";
  InifileSaveValueA("Tool", "Name", "changed", file);
  FILE* const nowhere = std::fopen("/dev/null", "w");
  EXPECT_EQ(opt_fprintf_help(nowhere, "prog", 3, argv.data(), table, nullptr), 0);
  EXPECT_EQ(get("Tool", "Name"), "changed") << "help does not load the file anew";
  std::fclose(nowhere);
  opt_free(table);
  EXPECT_EQ(config, nullptr);
  EXPECT_EQ(InifileReleaseA(file), 0);
  EXPECT_EQ(name_o.flags, OPT_MANDATORY);
  EXPECT_THAT(reports.take(), IsEmpty());

  given("[Tool]\nName=" + std::string(5000, 'x') + "\n");
  EXPECT_THAT(refusal({"-c", file}), EndsWith("too long in the configuration file for option -N, "
                                              "--name=STRING"));
}

TEST_F(Options, TablesAreChecked) {
  opt_t bad = verbose_o;
  opt_t* pair[] = {&bad, &verbose_o, nullptr};
  const std::string long_name(1100, 'x');
  const std::pair<const char*, std::function<void(opt_t&)>> faults[] = {
      {"print option name", [](opt_t& o) { o.short_name = 0, o.long_name = nullptr; }},
      {"print option name", [&](opt_t& o) { o.long_name = long_name.c_str(); }},
      {"duplicate option -v", [](opt_t& o) { o.short_name = 'v'; }},
      {"duplicate option --verbose", [](opt_t& o) { o.long_name = "verbose"; }},
      {"invalid option type -1", [](opt_t& o) { o.type = -1; }},
      {"invalid option type 0", [](opt_t& o) { o.type = 0; }},
      {"invalid option type 3", [](opt_t& o) { o.type = 3; }},
      {"invalid option type 1000", [](opt_t& o) { o.type = 1000; }},
      {"cannot be '-'", [](opt_t& o) { o.short_name = '-'; }},
      {"cannot be empty", [](opt_t& o) { o.long_name = ""; }},
      {"pointer to value is NULL", [](opt_t& o) { o.value = nullptr; }},
      {"invalid default value", [](opt_t& o) { o.default_value = "65536"; }},
      {"ini_section without ini_key", [](opt_t& o) { o.ini_key = nullptr; }},
      {"ini_key without ini_section", [](opt_t& o) { o.ini_section = nullptr; }}};
  const opt_t good{0, 'x', "xx", OPT_NUMBER16, "N", "1", "S", "K", 0, &count, 0};
  for (const auto& [why, change] : faults) {
    bad = good;
    change(bad);
    EXPECT_EQ(opt_parse(pair, 1, nullptr), -1);
    const auto texts = reports.take_texts();
    EXPECT_THAT(texts[texts.size() - 2], HasSubstr(why));
  }
  bad = good;
  EXPECT_EQ(opt_parse(pair, 1, nullptr), 1);
}

TEST_F(Options, HelpShowsTheDefaultsThatApply) {
  given("[Tool]\nLimit=5MB\nPlace=a long  way off there\n");
  const std::string words =
      "A first line.\n\n  Then \xc3\xa9\xc3\xa9, and a text that is so long that it has to be "
      "broken, and\t a word, " +
      std::string(70, 'x') + " y.\n";
  count_o.help = words.c_str();
  config_o.default_value = file;
  config_o.flags = OPT_HIDE_DEFAULT;
  const std::string indent(16, ' ');
  const std::string parts[] = {
      "\nUsage: prog -N STRING [options ...] [--] FILE\n",
      "        -n, --count=NUMBER (default: 10 (application default))\n" + indent +
          "A first line.\n" + indent + "\n" + indent +
          "Then \xc3\xa9\xc3\xa9, and a text that is so "
          "long that it has to be broken,\n" +
          indent + "and a word,\n" + indent + std::string(64, 'x') + "\n" + indent +
          "xxxxxx y.\n        -b SIZE\n",
      "--limit=BYTES (default: 5MB (configuration default))\n        -N, --name=STRING (*)\n",
      "(default: \"a long way off there\" (configuration\n        default))\n",
      "--config=FILE (default: (hidden) (application default))\n"};
  // An unbuffered stream that fails after some writes, all but the last time.
  struct Sink {
    long left;
    std::string text;
  } sink;
  std::vector<std::string> begun;
  for (long writes = 0;; ++writes) {
    sink = {writes, ""};
    const cookie_write_function_t* const write = [](void* to, const char* data, size_t size) {
      auto& s = *static_cast<Sink*>(to);
      if (s.left-- > 0) return s.text.append(data, size), static_cast<ssize_t>(size);
      errno = ENOSPC;
      return ssize_t{0};
    };
    FILE* const stream = fopencookie(&sink, "w", {nullptr, write, nullptr, nullptr});
    std::setvbuf(stream, nullptr, _IONBF, 0);
    const int result = opt_fprintf_help(stream, "prog", 0, nullptr, table, "FILE");
    std::fclose(stream);
    if (result == 0) break;
    ASSERT_THAT(reports.take(), ElementsAre(Field(&Report::code, ENOSPC)));
    begun.push_back(sink.text);
  }
  for (const std::string& part : parts) EXPECT_THAT(sink.text, HasSubstr(part));
  for (const std::string& start : begun) EXPECT_TRUE(sink.text.starts_with(start)) << start;
}

TEST_F(Options, CopiesThatFailEndTheRunAndLeakNothing) {
  given("[Tool]\nName=first\n");
  const long copies = fail_each<"strdup", char*(const char*)>(nullptr, ENOMEM, [this] {
    const int result = parse({"-c", file, "-N", "second"});
    EXPECT_THAT(reports.take(), SizeIs(result == 5 ? 0 : 1));
    if (result != 5) return;
    EXPECT_STREQ(name, "second");
  });
  EXPECT_EQ(copies, 4);
}

}  // namespace

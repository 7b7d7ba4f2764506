// The dialect: what becomes of each kind of line, and that a load and save loses nothing of it.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;

class IniParse : public IniFixture {};

TEST_F(IniParse, LoadAndSaveKeepTheTextAndTidyWhiteSpaceAndLineEnds) {
  const struct {
    std::string_view text, tidy = text;
  } rows[] = {
      {""},
      {"# only a comment\n"},
      {"x=1\n"},
      {"# head\n\n; of x\nx=1\n\n[A]\n# of a\na=1\na=2\n# of the third\na=3\nb=\n\n[B]\n# "
       "tail\n\n"},
      {"[ spaced ]\n# c\n\xFF ignored, but under a comment\nno sign either\nk=v\n"},
      {"[]\n=value without a key\n"},
      {"a=1\na=\n# of the last\nA=3\n"},  // definitions keep their own text and spelling
      {"[S]\nlong=\xC3\xA4\xF0\x9F\x98\x80 and \x01 bytes = of all ; kinds # here\n"},
      {"  a \t=  1 2 \v\f\n\t[S] rest\n b=2", "a=1 2\n[S]\nb=2\n"},
      {"[S]\r\n# c\r\na=1\r\n", "[S]\n# c\r\na=1\n"},
      {"[S]\r# c\ra=1\r\rb=2\r# end", "[S]\n# c\r\na=1\n\r\nb=2\n# end\n"},
      {"# c\n   key=1\n", "# c\nkey=1\n"},
      {"[A]\nx=1\n[B]\ny=2\n[a]\nz=3\n", "[A]\nx=1\nz=3\n[B]\ny=2\n"},
      {"# 1\n[A]\n[B]\n# 2\n[A]\nx=1\n", "# 1\n# 2\n[A]\nx=1\n[B]\n"},
      {"[A]\nx=1\n[__dummy__section__]\ny=2\n", "y=2\n[A]\nx=1\n"},
      {"\xEF\xBB\xBFx=1\n\x7F=2\n\x01=3\ny=4\n", "y=4\n"},
  };
  for (const auto& [text, tidy] : rows) {
    given(text);
    EXPECT_EQ(saved(), tidy);
    given(tidy);
    EXPECT_EQ(saved(), tidy);
    EXPECT_EQ(reports.take().empty(), text.find("no sign") == text.npos);
  }
}

TEST_F(IniParse, FindsWhatTheLinesSayAndTheCommentOfWhatFollows) {
  given(
      "x=1\n# of Net\n\n[Net]\n Host = a b ; c \n[ Net ]\nHost=2\nhost==3=\nHOST=\n"
      "# of A\n[A]\n# of x\nx=1\nx=2\n# again\n[a]\ny=1\n");
  EXPECT_THAT(names(), ElementsAre(INIFILE_TOP_SECTION, "Net", " Net ", "A"));
  EXPECT_THAT(names(" net "), ElementsAre("HOST"));
  EXPECT_EQ(get("nET", "hOST"), "a b ; c");
  EXPECT_EQ(get(" Net ", "Host", 0), "=3=");  // taken over from the definition before
  EXPECT_EQ(get(" Net ", "Host", 1), "=3=");
  EXPECT_EQ(comment("Net", nullptr), "# of Net\n\n");
  EXPECT_EQ(comment("Net", "Host"), "(none)");
  EXPECT_EQ(comment("A", nullptr), "# again\n");
  EXPECT_EQ(comment("A", "x"), "# of x\n");
  EXPECT_EQ(comment("A", "y"), "(none)");
}

TEST_F(IniParse, SkipsWrongLinesWithAReport) {
  given("a=1\r\nno sign\r\n\r\n[open\r[S]\n;c\n[]]\nplain");
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "a"), "1");
  EXPECT_THAT(names(), ElementsAre(INIFILE_TOP_SECTION, "S", ""));
  const auto wrong = [this](int line, const char* what) {
    return error(EINVAL, "Syntax error on line " + std::to_string(line) +
                             " while parsing configuration file " + path + ": \"" + what +
                             "\" expected.");
  };
  EXPECT_THAT(reports.take(), ElementsAre(wrong(2, "="), wrong(4, "]"), wrong(8, "=")));
}

TEST_F(IniParse, NulBytesSurviveTheFileAndEndWhatIsHandedOut) {
  using namespace std::string_view_literals;
  constexpr auto kText = "# c\0d\nke\0y=va\0lue\nnext=1\n[s\0t]\n"sv;
  given(kText);
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "ke"), "va");
  EXPECT_EQ(comment(INIFILE_TOP_SECTION, "ke"), "# c");
  EXPECT_THAT(names(), ElementsAre(INIFILE_TOP_SECTION, "s"));
  EXPECT_THAT(names(INIFILE_TOP_SECTION), ElementsAre("ke", "next"));
  EXPECT_EQ(saved(), kText);
}

// A cost that grew faster than the text would take hours for any of these.
TEST_F(IniParse, TakesHugeAndStrangeFilesInLinearTime) {
  constexpr size_t kSize = 6 << 20;
  const auto repeat = [](std::string_view piece) {
    std::string text;
    text.reserve(kSize + piece.size());
    while (text.size() < kSize) text += piece;
    return text;
  };
  std::string many_keys, many_sections;
  for (int i = 0; many_keys.size() < kSize; ++i) many_keys += "k" + std::to_string(i) + "=v\n";
  for (int i = 0; many_sections.size() < kSize; ++i)
    many_sections += "[" + std::to_string(i) + "]\n";
  const std::string kTexts[] = {std::string(kSize, '\0'),
                                std::string(kSize, '\r'),
                                std::string(kSize, '\n'),
                                repeat("\n\r"),
                                std::string(kSize, ' '),
                                "k=" + std::string(kSize, 'x'),
                                repeat("#c\ra=\r"),
                                repeat("#c\r[S]\r"),
                                "#" + repeat("c") + "\r" + repeat("a=\n"),
                                repeat("\xFF"),
                                "[" + std::string(kSize, '['),
                                many_keys,
                                many_sections};
  ReportCapture quiet(0);
  for (const std::string& text : kTexts) {
    given(text);
    ASSERT_EQ(InifileLoadA(file), 0);
    const std::string once = saved();
    given(once);
    EXPECT_EQ(saved(), once);
  }
}

// Names keep to one case and lines to column one, where the two dialects agree.
TEST_F(IniParse, AgreesWithPythonsConfigparser) {
  if (std::system("python3 -c 'import configparser' 2>/dev/null") != 0)
    GTEST_SKIP() << "no python3 with configparser";
  std::mt19937 random(20);
  const auto pick = [&](auto... choices) {
    const char* const all[] = {choices...};
    return std::string(all[random() % sizeof...(choices)]);
  };
  std::string text;
  for (int section = 0; section < 200; ++section) {
    // Sections are opened again now and then, with keys that are new or defined again.
    text += pick("", "# c\n", "; c = 1\n\n") + "[s" + std::to_string(random() % 120) + "]" +
            pick("\n", " \n", "\r\n");
    for (auto n = random() % 12; n != 0; --n)
      text += "k" + std::to_string(random() % 30) + pick("=", " = ", "\t=") +
              pick("1", "a b", "a ; b", "x=y", "# no comment", "\xC3\xA4", "[v]") +
              pick("\n", "  \n", "\r\n", "\n\n# c\n");
  }
  given(text);
  const std::string script = dir / "read.py";
  write_file(script,
             "import configparser, sys\n"
             "p = configparser.ConfigParser(strict=False, interpolation=None, delimiters=('=',),\n"
             "    empty_lines_in_values=False, default_section='no such section')\n"
             "p.read_file(open(sys.argv[1], encoding='utf-8', newline=None))\n"
             "with open(sys.argv[2], 'w', encoding='utf-8') as out:\n"
             "    for s in p.sections():\n"
             "        out.write('[' + s + ']\\n')\n"
             "        for k, v in p.items(s): out.write(k + '=' + v + '\\n')\n");
  const std::string theirs = dir / "theirs";
  ASSERT_EQ(std::system(("python3 " + script + " " + path + " " + theirs).c_str()), 0);
  std::string ours;
  for (const std::string& section : names()) {
    if (section == INIFILE_TOP_SECTION) continue;
    ours += "[" + section + "]\n";
    for (const std::string& key : names(section.c_str()))
      ours += key + "=" + get(section.c_str(), key.c_str()) + "\n";
  }
  EXPECT_EQ(ours, read_file(theirs));
}

}  // namespace

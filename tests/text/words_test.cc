#include <kel/text.h>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

/// Reads a text whose '|' marks where reading has to stop, in both widths.
void check_bool(std::string marked, int expected) {
  const size_t read = marked.find('|');
  const std::string text = marked.erase(read, 1);
  const std::wstring wide(text.begin(), text.end());
  char* end;
  wchar_t* wide_end;
  EXPECT_EQ(strtobool(text.c_str(), &end), expected) << text;
  EXPECT_EQ(end, text.c_str() + read) << text;
  EXPECT_EQ(wcstobool(wide.c_str(), &wide_end), expected);
  EXPECT_EQ(wide_end, wide.c_str() + read);
}

TEST(Words, BooleansMatchByTheStartOfTheText) {
  ReportCapture reports;
  for (const char* yes : {"YES|", "yes|terday", "y|", "y|eah", "1|", "True|", "t|ru", "1|0"})
    check_bool(yes, 1);
  for (const char* no : {"No|", "no|pe", "n|", "0|", "False|", "f|a"}) check_bool(no, 0);
  EXPECT_THAT(reports.take(), IsEmpty());
  errno = 0;
  check_bool("|2", 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(reports.take().size(), 2u);
  expect_refused(reports, EINVAL, {[] { return strtobool(nullptr, nullptr) == 0; }});
}

TEST(Words, TimesOfDayAreReadOrRefusedByTheirPart) {
  ReportCapture reports;
  const struct {
    int seconds;
    const char* rest;
    std::vector<const char*> texts;
  } rows[] = {{25500, "", {"7:05", "07:05:00"}},
              {86399, "", {"23:59:59"}},
              {0, "", {"0:00"}},
              {43209, "", {"00012:0:9"}},
              {3723, ":4", {"1:2:3:4"}},
              {0, nullptr, {"", " 7:05", "-1:00", "24:00", "12", "1 :00", "12:", "12:+1"}},
              {0, nullptr, {"12:60", "12:99999999999999999999", "12:00:", "12:00:60"}}};
  for (const auto& row : rows) {
    for (const char* text : row.texts) {
      SCOPED_TRACE(text);
      char* end;
      errno = EIO;
      EXPECT_EQ(strtotimeofday(text, &end), row.seconds);
      EXPECT_STREQ(end, row.rest != nullptr ? row.rest : text);
      EXPECT_EQ(errno, row.rest != nullptr ? 0 : ERANGE);
      EXPECT_EQ(reports.take().size(), row.rest != nullptr ? 0u : 1u);
    }
  }
  EXPECT_EQ(strtotimeofday("99999999999999999999:00", nullptr),
            0);  // no number to speak of
  EXPECT_EQ(errno, ERANGE);
  expect_refused(reports, EINVAL, {[] { return strtotimeofday(nullptr, nullptr) == 0; }});
}

TEST(Words, PercentagesHaveANumberAndOneSign) {
  ReportCapture reports;
  double value = -1;
  for (const char* text : {"12.5%", "12.5 %", " 12.5% ", "1.25e1\t%\n"}) {
    value = -1;
    EXPECT_EQ(strpercentotvalue(text, &value), 1) << text;
    EXPECT_EQ(value, 12.5);
  }
  value = -1;
  for (const char* text : {"12.5", "12.5%%", "12.5%x", "12.5x%", "%", "", "% 5", "1e-999%", "5 "})
    EXPECT_EQ(strpercentotvalue(text, &value), 0) << text;
  EXPECT_EQ(value, -1);
  EXPECT_EQ(strpercentotvalue("5%", nullptr), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Words, TextIsStrippedCutIntoTokensAndReplacedInPlace) {
  char text[] = " two  words\n\tand\v\f\r\xA0more ";
  char stripped[sizeof text];
  std::copy(text, text + sizeof text, stripped);
  EXPECT_STREQ(strstrip(stripped), "twowordsand\xA0more");

  std::vector<std::string> tokens;
  char* cursor = text;
  while (const char* token = StringGetNextTokenA(&cursor)) tokens.emplace_back(token);
  EXPECT_THAT(tokens, ElementsAre("two", "words", "and", "\xA0more"));
  EXPECT_EQ(*cursor, '\0');
  char last[] = "last";
  cursor = last;
  EXPECT_STREQ(StringGetNextTokenA(&cursor), "last");
  EXPECT_EQ(cursor, last + 4);
  EXPECT_EQ(StringGetNextTokenA(&cursor), nullptr);

  char path[] = "a/b//c";
  EXPECT_EQ(strrepl(path, '/', '\\'), 3);
  EXPECT_STREQ(path, "a\\b\\\\c");
  EXPECT_EQ(strrepl(path, '\\', 0), 3);
  EXPECT_EQ(std::string(path, 6), std::string("a\0b\0\0c", 6));
  EXPECT_EQ(strrepl(nullptr, 'a', 'b'), 0);
}

}  // namespace

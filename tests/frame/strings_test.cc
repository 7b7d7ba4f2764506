#include <kel/strings.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>

#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;
using kel::testing::warning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Strings, CopyReportsWhatDidNotFitAndKeepsTheTerminatedPrefix) {
  ReportCapture reports;
  char buf[8];
  EXPECT_EQ(kelstrcpy(buf, "abc", 4), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_THAT(reports.take(), IsEmpty());

  errno = 0;
  EXPECT_EQ(kelstrcpy(buf, "abcd", 4), nullptr);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take(),
              ElementsAre(warning(105, "kelstrcpy: insufficient buffer, src:abcd, dst size=4")));

  EXPECT_EQ(kelstrcpy(buf, "", 1), buf);
  EXPECT_EQ(kelstrcpy(buf, "a", 1), nullptr);
  EXPECT_STREQ(buf, "");
  reports.take();

  EXPECT_EQ(kelstrncpy(buf, "abcdef", 4, 2), buf);
  EXPECT_STREQ(buf, "ab");
  EXPECT_EQ(kelstrncpy(buf, "abcdef", 4, 3), buf);
  EXPECT_EQ(kelstrncpy(buf, "abcdef", 4, 0), buf);
  EXPECT_STREQ(buf, "");
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(kelstrncpy(buf, "abcdef", 4, 5), nullptr);
  EXPECT_STREQ(buf, "abc");
  EXPECT_THAT(reports.take(), ElementsAre(error(105, "kelstrncpy: insufficient buffer")));
}

TEST(Strings, SizedCopiesReturnTheSizeThatIsNeeded) {
  ReportCapture reports;
  char buf[16];
  EXPECT_EQ(kelstrlcpy(buf, "abc", 4), 4u);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(kelstrlcpy(buf, "abcdef", 4), 7u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(kelstrlcpy(nullptr, "abcdef", 4), 7u);
  EXPECT_EQ(kelstrlcpy(buf, "abcdef", 0), 7u);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(105, "kelstrlcpy: insufficient buffer"),
                          error(105, "kelstrlcpy: invalid NULL or zero-length destination"),
                          error(105, "kelstrlcpy: invalid NULL or zero-length destination")));

  EXPECT_EQ(kelstrlncpy(buf, "abcdef", 10, 3), 4u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(kelstrlncpy(buf, "abcdef", 3, 5), 6u);
  EXPECT_STREQ(buf, "ab");
  EXPECT_EQ(kelstrlncpy(nullptr, "abcdef", 3, 0), 1u);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(105, "kelstrlncpy: insufficient buffer"),
                          error(105, "kelstrlncpy: invalid NULL or zero-length destination")));
}

TEST(Strings, JoinsReportUnderTheNameOfTheStepThatFailed) {
  ReportCapture reports;
  char buf[8] = "abc";
  EXPECT_EQ(kelstrcat(buf, "de", sizeof buf), buf + 3);
  EXPECT_STREQ(buf, "abcde");
  std::strcpy(buf, "abc");
  EXPECT_EQ(kelstrcat(buf, "defgh", sizeof buf), nullptr);
  EXPECT_STREQ(buf, "abcdefg");
  EXPECT_THAT(reports.take(),
              ElementsAre(warning(105, "kelstrcpy: insufficient buffer, src:defgh, dst size=5")));

  std::strcpy(buf, "abc");
  EXPECT_EQ(kelstrncat(buf, "defgh", sizeof buf, 2), buf + 3);
  EXPECT_STREQ(buf, "abcde");
  EXPECT_EQ(kelstrncat(buf, "fghij", sizeof buf, 4), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(error(105, "kelstrncpy: insufficient buffer")));

  char full[4] = {'a', 'b', 'c', 'd'};
  errno = 0;
  EXPECT_EQ(kelstrcat(full, "x", 4), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(full, "abc");
  EXPECT_EQ(kelstrncat(nullptr, "x", 4, 1), nullptr);
  wchar_t wide[2] = {L'a', L'b'};
  EXPECT_EQ(kelwcscat(wide, L"x", 2), nullptr);
  EXPECT_EQ(kelwcsncat(wide, L"x", 0, 1), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(error(22, "kelstrcat: destination too small"),
                                          error(22, "kelstrncat: destination too small"),
                                          error(22, "kelwcscat: destination too small"),
                                          error(22, "kelwcsncat: destination too small")));
}

TEST(Strings, NullSourcesFollowEachMembersOwnRule) {
  ReportCapture reports;
  struct Row {
    const char* reported;  // name in the message, or null when there is none
    bool (*call)(bool* terminated);
  };
  const Row rows[] = {
      {"kelstrcpy",
       [](bool* t) {
         char b[4] = "xyz";
         bool r = !kelstrcpy(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {"kelstrncpy",
       [](bool* t) {
         char b[4] = "xyz";
         bool r = !kelstrncpy(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
      {"kelstrlcpy",
       [](bool* t) {
         char b[4] = "xyz";
         bool r = !kelstrlcpy(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {nullptr,
       [](bool* t) {
         char b[4] = "xyz";
         bool r = !kelstrlncpy(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
      {"kelstrcpy",
       [](bool* t) {
         char b[4] = "";
         bool r = !kelstrcat(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {"kelstrncpy",
       [](bool* t) {
         char b[4] = "";
         bool r = !kelstrncat(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
      {nullptr,
       [](bool* t) {
         wchar_t b[4] = L"x";
         bool r = !kelwcscpy(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {"kelwcsncpy",
       [](bool* t) {
         wchar_t b[4] = L"x";
         bool r = !kelwcsncpy(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
      {"kelwcslcpy",
       [](bool* t) {
         wchar_t b[4] = L"x";
         bool r = !kelwcslcpy(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {"kelwcslncpy",
       [](bool* t) {
         wchar_t b[4] = L"x";
         bool r = !kelwcslncpy(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
      {nullptr,
       [](bool* t) {
         wchar_t b[4] = L"";
         bool r = !kelwcscat(b, nullptr, 4);
         *t = !b[0];
         return r;
       }},
      {"kelwcsncpy",
       [](bool* t) {
         wchar_t b[4] = L"";
         bool r = !kelwcsncat(b, nullptr, 4, 2);
         *t = !b[0];
         return r;
       }},
  };
  for (const Row& row : rows) {
    errno = 0;
    bool terminated = false;
    EXPECT_TRUE(row.call(&terminated));
    EXPECT_TRUE(terminated);
    EXPECT_EQ(errno, EINVAL);
    const auto taken = reports.take();
    if (row.reported == nullptr)
      EXPECT_THAT(taken, IsEmpty());
    else
      EXPECT_THAT(taken, ElementsAre(error(
                             22, std::string(row.reported) + ": invalid NULL src parameter")));
  }
}

TEST(Strings, WideCutsAreErrorsWithoutTheText) {
  ReportCapture reports;
  wchar_t buf[4];
  EXPECT_EQ(kelwcscpy(buf, L"abcd", 4), nullptr);
  EXPECT_EQ(std::wstring(buf), L"abc");
  EXPECT_EQ(kelwcsncpy(buf, L"abcdef", 4, 3), buf);
  EXPECT_EQ(kelwcslcpy(buf, L"abcdef", 4), 7u);
  EXPECT_EQ(kelwcslncpy(buf, L"abcdef", 4, 5), 6u);
  EXPECT_THAT(reports.take(), ElementsAre(error(105, "kelwcscpy: insufficient buffer"),
                                          error(105, "kelwcslcpy: insufficient buffer"),
                                          error(105, "kelwcslncpy: insufficient buffer")));
}

// The family against a plain model of what a bounded copy is, over random sizes and texts.
TEST(Strings, AgreesWithAModelAndStaysInsideTheBuffer) {
  ReportCapture reports(KEL_LOG_NONE);
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    const std::string src(random() % 12, static_cast<char>('a' + random() % 26));
    const size_t capacity = 1 + random() % 10;
    const size_t n = random() % 14;
    std::string area(16, '#');
    const std::string wanted = src.substr(0, n);
    const bool fits = wanted.size() < capacity;
    EXPECT_EQ(kelstrncpy(area.data(), src.c_str(), capacity, n), fits ? area.data() : nullptr);
    const std::string kept = wanted.substr(0, capacity - 1);
    ASSERT_STREQ(area.c_str(), kept.c_str());
    ASSERT_EQ(area.substr(kept.size() + 1), std::string(15 - kept.size(), '#'));
    ASSERT_EQ(kelstrlncpy(area.data(), src.c_str(), capacity, n), std::min(src.size(), n) + 1);
  }
}

TEST(Strings, LengthAndSearchAnswerForMissingTerminatorsAndNulls) {
  errno = 0;
  EXPECT_EQ(kelstrlen("abc", 10), 3u);
  EXPECT_EQ(kelwcslen(L"abc", 4), 3u);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(kelstrlen("abc", 2), 2u);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(kelwcslen(nullptr, 7), 7u);
  EXPECT_EQ(errno, EINVAL);

  const char* text = "path;rest";
  EXPECT_EQ(kelstrpbrk(text, ":;"), text + 4);
  EXPECT_EQ(kelstrpbrk(text, "#"), nullptr);
  EXPECT_EQ(kelstrpbrk("", "a"), nullptr);
  EXPECT_EQ(kelstrpbrk(nullptr, "a"), nullptr);
  EXPECT_EQ(kelstrpbrk(text, nullptr), nullptr);
}

TEST(Strings, SanitizeHidesEveryPasswordValue) {
  const std::pair<const char*, const char*> rows[] = {
      {"user=joe password=secret;port=7", "user=joe password=*;port=7"},
      {"Passwd  abc def", "Passwd  * def"},
      {"nothing here: passwor", "nothing here: passwor"},
      {"password=", "password="},
      {"password = ", "password = "},
      {"PASSWORD=;x", "PASSWORD=;x"},
      {"password=x", "password=*"},
      {"passwd=a;password=bb;passwd=ccc", "passwd=*;password=*;passwd=*"},
      {"passwd=password=x y", "passwd=* y"},
      {"passwd=;passwd=tail", "passwd=;passwd=*"},
  };
  for (const auto& [before, after] : rows) {
    std::string text = before;
    kelstrsanitize(text.data(), " ;");
    EXPECT_STREQ(text.c_str(), after);
  }
}

}  // namespace

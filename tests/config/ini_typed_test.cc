#include <sys/stat.h>

#include <climits>
#include <clocale>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;

class IniTyped : public IniFixture {
 protected:
  template <class T>
  struct Read {
    int result;
    T value;
    friend bool operator==(const Read&, const Read&) = default;
  };

  /// Reads `text` as a value by way of `getter`, with the default 7 and a stale error around.
  template <class T>
  Read<T> read(int (*getter)(const char*, const char*, T*, T, const char*), const char* text) {
    EXPECT_EQ(InifileSaveValueA("S", "k", text, file), 1);
    errno = ERANGE;
    T value = 99;
    const int result = getter("S", "k", &value, 7, file);
    return {result, value};
  }
};

TEST_F(IniTyped, NumbersFollowTheProtocolOfResults) {
  EXPECT_EQ(read(InifileGetIntegerA, "-12"), (Read<int>{4, -12}));
  EXPECT_EQ(read(InifileGetIntegerA, ""), (Read<int>{-2, 7}));
  EXPECT_EQ(get("S", "k"), "7");
  EXPECT_EQ(read(InifileGetIntegerA, "12abc"), (Read<int>{0, 12}));
  EXPECT_EQ(read(InifileGetIntegerA, "abc"), (Read<int>{0, 0}));
  EXPECT_EQ(read(InifileGetIntegerA, "99999999999999999999"), (Read<int>{0, -1}));
  EXPECT_EQ(read(InifileGetShortA, "65537"), (Read<short>{6, 1}));
  EXPECT_EQ(read(InifileGetLongLongA, "12abc"), (Read<long>{-1, 12}));
  EXPECT_EQ(read(InifileGetLongLongA, "9223372036854775808"), (Read<long>{-1, LONG_MAX}));
  EXPECT_EQ(read(InifileGetSizeA, "10MiB"), (Read<unsigned long>{6, 10 << 20}));
  EXPECT_EQ(read(InifileGetSizeA, "2kb"), (Read<unsigned long>{4, 2000}));
  EXPECT_EQ(read(InifileGetSizeA, "2kbx"), (Read<unsigned long>{-1, 2000}));
  EXPECT_THAT(reports.take(), ::testing::SizeIs(1));  // of the file, which was not there

  for (const char* yes : {"yes", "True", "1", "y", "tolerable"})
    EXPECT_EQ(read(InifileGetBooleanA, yes).value, 1) << yes;
  for (const char* no : {"no", "0", "on", "false", "2"})
    EXPECT_EQ(read(InifileGetBooleanA, no).value, 0) << no;
  EXPECT_EQ(read(InifileGetBooleanA, ""), (Read<int>{-2, 0}));  // of a default that is neither
}

TEST_F(IniTyped, FloatsAndPercentagesHaveOneFormInEveryLocale) {
  float number = 0;
  double percent = 0;
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (std::setlocale(LC_ALL, locale) == nullptr) continue;
    EXPECT_EQ(InifileGetFloatA("F", locale, &number, file, 0.5f), -35);
    EXPECT_EQ(get("F", locale), "0.50000000000000000000000000000000");
    EXPECT_EQ(InifileSaveFloatA("F", locale, 0.1f, file), 1);
    EXPECT_EQ(get("F", locale), "0.100000001490116119384765625000000000000000000000");
    EXPECT_GT(InifileGetFloatA("F", locale, &number, file, 0), 0);
    EXPECT_EQ(number, 0.1f);
    EXPECT_EQ(InifileGetPercentageA("P", locale, &percent, file, 12.5), -6);
    EXPECT_EQ(get("P", locale), "12.5%");
    EXPECT_EQ(percent, 12.5);
  }
  std::setlocale(LC_ALL, "C");
  InifileSaveValueA("F", "k", "text", file);
  EXPECT_EQ(InifileGetFloatA("F", "k", &number, file, 1), 5);
  EXPECT_EQ(number, 0);
  for (const auto& [text, result, value] : {std::tuple{"50 %", 5, 50.},
                                            {"-.5e1\t% ", 9, -5.},
                                            {"50", -1, -1.},
                                            {"50%%", -1, -1.},
                                            {"50%x", -1, -1.},
                                            {"%50", -1, -1.},
                                            {"inf%", -1, -1.},
                                            {"1e-999%", -1, -1.}}) {
    percent = -1;
    InifileSaveValueA("S", "k", text, file);
    EXPECT_EQ(InifileGetPercentageA("S", "k", &percent, file, 1), result) << text;
    EXPECT_EQ(percent, value);
  }
}

TEST_F(IniTyped, NumbersAreStoredAsTextThatReadsBack) {
  const auto check = [&](auto save, auto getter, auto value, const std::string& text) {
    EXPECT_EQ(save("S", "k", value, file), 1);
    EXPECT_EQ(get("S", "k"), text);
    EXPECT_EQ(read(getter, text.c_str()), (Read<decltype(value)>{int(text.size()) + 1, value}));
  };
  check(InifileSaveIntegerA, InifileGetIntegerA, INT_MIN, "-2147483648");
  check(InifileSaveUIntegerA, InifileGetUIntegerA, UINT_MAX, "-1");
  check(InifileSaveShortA, InifileGetShortA, short{-5}, "-5");
  check(InifileSaveUShortA, InifileGetUShortA, static_cast<unsigned short>(65535), "65535");
  check(InifileSaveLongLongA, InifileGetLongLongA, LONG_MIN, "-9223372036854775808");
  check(InifileSaveULongLongA, InifileGetULongLongA, ULONG_MAX, "18446744073709551615");
  for (const auto& [size, text] :
       {std::pair{1048576UL, "1MiB"}, {2000000UL, "2MB"}, {1500UL, "1500"}, {0UL, "0"}})
    check(InifileSaveSizeA, InifileGetSizeA, size, text);
  EXPECT_EQ(InifileSaveBooleanA("S", "k", 1, file), 1);
  EXPECT_EQ(get("S", "k"), "1");
  EXPECT_EQ(InifileSaveIntegerA("", "k", 1, file), -1);
}

TEST_F(IniTyped, PathsTurnBackslashesUnlessTheyHaveSlashes) {
  char buf[32];
  EXPECT_EQ(InifileGetPathA("S", "a", buf, 32, R"(c:\dir\x)", file), -9);
  EXPECT_STREQ(buf, "c:/dir/x");
  EXPECT_EQ(InifileGetPathA("S", "b", buf, 32, R"(/srv/a\b)", file), -9);
  EXPECT_STREQ(buf, R"(/srv/a\b)");
}

TEST_F(IniTyped, NullPointersAreRefused) {
  expect_refused(reports, EINVAL,
                 {[&] { return InifileGetUShortA("S", "k", nullptr, 0, file) == -1; },
                  [&] { return InifileGetFloatA("S", "k", nullptr, file, 0) == -1; },
                  [&] { return InifileGetPathA("S", "k", nullptr, 8, "", file) == -1; },
                  [&] { return InifileGetBooleanA("S", "k", nullptr, 0, file) == 0; }});
}

TEST_F(IniTyped, WrongSettingsAreReportedInOneLayout) {
  const auto block = [](const std::string& value, const std::string& reason) {
    return "\nBadValue : " + value +
           "\nFile     : /x\nSection  : Net\nEntry    : Port\nReason   : " + reason;
  };
  InifileErrorA("/x", "Net", "Port", "7o", "%s %d", "reason", 1);
  InifileWarningA("/x", "Net", "Port", nullptr, "none");
  InifileNoticeA("/x", "Net", "Port", "", "empty");
  InifileValueErrorA("/x", "Net", "Port", 70000, "%s", "out of range");
  InifileValueWarningA("/x", "Net", "Port", LONG_MIN, "low");
  InifileValueNoticeA("/x", "Net", "Port", 0, "%s", std::string(2000, 'r').c_str());
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(EINVAL, block("7o", "reason 1")), warning(ENOENT, block("(none)", "none")),
                  Report{KEL_LOG_NOTICE, EINVAL, block("", "empty")},
                  error(EINVAL, block("70000", "out of range")),
                  warning(EINVAL, block("-9223372036854775808", "low")),
                  Report{KEL_LOG_NOTICE, EINVAL, block("0", std::string(1023, 'r'))}));
}

TEST_F(IniTyped, PathSettingsAreChecked) {
  given("");
  ASSERT_EQ(::chmod(file, 0640), 0);
  const auto check = [&](std::string value, unsigned mode, int strip = 1) {
    const int problems = InifileCheckPathStripA("f", "Net", "Port", value.data(), mode, strip);
    return std::pair(problems, std::string(value.c_str()));
  };
  const std::string home = dir.path().string();
  EXPECT_EQ(check(home + "/", S_IFDIR), std::pair(0, home));
  EXPECT_EQ(check(home + "/", S_IFDIR, 0), std::pair(0, home + "/"));
  EXPECT_EQ(check("/", S_IFDIR).first, 0);
  EXPECT_EQ(check(path, S_IFREG | 0640).first, 0);
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(check(path, S_IFDIR).first, 1);
  EXPECT_EQ(check(path, S_IFSOCK | 0600).first, 2);
  EXPECT_EQ(check(path + "x", 0).first, 1);
  EXPECT_EQ(check("", 0).first, 1);
  EXPECT_EQ(InifileCheckPathA("f", "Net", "Port", nullptr, 0), 1);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre(EndsWith("not a directory (file)"), EndsWith("not a socket (file)"),
                  EndsWith("Expected: 0600, actual: 0640"), EndsWith("No such file or directory"),
                  EndsWith("non-empty value."), EndsWith("non-empty value.")));
  EXPECT_STREQ(DeviceModeToStringA(0xF000), "unknown file type");
  EXPECT_EQ(std::wstring(DeviceModeToStringW(S_IFBLK)), L"block device");
}

}  // namespace

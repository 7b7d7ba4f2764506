#include <kel/text.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"
#include "text/peer.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::wstring widen(const std::string& s) { return {s.begin(), s.end()}; }

/// The text of `value`, which has to come out the same in both widths.
std::string exact(uint64_t value) {
  char buf[KEL_SIZE_TEXT];
  wchar_t wide[KEL_SIZE_TEXT];
  const std::string text = sizetostr(buf, sizeof buf, value);
  EXPECT_EQ(buf[KEL_SIZE_TEXT - 1], '\0');
  EXPECT_EQ(sizetowcs(wide, KEL_SIZE_TEXT, value), widen(text));
  return text;
}

std::string rounded(uint64_t value, int precision, size_t n = 200) {
  char buf[200];
  wchar_t wide[200];
  EXPECT_EQ(sizetofloatstr(buf, n, value, precision), buf);
  EXPECT_EQ(sizetofloatwcs(wide, n, value, precision), wide);
  EXPECT_EQ(wide, widen(buf));
  return buf;
}

/// Reads a text whose '|' marks where reading has to stop, in both widths.
uint64_t read(std::string marked) {
  const size_t stop = marked.find('|');
  const std::string text = marked.erase(stop, 1);
  const std::wstring wide = widen(text);
  char* end;
  wchar_t* wide_end;
  const uint64_t value = strtosize(text.c_str(), &end);
  EXPECT_EQ(end, text.c_str() + stop) << text;
  const int code = errno;
  EXPECT_EQ(wcstosize(wide.c_str(), &wide_end), value);
  EXPECT_EQ(wide_end, wide.c_str() + stop);
  EXPECT_EQ(errno, code);
  return value;
}

TEST(Sizes, ExactTextsChooseTheLargestUnitThatDivides) {
  EXPECT_EQ(exact(0), "0");
  EXPECT_EQ(exact(5000), "5KB");
  EXPECT_EQ(exact(2048), "2KiB");
  EXPECT_EQ(exact(1024000), "1000KiB");  // once each way
  EXPECT_EQ(exact(1536), "1536");
  EXPECT_EQ(exact(3000000000), "3GB");
  EXPECT_EQ(exact(1ULL << 63), "8EiB");
  EXPECT_EQ(exact(18000000000000000000ULL), "18EB");
  EXPECT_EQ(exact(UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(exact(UINT64_MAX - 1023), "18014398509481983KiB");
}

TEST(Sizes, ExactTextsKeepToTheirBuffer) {
  ReportCapture reports;
  char buf[8] = "#######";
  EXPECT_STREQ(sizetostr(buf + 1, 5, 2048), "2KiB");
  EXPECT_EQ(buf[0], '#');
  errno = 0;
  EXPECT_EQ(sizetostr(buf + 1, 4, 2048), nullptr);  // the unit alone fits
  EXPECT_EQ(sizetostr(buf + 1, 3, 12345), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(buf[0], '#');
  EXPECT_THAT(reports.take(), IsEmpty());

  wchar_t wide[4];
  errno = 0;
  EXPECT_EQ(sizetostr(buf, 3, 2048), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(sizetowcs(wide, 3, 2048), nullptr);
  EXPECT_EQ(sizetostr(nullptr, 3, 1), nullptr);
  EXPECT_EQ(sizetowcs(wide, 0, 1), nullptr);
  EXPECT_EQ(sizetofloatstr(buf, 3, 1, -1), nullptr);
  EXPECT_EQ(sizetofloatwcs(nullptr, 3, 1, 0), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOBUFS, "sizetostr: buffer too short"),
                                          error(ENOBUFS, "sizetowcs: buffer too short"),
                                          error(EINVAL, "sizetostr: invalid NULL parameter"),
                                          error(EINVAL, "sizetowcs: invalid NULL parameter"),
                                          error(EINVAL, "sizetofloatstr: invalid NULL parameter"),
                                          error(EINVAL, "sizetofloatwcs: invalid NULL parameter")));
}

TEST(Sizes, RoundedTextsAreForPeopleAndCutToFit) {
  EXPECT_EQ(rounded(0, 2), "0 bytes");
  EXPECT_EQ(rounded(1024, 2), "1024 bytes");
  EXPECT_EQ(rounded(1025, 0), "1 KiB");
  EXPECT_EQ(rounded(2048, 2), "2 KiB");
  EXPECT_EQ(rounded(1536, 2), "1.50 KiB");
  EXPECT_EQ(rounded(1 << 20, 2), "1024 KiB");
  EXPECT_EQ(rounded(UINT64_MAX, 1), "16.0 EiB");
  EXPECT_EQ(rounded(1536, 2, 5), "1.50");
  EXPECT_EQ(rounded(1536, 2, 1), "");
  EXPECT_EQ(rounded(1536, 100), "1.5" + std::string(99, '0') + " KiB");
  EXPECT_EQ(rounded(1536, 1000, 20), "1.50000000000000000");

  const kel::testing::ReportCapture reports;
  const kel::testing::Fault<"malloc", void*(size_t)> fault(1, nullptr, ENOMEM);
  wchar_t wide[20];
  EXPECT_EQ(sizetofloatwcs(wide, 20, 1536, 1000), nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(Sizes, NumbersAreReadWithTheUnitThatFollows) {
  ReportCapture reports;
  const std::pair<uint64_t, std::vector<const char*>> rows[] = {
      {0, {"|", "|none", "b|"}},          {1, {"1|.5k", "1B|"}},
      {4, {"4|", "4b|", "4| k", "4|x"}},  {10000, {"10k|", "10kb|", " +10K|,", "10kb|b", "10k|k"}},
      {10240, {"10KiB|", "10ki|"}},       {7'000'000, {"7M|"}},
      {1ULL << 60, {"1Ei|", "1024PiB|"}}, {UINT64_MAX, {"18446744073709551615|", "-1|"}}};
  for (const auto& [value, texts] : rows) {
    for (const char* text : texts) {
      EXPECT_EQ(read(text), value) << text;
      EXPECT_EQ(errno, 0);
    }
  }
  EXPECT_EQ(read("18446744073709551616|k"), UINT64_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(read("16EiB|."), UINT64_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_THAT(reports.take(), ElementsAre(error(ERANGE, "strtosize: number above positive range"),
                                          error(ERANGE, "wcstosize: number above positive range")));

  char* end;
  wchar_t* wide_end;
  EXPECT_EQ(strtosizemult("x", &end), 1u);
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(strtosizemult("Bx", &end), 1u);
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(wcstosizemult(L"pIbx", &wide_end), 1ULL << 50);
  EXPECT_STREQ(wide_end, L"x");
  EXPECT_EQ(strtosizemult(nullptr, nullptr), 1u);
  EXPECT_EQ(wcstosize(nullptr, nullptr), 0u);
  EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, "strtosizemult: invalid NULL parameter"),
                                          error(EINVAL, "wcstosize: invalid NULL parameter")));
}

TEST(Sizes, TextsGoThereAndBackAndAgreeWithNumfmt) {
  std::mt19937_64 random(7);
  std::string texts;
  std::ostringstream values;
  for (int i = 0; i < 3000; ++i) {
    uint64_t value = random() >> random() % 64;
    for (uint64_t exponent = random() % 7, base = random() % 2 == 0 ? 1000 : 1024; exponent != 0;
         --exponent)
      if (value <= UINT64_MAX / base) value *= base;
    const std::string text = exact(value);
    EXPECT_EQ(read(text + '|'), value);
    // numfmt has the same units without the "B", and prints up to 18 digits.
    if (value >= 1'000'000'000'000'000'000) continue;
    texts += text.substr(0, text.find('B')) + "\n";
    values << value << '\n';
  }
  if (std::system("command -v numfmt >/dev/null") != 0) GTEST_SKIP() << "no numfmt";
  EXPECT_TRUE(kel::testing::filtered("LC_ALL=C numfmt --from=auto", texts) == values.str());
}

}  // namespace

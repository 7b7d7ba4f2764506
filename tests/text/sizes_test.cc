#include <kel/text.h>

#include <sstream>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

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

TEST(Sizes, ExactTextsChooseTheLargestUnitThatDividesAndKeepToTheirBuffer) {
  ReportCapture reports;
  const std::pair<uint64_t, const char*> rows[] = {{0, "0"},
                                                   {5000, "5KB"},
                                                   {2048, "2KiB"},
                                                   {1024000, "1000KiB"},  // once each way
                                                   {1536, "1536"},
                                                   {3000000000, "3GB"},
                                                   {1ULL << 63, "8EiB"},
                                                   {18000000000000000000ULL, "18EB"},
                                                   {UINT64_MAX, "18446744073709551615"},
                                                   {UINT64_MAX - 1023, "18014398509481983KiB"}};
  for (const auto& [value, text] : rows) EXPECT_EQ(exact(value), text);

  char buf[8] = "#######";
  EXPECT_STREQ(sizetostr(buf + 1, 5, 2048), "2KiB");
  errno = 0;
  EXPECT_EQ(sizetostr(buf + 1, 4, 2048), nullptr);  // the unit alone fits
  EXPECT_EQ(sizetostr(buf + 1, 3, 12345), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(buf[0], '#');
  EXPECT_THAT(reports.take(), IsEmpty());

  wchar_t wide[4];
  char* none = nullptr;
  expect_refused(
      reports, ENOBUFS,
      {[&] { return !sizetostr(buf, 3, 2048); }, [&] { return !sizetowcs(wide, 3, 2048); }});
  expect_refused(reports, EINVAL,
                 {[&] { return !sizetostr(none, 3, 1); }, [&] { return !sizetowcs(wide, 0, 1); },
                  [&] { return !sizetofloatstr(buf, 3, 1, -1); },
                  [] { return !sizetofloatwcs(nullptr, 3, 1, 0); },
                  [&] { return strtosizemult(none, nullptr) == 1; },
                  [] { return !wcstosize(nullptr, nullptr); }});
}

TEST(Sizes, RoundedTextsAreForPeopleAndCutToFit) {
  const struct {
    uint64_t value;
    int precision;
    size_t n;
    std::string text;
  } rows[] = {{0, 2, 200, "0 bytes"},
              {1024, 2, 200, "1024 bytes"},
              {1025, 0, 200, "1 KiB"},
              {2048, 2, 200, "2 KiB"},
              {1536, 2, 200, "1.50 KiB"},
              {1 << 20, 2, 200, "1024 KiB"},
              {UINT64_MAX, 1, 200, "16.0 EiB"},
              {1536, 2, 5, "1.50"},
              {1536, 2, 1, ""},
              {1536, 100, 200, "1.5" + std::string(99, '0') + " KiB"},
              {1536, 1000, 20, "1.50000000000000000"}};
  char buf[200];
  wchar_t wide[200];
  for (const auto& [value, precision, n, text] : rows) {
    EXPECT_STREQ(sizetofloatstr(buf, n, value, precision), text.c_str());
    EXPECT_EQ(sizetofloatwcs(wide, n, value, precision), widen(text));
  }
  const ReportCapture reports;
  const Fault<"malloc", void*(size_t)> fault(1, nullptr, ENOMEM);
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
  EXPECT_THAT(reports.take(),
              ElementsAre(Field(&Report::code, ERANGE), Field(&Report::code, ERANGE)));

  char* end;
  wchar_t* wide_end;
  EXPECT_EQ(strtosizemult("x", &end), 1u);
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(strtosizemult("Bx", &end), 1u);
  EXPECT_STREQ(end, "x");
  EXPECT_EQ(wcstosizemult(L"pIbx", &wide_end), 1ULL << 50);
  EXPECT_STREQ(wide_end, L"x");
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
  EXPECT_TRUE(filtered("LC_ALL=C numfmt --from=auto", texts) == values.str());
}

}  // namespace

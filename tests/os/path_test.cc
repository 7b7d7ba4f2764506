#include <kel/path.h>

#include <unistd.h>

#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

std::wstring widen(const std::string& text) { return {text.begin(), text.end()}; }
int sign(int order) { return (order > 0) - (order < 0); }

/// Runs in a directory of its own.
class Paths : public Test {
 protected:
  Paths() { fs::current_path(dir.path()); }
  ~Paths() override { fs::current_path(before); }

  fs::path before = fs::current_path();
  TempDir dir;
  std::string home = dir.path().string();
  ReportCapture reports;
};

/// Calls with the capacity it was told until that does; the text beyond it must stay as it was.
template <class Char, class Call>
std::basic_string<Char> enlarge(size_t size, Call call) {
  for (int tries = 0; tries < 3; ++tries) {
    std::basic_string<Char> out(size + 8, Char('#'));
    size_t told = size;
    const int result = call(out.data(), &told);
    EXPECT_EQ(out.substr(size), std::basic_string<Char>(8, Char('#')));
    if (result == 0) {
      EXPECT_EQ(std::char_traits<Char>::length(out.data()), told);
      return out.substr(0, told);
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_GT(told, size);
    size = told;
  }
  ADD_FAILURE() << "the capacity told is never enough";
  return {};
}

TEST_F(Paths, AgreesWithTheStandardLibraryOnRandomPaths) {
  std::mt19937 random(7);
  const char* pieces[] = {"..", ".", "a", "bc", "...", ".d", "", "e..", "\\"};
  for (int round = 0; round < 3000; ++round) {
    std::string path = random() % 3 == 0 ? "/" : "";
    for (auto left = random() % 9; left-- > 0;)
      path += std::string(pieces[random() % std::size(pieces)]) + (left > 0 ? "/" : "");
    if (random() % 2 != 0 && !path.empty()) path += "/";
    while (path.starts_with("//")) path.erase(0, 1);  // a root of its own kind there
    const size_t size = random() % 40;

    std::string expected = (dir.path() / path).lexically_normal().string();
    while (expected.size() > 1 && expected.back() == '/') expected.pop_back();
    EXPECT_EQ(
        enlarge<char>(size, [&](char* out, size_t* s) { return RealPathA(path.c_str(), out, s); }),
        expected)
        << path;
    EXPECT_EQ(
        enlarge<wchar_t>(
            size, [&](wchar_t* out, size_t* s) { return RealPathW(widen(path).c_str(), out, s); }),
        widen(expected));

    const size_t cut = path.rfind('/') + 1;
    std::string directory = (dir.path() / path.substr(0, cut)).lexically_normal().string();
    if (directory.back() != '/') directory += '/';
    size_t name_size = size;
    const std::string name = enlarge<char>(size, [&](char* out, size_t* s) {
      std::string directory_out(4096, '\0');
      size_t directory_size = directory_out.size();
      const int result = ResolvePathA(path.c_str(), directory_out.data(), out, &directory_size, s);
      if (result == 0) {
        EXPECT_EQ(directory_out.c_str(), directory) << path;
        EXPECT_EQ(directory_size, directory.size());
      }
      return result;
    });
    EXPECT_EQ(name, path.substr(cut));
    EXPECT_EQ(enlarge<wchar_t>(size,
                               [&](wchar_t* out, size_t* s) {
                                 return ResolvePathW(widen(path).c_str(), out, nullptr, s,
                                                     &(name_size = 4096));
                               }),
              widen(directory));
    EXPECT_EQ(name_size, name.size());
  }
}

TEST_F(Paths, WhatDoesNotFitIsToldAndReported) {
  char out[64], file[64];
  size_t size = 5, file_size = sizeof file;
  EXPECT_EQ(RealPathA("0123456789", out, &size), -1);
  EXPECT_EQ(size, 11u);
  size = 5;
  EXPECT_EQ(ResolvePathA("0123456789", out, file, &size, &file_size), -1);
  EXPECT_EQ(size, 11u);
  EXPECT_EQ(file_size, 11u);
  size = sizeof out, file_size = 4;
  EXPECT_EQ(ResolvePathA("a/name", out, file, &size, &file_size), -1);
  EXPECT_EQ(file_size, 5u);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(StatPathA("0123", out, 5), 0);
  EXPECT_STREQ(out, "0123");
  EXPECT_EQ(StatPathA("01234", out, 5), -1);
  EXPECT_EQ(RealPathA(nullptr, out, &size), -1);
  EXPECT_EQ(errno, EINVAL);
  wchar_t wide[4];
  EXPECT_EQ(StatPathW(nullptr, wide, 4), -1);
  const std::vector<Report> seen = reports.take();
  ASSERT_EQ(seen.size(), 7u);
  EXPECT_THAT((std::vector(seen.begin(), seen.begin() + 3)),
              ElementsAre(error(ENOBUFS, "RealPathA: size of path too large for buffer"),
                          error(ENOBUFS, "ResolvePathA: size of path too large for buffer"),
                          error(ENOBUFS, "ResolvePathA: buffer too small")));
  EXPECT_EQ(seen[4], error(ENOBUFS, "StatPathA: could not copy path"));
  EXPECT_EQ(seen[5], error(EINVAL, "RealPathA: invalid NULL parameter"));
  EXPECT_EQ(seen[6], error(EINVAL, "StatPathW: could not copy path"));
}

TEST_F(Paths, AWorkingDirectoryThatIsGoneOrHasNoWideFormFailsRelativePathsOnly) {
  char out[64];
  wchar_t wide[64];
  size_t size = sizeof out;
  fs::create_directory("\xff");
  fs::current_path("\xff");
  EXPECT_EQ(RealPathW(L"a", wide, &(size = 64)), -1);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(size, 0u);
  fs::remove(dir / "\xff");
  EXPECT_EQ(RealPathA("a", out, &(size = 64)), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(RealPathW(L"//a/../b", wide, &(size = 64)), 0);
  EXPECT_EQ(std::wstring(wide), L"/b");
  const auto texts = reports.take_texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_THAT(texts[0], ::testing::MatchesRegex(
                            R"(wcsgetcwd \([0-9]+\): could not convert multi-byte to wide)"));
  EXPECT_EQ(texts[1], "wcsgetcwd: could not get current working directory");
}

TEST_F(Paths, BackslashesSeparateOnlyWhereNothingElseDoes) {
  char narrow[] = "a\\b\\c", mixed[] = "a\\b/c";
  wchar_t wide[] = L"\\x";
  EXPECT_STREQ(PathToNativePathA(narrow), "a/b/c");
  EXPECT_STREQ(PathToNativePathA(mixed), "a\\b/c");
  EXPECT_EQ(std::wstring(PathToNativePathW(wide)), L"/x");
  EXPECT_EQ(PathToNativePathA(nullptr), nullptr);
}

/// A text in which byte order is the order of paths.
std::string key(std::string text, bool lowered, char sep) {
  for (char& c : text) {
    if (lowered && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    if (c == sep) c = 1;
  }
  return text;
}

TEST(PathOrder, PutsWhatIsBelowADirectoryBeforeItsSiblings) {
  std::mt19937 random(11);
  const auto text = [&](size_t most) {
    std::string made;
    for (auto left = random() % (most + 1); left-- > 0;) made += "/-.aAbB\xe9"[random() % 8];
    return made;
  };
  for (int round = 0; round < 20000; ++round) {
    const std::string dir1 = text(3), name1 = text(3), dir2 = text(3), name2 = text(3);
    const char sep = round % 4 == 0 ? '.' : '/';
    const auto join = [&](const std::string& directory, const std::string& name) {
      return name.empty() ? directory : directory + sep + name;
    };
    const std::string a = join(dir1, name1), b = join(dir2, name2);
    const std::wstring wa = widen(key(a, false, 0)), wb = widen(b);
    // widen() keeps the order of bytes only for ASCII
    const bool ascii = (a + b).find('\xe9') == std::string::npos;
    for (const bool lowered : {false, true}) {
      const int expected = sign(key(a, lowered, sep).compare(key(b, lowered, sep)));
      SCOPED_TRACE(a + " " + b);
      EXPECT_EQ(sign((lowered ? PathCaseCompareA : PathCompareA)(a.c_str(), b.c_str(), sep)),
                expected);
      EXPECT_EQ(sign((lowered ? PathCaseCompareCombinedA : PathCompareCombinedA)(
                    dir1.c_str(), name1.c_str(), dir2.c_str(), name2.c_str(), sep)),
                expected);
      if (!ascii) continue;
      EXPECT_EQ(sign((lowered ? PathCaseCompareW : PathCompareW)(wa.c_str(), wb.c_str(), sep)),
                expected);
      EXPECT_EQ(sign((lowered ? PathCaseCompareCombinedW : PathCompareCombinedW)(
                    widen(dir1).c_str(), widen(name1).c_str(), widen(dir2).c_str(),
                    widen(name2).c_str(), sep)),
                expected);
    }
  }
}

TEST(PathOrder, NothingCountsAsEmptyAndValuesAreUnsigned) {
  EXPECT_EQ(PathCompareA("b", "a", '/'), 1);
  EXPECT_EQ(PathCompareA(nullptr, "", '/'), 0);
  EXPECT_LT(PathCompareA(nullptr, "/", '/'), 0);
  EXPECT_EQ(PathCompareCombinedA(nullptr, "a", "", "a", '\0'), 0);
  EXPECT_GT(PathCompareW(L"\x7fffffff", L"\1", L'/'), 0);
  EXPECT_GT(PathCompareW(L"\xffffffff", nullptr, L'/'), 0);
  EXPECT_EQ(BufCompareA("\xe9", "z"), 1);
  EXPECT_EQ(BufCompareA("ab", "abc"), -1);
  EXPECT_EQ(BufCompareA(nullptr, ""), 0);
  EXPECT_EQ(BufCompareW(L"\xffffffff", L"z"), 1);
  EXPECT_EQ(BufCaseCompareA("Ab", "aB"), 0);
  EXPECT_LT(BufCaseCompareA(nullptr, "a"), 0);
  EXPECT_GT(BufCaseCompareW(L"B", L"a"), 0);
}

TEST(PathOrder, VersionsCompareNumberByNumber) {
  const struct {
    const char *a, *b;
    int order;
  } rows[] = {{"7.1.0", "7.1", 0},    {"8.0", "10.1", -1},    {"1.2", "1.2.3", 0},
              {"10.0", "9.9", 1},     {"1-2_3", "1.2.4", -1}, {"1.1.1.1.1.1", "1.1.1.1.1.2", 0},
              {nullptr, "1", -1},     {nullptr, "0", 0},      {"1.1.1.1.2", "1.1.1.1.1", 1},
              {"4294967295", "0", -1}};
  for (const auto& row : rows) {
    errno = EDOM;
    EXPECT_EQ(ProtocolCompare(row.a, row.b), row.order) << row.b;
    EXPECT_EQ(ProtocolCompare(row.b, row.a), -row.order) << row.b;
    EXPECT_EQ(errno, EDOM);
  }
}

}  // namespace

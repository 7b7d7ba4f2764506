#include <kel/strings.h>

#include <type_traits>

#include "support/test.h"

namespace {

using namespace kel::testing;

/// A function of the family, narrow or wide, with or without a limit of the source.
template <class R, class Char, class... Limit>
struct Member {
  using Text = std::basic_string<Char>;
  static constexpr bool kSized = std::is_same_v<R, size_t>;  // gives the size that is needed
  static constexpr bool kLimited = sizeof...(Limit) != 0;

  R (*function)(Char*, const Char*, size_t, Limit...);
  std::string name;
  std::string copies_as = name;  // a join reports under the name of its copy
  bool reports_null_source = true;

  bool joins() const { return name != copies_as; }
  R call(Char* dst, const Char* src, size_t capacity, size_t limit) const {
    if constexpr (kLimited)
      return function(dst, src, capacity, limit);
    else
      return function(dst, src, capacity);
  }
};

void for_each_member(auto check) {
  check(Member{kelstrcpy, "kelstrcpy"});
  check(Member{kelstrncpy, "kelstrncpy"});
  check(Member{kelstrlcpy, "kelstrlcpy"});
  check(Member{kelstrlncpy, "kelstrlncpy", "kelstrlncpy", false});
  check(Member{kelstrcat, "kelstrcat", "kelstrcpy"});
  check(Member{kelstrncat, "kelstrncat", "kelstrncpy"});
  check(Member{kelwcscpy, "kelwcscpy", "kelwcscpy", false});
  check(Member{kelwcsncpy, "kelwcsncpy"});
  check(Member{kelwcslcpy, "kelwcslcpy"});
  check(Member{kelwcslncpy, "kelwcslncpy"});
  check(Member{kelwcscat, "kelwcscat", "kelwcscpy", false});
  check(Member{kelwcsncat, "kelwcsncat", "kelwcsncpy"});
}

TEST(Strings, AllMembersAgreeWithAModelAndStayInsideTheBuffer) {
  ReportCapture reports;
  for_each_member([&]<class R, class Char, class... Limit>(const Member<R, Char, Limit...>& m) {
    using Text = std::basic_string<Char>;
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
      const Text src(random() % 12, static_cast<Char>('a' + random() % 26));
      const Text head(m.joins() ? random() % 4 : 0, '<');
      const size_t capacity = 1 + random() % 12, limit = random() % 14;
      SCOPED_TRACE(m.name + " of " + std::string(src.begin(), src.end()) + " behind " +
                   std::to_string(head.size()) + " in " + std::to_string(capacity) + ", limit " +
                   std::to_string(limit));
      Text area = head + Text(m.joins(), 0);
      area.resize(20, '#');

      const Text wanted = m.kLimited ? src.substr(0, limit) : src;
      Text expected = head + wanted;
      int code = 0;
      std::vector<Report> reported;
      if (head.size() >= capacity) {
        expected = head.substr(0, capacity - 1);
        reported = {error(code = EINVAL, m.name + ": destination too small")};
      } else if (expected.size() >= capacity) {
        expected.resize(capacity - 1);
        const std::string text = m.copies_as + ": insufficient buffer";
        code = ENOBUFS;
        reported = {
            m.copies_as != "kelstrcpy"
                ? error(code, text)
                : warning(code, text + ", src:" + std::string(src.begin(), src.end()) +
                                    ", dst size=" + std::to_string(capacity - head.size()))};
      }
      const Text before = area;
      errno = 0;
      const R result = m.call(area.data(), src.c_str(), capacity, limit);
      if constexpr (m.kSized)
        ASSERT_EQ(result, wanted.size() + 1);
      else
        ASSERT_EQ(result, code == 0 ? area.data() + head.size() : nullptr);
      ASSERT_EQ(errno, code);
      ASSERT_EQ(reports.take(), reported);
      const size_t end = expected.size() + 1;
      ASSERT_EQ(area.substr(0, end), expected + Char(0));
      ASSERT_EQ(area.substr(end), before.substr(end));
    }
  });
}

TEST(Strings, NullSourcesAndMissingRoomFollowEachMembersOwnRule) {
  ReportCapture reports;
  for_each_member([&]<class R, class Char, class... Limit>(const Member<R, Char, Limit...>& m) {
    SCOPED_TRACE(m.name);
    Char buf[4] = {static_cast<Char>(m.joins() ? 0 : 'x')};
    errno = 0;
    EXPECT_FALSE(m.call(buf, nullptr, 4, 2));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(buf[0], 0);
    std::vector<Report> expected;
    if (m.reports_null_source)
      expected = {error(EINVAL, m.copies_as + ": invalid NULL src parameter")};
    EXPECT_EQ(reports.take(), expected);

    const Char src[] = {'a', 'b', 'c', 0};
    buf[0] = 'x';
    for (Char* const dst : {static_cast<Char*>(nullptr), buf}) {
      const R result = m.call(dst, src, dst == nullptr ? 4 : 0, 2);
      if constexpr (m.kSized)
        EXPECT_EQ(result, m.kLimited ? 3u : 4u);
      else
        EXPECT_EQ(result, nullptr);
    }
    EXPECT_EQ(buf[0], 'x');
    const Report no_room =
        m.joins() ? error(EINVAL, m.name + ": destination too small")
                  : error(ENOBUFS, m.name + ": invalid NULL or zero-length destination");
    EXPECT_THAT(reports.take(), ElementsAre(no_room, no_room));
  });
}

TEST(Strings, LengthAndSearchAnswerForMissingTerminatorsAndNulls) {
  const auto check_lengths = [](auto length, auto text) {
    errno = 0;
    EXPECT_EQ(length(text, 10), 3u);
    EXPECT_EQ(length(text, 4), 3u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(length(text, 3), 3u);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(length(nullptr, 7), 7u);
    EXPECT_EQ(errno, EINVAL);
  };
  check_lengths(kelstrlen, "abc");
  check_lengths(kelwcslen, L"abc");

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

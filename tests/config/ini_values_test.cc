#include <algorithm>
#include <cstring>
#include <random>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;

class IniValues : public IniFixture {};

TEST_F(IniValues, DefaultsAreHandedOutAndKept) {
  given("[S]\nempty=\n");
  char buf[10];
  EXPECT_EQ(InifileGetValueA("S", "k", buf, 10, "5", file), -2);
  EXPECT_STREQ(buf, "5");
  EXPECT_EQ(InifileGetValueA("S", "k", buf, 10, "6", file), 2);
  EXPECT_EQ(InifileGetValueA("New", "k", buf, 10, "", file), -1);
  EXPECT_EQ(InifileGetValueA("S", "empty", buf, 10, "now", file), -4);
  EXPECT_EQ(InifileGetNthValueA(3, "S", "third", buf, 10, "3", file), -2);
  EXPECT_EQ(InifileGetValueA("S", "nothing", buf, 10, nullptr, file), 0);
  EXPECT_EQ(saved(), "[S]\nempty=now\nk=5\nthird=3\nnothing=\n[New]\nk=\n");
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(InifileGetValueA("S", "one", buf, 1, "5", file), 0);
  EXPECT_EQ(InifileGetValueA("S", "cut", buf, 4, "12345", file), -3);
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(InifileGetValueA("S", "cut", buf, 10, "", file), 6);  // kept whole
  EXPECT_EQ(reports.take().size(), 2u);
}

TEST_F(IniValues, LongValuesAreCutAndListsAreNot) {
  given("[S]\nk=" + std::string(300, 'v') + "\nother=1\n");
  std::string buf(100, 'x');
  EXPECT_EQ(InifileGetValueA("S", "k", buf.data(), 100, "", file), 301);
  EXPECT_EQ(buf, std::string(99, 'v') + '\0');
  EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, ENOBUFS)));
  char list[8] = "unset";
  EXPECT_EQ(InifileGetValueA("S", nullptr, list, 7, nullptr, file), 8);
  EXPECT_STREQ(list, "");
  EXPECT_EQ(InifileGetValueA("S", nullptr, list, 8, nullptr, file), 8);
  EXPECT_EQ(std::memcmp(list, "k\0other", 8), 0);
  EXPECT_EQ(InifileGetValueA(nullptr, "k", list, 8, nullptr, file), 21);
  EXPECT_STREQ(list, "");
}

TEST_F(IniValues, StoringAndRemovingTakeTheCommentAlong) {
  given("top=1\n[S]\n# c\na=1\nb=0\nA=2\n# d\nd=1\n[T]\nx=1\n");
  EXPECT_EQ(InifileSaveValueA("s", "A", "3", file), 1);  // replaces both definitions
  EXPECT_EQ(InifileSaveValueA("s", "b", nullptr, file), 1);
  EXPECT_EQ(InifileSaveValueA("s", "", "no key", file), 1);
  EXPECT_EQ(InifileDeleteValueA("S", "d", file), 0);
  EXPECT_EQ(comment("S", "d"), "(none)");
  EXPECT_EQ(InifileDeleteValueA("T", nullptr, file), 0);
  EXPECT_EQ(exists("T", "x"), -2);
  EXPECT_EQ(InifileSaveValueA("T", nullptr, "no key", file), 1);
  EXPECT_EQ(InifileDeleteValueA(INIFILE_TOP_SECTION, "", file), 0);
  EXPECT_EQ(InifileSaveValueA(INIFILE_TOP_SECTION, "new", "2", file), 1);
  EXPECT_EQ(saved(), "new=2\n[S]\n# c\nA=3\nb=\n[T]\n");
}

TEST_F(IniValues, CommentsAreSetWhereverTheyBelong) {
  given("x=1\n");
  EXPECT_EQ(InifileSaveCommentA("", nullptr, "# file", file), 0);
  EXPECT_EQ(InifileSaveCommentA("S", nullptr, "# section\n", file), 0);
  EXPECT_EQ(InifileSaveCommentA("S", "k", "# key\n# more", file), 0);
  EXPECT_EQ(InifileSaveCommentA(INIFILE_TOP_SECTION, "x", "# x", file), 0);
  EXPECT_EQ(saved(), "# file\n# x\nx=1\n# section\n[S]\n# key\n# more\nk=\n");
  EXPECT_EQ(comment(nullptr, "ignored"), "# file\n");
  char buf[7];
  EXPECT_EQ(InifileGetCommentA(nullptr, nullptr, buf, 7, file), 7);
  EXPECT_STREQ(buf, "# file");
  EXPECT_EQ(InifileSaveCommentA("S", "k", nullptr, file), 0);
  EXPECT_EQ(comment("S", "k"), "(none)");
}

TEST_F(IniValues, RefusesWhatNamesNothing) {
  given("[S]\n");
  char buf[8];
  const auto get_value = [&](char* to, int size, const char* name) {
    return InifileGetValueA("S", "k", to, size, "7", name);
  };
  expect_refused(reports, EINVAL,
                 {[&] { return get_value(nullptr, 8, file) == 0; },
                  [&] { return get_value(buf, 0, file) == 0; },
                  [&] { return get_value(buf, 8, nullptr) == -2; },  // handed out anyway
                  [&] { return InifileSaveValueA("", "k", "", file) == -1; },
                  [&] { return InifileDeleteValueA("", nullptr, file) == -1; },
                  [&] { return InifileSaveCommentA("", "k", "# c", file) == -1; },
                  [] { return InifileLoadA(nullptr) == -1; }});
  EXPECT_EQ(InifileDeleteValueA("T", "k", file), -1);
  EXPECT_EQ(InifileGetCommentA("S", "k", buf, 0, file), -1);
  EXPECT_EQ(InifileValueExistsA("S", "k", nullptr), -3);
  EXPECT_EQ(exists("", "k"), -2);
  EXPECT_EQ(exists("T", "k"), -2);
  EXPECT_EQ(exists("S", "k"), -1);
  EXPECT_EQ(exists("S", ""), 0);
}

// The model is what the text says: lists of sections and keys, searched from the front.
struct ModelSection {
  std::string name;
  std::vector<std::pair<std::string, std::vector<std::string>>> entries;  // values latest first
};
using Model = std::vector<ModelSection>;

auto* find_named(auto& list, auto name_of, const std::string& name) {
  const auto at = std::find_if(list.begin(), list.end(), [&](const auto& item) {
    return ::strcasecmp(name_of(item).c_str(), name.c_str()) == 0;
  });
  return at == list.end() ? nullptr : &*at;
}

TEST_F(IniValues, AgreesWithAPlainModelOverRandomOperations) {
  std::mt19937 random(7);
  Model model(1);
  model[0].name = INIFILE_TOP_SECTION;
  const auto section_name = [](const ModelSection& s) { return s.name; };
  const auto entry_name = [](const auto& e) { return e.first; };
  const auto spell = [&](std::string name) {  // in any case
    for (char& c : name)
      if (random() % 2 == 0) c = static_cast<char>(::toupper(c));
    return name;
  };
  std::string text;
  for (int i = 0; i < 300; ++i) {  // a start with definitions that no call could make
    const std::string key = "key" + std::to_string(random() % 100), value = std::to_string(i);
    text += key + "=" + value + "\n";
    if (auto* e = find_named(model[0].entries, entry_name, key))
      e->second.insert(e->second.begin(), value);
    else
      model[0].entries.push_back({key, {value}});
  }
  given(text);
  for (int step = 0; step < 20'000; ++step) {
    const std::string section =
        random() % 4 == 0 ? INIFILE_TOP_SECTION : spell("section-" + std::to_string(random() % 40));
    const std::string key = spell("key" + std::to_string(random() % 100));
    ModelSection* s = find_named(model, section_name, section);
    auto* e = s == nullptr ? nullptr : find_named(s->entries, entry_name, key);
    switch (random() % 8) {
      case 0:
      case 1: {
        const std::string value(1 + random() % 40, static_cast<char>('a' + random() % 26));
        ASSERT_EQ(InifileSaveValueA(section.c_str(), key.c_str(), value.c_str(), file), 1);
        if (s == nullptr) s = &model.emplace_back(section, decltype(s->entries)());
        if (e != nullptr)
          e->second = {value};
        else
          s->entries.push_back({key, {value}});
        break;
      }
      case 2:
        ASSERT_EQ(InifileDeleteValueA(section.c_str(), key.c_str(), file), e == nullptr ? -1 : 0);
        if (e == nullptr) break;
        e->second.erase(e->second.begin());
        if (e->second.empty()) s->entries.erase(s->entries.begin() + (e - s->entries.data()));
        break;
      case 3:
        if (random() % 16 != 0) break;
        ASSERT_EQ(InifileDeleteValueA(section.c_str(), nullptr, file), s == nullptr ? -1 : 0);
        if (s == model.data())
          s->entries.clear();
        else if (s != nullptr)
          model.erase(model.begin() + (s - model.data()));
        break;
      case 4:
        ASSERT_EQ(exists(section.c_str(), key.c_str()), s == nullptr ? -2 : e == nullptr ? -1 : 0);
        break;
      default:
        if (e == nullptr) break;
        for (size_t n = 0; n < e->second.size(); ++n)
          ASSERT_EQ(get(section.c_str(), key.c_str(), static_cast<int>(n)), e->second[n]);
        ASSERT_EQ(get(section.c_str(), key.c_str(), static_cast<int>(e->second.size())), "(none)");
    }
    if (step % 4000 != 0) continue;
    std::string expected;
    for (const ModelSection& each : model) {
      if (&each != model.data()) expected += "[" + each.name + "]\n";
      for (const auto& [name, values] : each.entries)
        for (size_t n = values.size(); n-- != 0;) expected += values[n] + "\n";
    }
    // Spellings of definitions may differ: compare what follows the '='.
    std::string written = saved(), reduced;
    for (size_t at = 0; at < written.size();) {
      const size_t end = written.find('\n', at);
      const std::string line = written.substr(at, end - at + 1);
      reduced += line[0] == '[' ? line : line.substr(line.find('=') + 1);
      at = end + 1;
    }
    ASSERT_EQ(reduced, expected);
    write_file(path, written);
    InifileReleaseA(file);
  }
}

}  // namespace

#include <kel/json.h>

#include <jansson.h>

#include <sstream>
#include <thread>

#include "support/test.h"

using namespace kel::testing;

namespace {

TEST(Json, WhatIsNoDocumentLeavesAnEmptyObject) {
  const auto nested = [](size_t n) { return std::string(n, '[') + std::string(n, ']'); };
  ReportCapture reports;
  JsonObject object;
  const auto try_each = [&](bool valid, const std::string& texts) {
    std::istringstream in(texts);
    for (std::string text; std::getline(in, text, '|');) {
      EXPECT_EQ(object.LoadFromString(text.c_str()), valid) << text;
      EXPECT_EQ(object.DumpToString(0) == "{}", !valid || text == "{}");
      EXPECT_EQ(reports.take().size(), valid ? 0 : 1);
    }
  };
  try_each(true, R"({}| [ ] |["\ud834\udd1e\u00e9\/\b", "é"]|{"":[-0,1e-2,0.5E+3,null]}|)"
                 R"([9223372036854775807]|{"a":1,"a":""}|)" +
                     nested(2048));
  try_each(false,
           R"(|1|"a"|null|[1,]|[,1]|[1 2]|{"a":}|{a:1}|{'a':1}|{"a":1,}|{"a":1]|[] []|["a|)"
           R"([/**/]|[01]|[+1]|[.5]|[1.]|[1e]|[NaN]|[tru]|["\x"]|["\ud834"]|["\u0000"]|)"
           "[1e999]|[9223372036854775808]|[\"a\tb\"]|[\"\xff\"]|[\"\xc0\xaf\"]|\xef\xbb\xbf[]|"
           "[\"\xed\xa0\x80\"]|" +
               nested(2049) + "|" + nested(1'000'000));
  EXPECT_FALSE(object.LoadFromString("not json") || object.LoadFromFile("/none"));
  EXPECT_THAT(reports.take(), ElementsAre(error(-1,
                                                "LoadFromString: invalid json string, error is "
                                                "'[' or '{' expected near 'not'.")));
}

TEST(Json, CountsAReferenceForEachOwnerInAnyThread) {
  json_t* value = json_pack("{s:[s]}", "list", "[1]");
  JsonObject owner(value, true), copy(owner), borrower(value, false), other(borrower);
  other = copy = *&copy;
  EXPECT_EQ(value->refcount, 3);
  copy = borrower;
  owner.Init(json_incref(other.GetObject("list")), true);
  EXPECT_EQ(value->refcount, 1);
  EXPECT_TRUE(owner.LoadFromString(json_string_value(owner.ArrayGet(0))));  // its own text
  owner = other;
  std::thread apart([own = other] { EXPECT_EQ(own.ArraySize(), 0); });
  EXPECT_EQ(other.Release(), value);
  EXPECT_TRUE(other.DumpToString(0).empty() && !other.SetNew("a", json_array()));
  owner.Free();
  json_decref(value);
  apart.join();
}

TEST(Json, ReadsMembersByTypeAndJqReadsThemToo) {
  TempDir dir;
  ReportCapture reports;
  std::mt19937 random(3);
  JsonObject object, back;
  for (long i = 0, out = -7; i < 300; ++i, out = -7) {
    std::string text(random() % 40, 'x');
    for (char& c : text) c = static_cast<char>(1 + random() % 127);
    ASSERT_TRUE(object.SetNew("i" + text, json_integer(i << 44)) &&
                object.SetNew("s" + text, json_string(text.c_str())));
    EXPECT_EQ(object.GetInt64("s" + text, out) + object.GetInt64("i" + text + '\0', out), -2);
    EXPECT_EQ(out, -7);
    EXPECT_TRUE(object.GetInt64("i" + text, out) == 0 && object.GetInt64("s" + text) == 0);
    EXPECT_EQ(out, i << 44);
    EXPECT_EQ(object.GetString("s" + text) + object.GetString("i" + text), text);
  }
  for (const char* key : {"\0", "\xff"}) EXPECT_FALSE(object.SetNew({key, 1}, json_array()));
  const auto size = [&] { return object.DumpToString(0).size(); };
  const auto scenario = [&, all = size()] { EXPECT_EQ(size() % all, 0); };
  EXPECT_GT(fail_each_new(scenario), 5);
  ASSERT_TRUE(object.DumpToFile(dir / "dump", JSON_INDENT(2)));
  EXPECT_FALSE(object.DumpToFile("/dev/full", 0) || object.DumpToFile(dir / "none/dump", 0));
  if (std::system(("jq -c . " + (dir / "dump") + " >" + (dir / "jq")).c_str()) != 0)
    GTEST_SKIP() << "no jq";
  EXPECT_TRUE(back.LoadFromFile(dir / "jq") && json_equal(back.GetHandle(), object.GetHandle()));
}

}  // namespace

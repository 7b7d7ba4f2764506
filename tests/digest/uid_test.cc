#include <kel/uid.h>

#include <array>

#include "support/test.h"

namespace {

using namespace kel::testing;

constexpr char kText[] = "01230123456789abcdeffedcba987654";
constexpr char kUpper[] = "01230123456789ABCDEFFEDCBA987654";
constexpr KelUID kUid = {{0x01, 0x23, 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xfe, 0xdc,
                          0xba, 0x98, 0x76, 0x54}};

bool same(const KelUID& a, const KelUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

class Uid : public ::testing::Test {
 protected:
  KelUID uid{};
  ReportCapture reports;
};

TEST_F(Uid, NewOnesAreInvalidUntilDrawnAndThenAllDifferent) {
  KelUID* a = KelUIDNew();
  KelUID* b = KelUIDNew();
  ASSERT_TRUE(a != nullptr && b != nullptr);
  EXPECT_EQ(KelUIDVersionGet(a), 0);
  EXPECT_EQ(KelUIDValidate(a), 0);
  reports.take();
  KelUIDGenerate(b, 1);
  expect_refused(
      reports, EINVAL,
      {[&] { return KelUIDCompare(b, a) == 0x7fffffff; }, [&] { return KelUIDEqual(a, b) == -1; },
       [&] { return KelUIDInitCopy(a, KelUIDInit(&uid)) == nullptr; }});
  // Every bit behind the version takes both values in 64 draws (but once in 2^56 runs).
  std::array<unsigned char, 16> ever_set{}, ever_clear{};
  for (int i = 0; i < 64; ++i) {
    ASSERT_EQ(KelUIDGenerate(a, KEL_UID_RANDOM), a);
    ASSERT_TRUE(KelUIDValidate(a) == 1 && KelUIDVersionGet(a) == 1);
    for (size_t k = 0; k < 16; ++k) {
      ever_set[k] |= a->bytes[k];
      ever_clear[k] |= static_cast<unsigned char>(~a->bytes[k]);
    }
  }
  EXPECT_EQ(ever_set[0], 1);
  for (size_t k = 1; k < 16; ++k) EXPECT_EQ(ever_set[k] & ever_clear[k], 0xff) << k;
  EXPECT_EQ(KelUIDCompare(a, b), std::memcmp(a, b, 16) > 0 ? 1 : -1);
  EXPECT_EQ(KelUIDCompare(b, a), -KelUIDCompare(a, b));
  EXPECT_EQ(KelUIDEqual(a, b), 0);
  EXPECT_EQ(KelUIDInitCopy(b, a), b);
  EXPECT_EQ(KelUIDCompare(a, b), 0);
  EXPECT_EQ(KelUIDEqual(a, b), 1);
  KelUIDDelete(&a);
  KelUIDDelete(&b);
  KelUIDDelete(&b);
  KelUIDDelete(nullptr);
  EXPECT_EQ(fail_each_calloc([] {
              KelUID* made = KelUIDNew();
              KelUIDDelete(&made);
            }),
            1);
}

TEST_F(Uid, FormsRoundTripInEitherCase) {
  const std::string raw(reinterpret_cast<const char*>(kUid.bytes), 16);
  struct Row {
    std::string form;
    int is_raw;
    size_t used;
  };
  for (const Row& row :
       {Row{kText, 0, 32}, Row{kUpper + std::string("xyz"), 0, 32}, Row{raw, 1, 16}}) {
    uid = {};
    EXPECT_EQ(KelUIDDeserialize(&uid, row.form.data(), row.form.size(), row.is_raw), row.used);
    EXPECT_TRUE(same(uid, kUid));
  }
  std::string buf(34, '#');
  EXPECT_EQ(KelUIDSerialize(buf.data(), 32, &uid, 0), KelUIDSerializedSize(&uid, 0));
  EXPECT_EQ(buf, std::string(kText) + "##") << "no terminator where there is no room for one";
  EXPECT_EQ(KelUIDSerialize(buf.data(), 33, &uid, 0), 32u);
  EXPECT_EQ(buf, std::string(kText) + '\0' + "#");
  EXPECT_EQ(KelUIDSerialize(buf.data(), 16, &uid, 1), KelUIDSerializedSize(&uid, 1));
  EXPECT_EQ(buf.substr(0, KelUIDSize()), raw);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Uid, RefusedFormsChangeNothing) {
  const std::string good = kText, zeros(30, '0');
  uid = kUid;
  for (const std::string& text :
       {std::string("0"), "g1" + zeros, "0g" + zeros, "00" + zeros, "02" + zeros,
        good.substr(0, 31), good.substr(0, 31) + "g", good.substr(0, 2) + " " + good.substr(3)})
    expect_refused(reports, EINVAL,
                   {[&] { return KelUIDDeserialize(&uid, text.data(), text.size(), 0) == 0; }});
  for (const std::string& raw : {std::string("\x01"), std::string(16, '\0'),
                                 std::string(16, '\xff'), std::string(15, '\x01')})
    expect_refused(reports, EINVAL,
                   {[&] { return KelUIDDeserialize(&uid, raw.data(), raw.size(), 1) == 0; }});

  char buf[32];
  const KelUID strange = {{2}};
  expect_refused(reports, EINVAL,
                 {[&] { return KelUIDSerialize(buf, 31, &kUid, 0) == 0; },
                  [] { return KelUIDSerialize(nullptr, 32, &kUid, 0) == 0; },
                  [&] { return KelUIDSerialize(buf, 32, &strange, 0) == 0; },
                  [&] { return KelUIDSerializedSize(&strange, 0) == 0; },
                  [&] { return KelUIDVersionGet(&strange) == 0; },
                  [&] { return KelUIDGenerate(&uid, 0) == nullptr; },
                  [&] { return KelUIDGenerate(&uid, 257) == nullptr; }});
  EXPECT_TRUE(same(uid, kUid));
}

TEST_F(Uid, StreamsAreReadUpToTheEndOfTheForm) {
  TempDir dir;
  const std::string path = dir / "uids";
  const std::string raw(reinterpret_cast<const char*>(kUid.bytes), 16);
  write_file(path, kUpper + raw + std::string(kText).substr(0, 31));
  FILE* stream = std::fopen(path.c_str(), "r");
  size_t consumed = 0;
  for (const int is_raw : {0, 1}) {
    uid = {};
    EXPECT_EQ(KelUIDInitFromFile(&uid, stream, is_raw, &consumed), &uid);
    EXPECT_TRUE(consumed == (is_raw != 0 ? 16 : 32) && same(uid, kUid));
  }
  expect_refused(reports, ENODATA,
                 {[&] { return !KelUIDInitFromFile(&uid, stream, 0, &consumed); }});
  std::rewind(stream);
  expect_refused(reports, EINVAL,
                 {[&] { return !KelUIDInitFromFile(&uid, stream, 1, nullptr); },
                  [&] { return !KelUIDInitFromFile(&uid, nullptr, 1, nullptr); }});
  EXPECT_TRUE(consumed == 16 && same(uid, kUid));
  std::fclose(stream);
  stream = std::fopen(path.c_str(), "a");
  EXPECT_EQ(KelUIDInitFromFile(&uid, stream, 1, nullptr), nullptr);
  EXPECT_EQ(errno, EBADF);
  std::fclose(stream);
}

}  // namespace

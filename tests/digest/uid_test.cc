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
  EXPECT_EQ(KelUIDCompare(KelUIDGenerate(b, 1), a), 0x7fffffff);
  EXPECT_EQ(KelUIDEqual(a, b), -1);
  EXPECT_EQ(KelUIDInitCopy(a, KelUIDInit(&uid)), nullptr);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("KelUIDValidate: invalid UID", "KelUIDCompare: invalid UID",
                          "KelUIDEqual: invalid UID", "KelUIDInitCopy: invalid UID"));
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
  const int order = KelUIDCompare(a, b);
  EXPECT_EQ(KelUIDCompare(b, a), -order);
  EXPECT_EQ(order, std::memcmp(a, b, 16) > 0 ? 1 : -1);
  EXPECT_EQ(KelUIDEqual(a, b), 0);
  EXPECT_EQ(KelUIDInitCopy(b, a), b);
  EXPECT_EQ(KelUIDCompare(a, b), 0);
  EXPECT_EQ(KelUIDEqual(a, b), 1);
  KelUIDDelete(&a);
  for (int again = 0; again < 2; ++again) KelUIDDelete(&b);
  KelUIDDelete(nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(fail_each_calloc([] {
              KelUID* made = KelUIDNew();
              KelUIDDelete(&made);
            }),
            1);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOMEM, "KelUIDNew: could not allocate memory")));
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

TEST_F(Uid, RefusedFormsNameWhatIsWrongAndChangeNothing) {
  struct Row {
    std::string form;
    int raw;
    const char* text;
  };
  const std::string good = kText;
  const std::string zeros(30, '0');
  uid = kUid;
  for (const Row& row :
       {Row{"0", 0, "invalid NULL parameter"}, Row{"\x01", 1, "invalid NULL parameter"},
        Row{"g1" + zeros, 0, "input contained invalid character for version"},
        Row{"0g" + zeros, 0, "input contained invalid character for version"},
        Row{"00" + zeros, 0, "invalid UID"}, Row{"02" + zeros, 0, "unhandled version case"},
        Row{good.substr(0, 31), 0, "insufficient buffer"},
        Row{good.substr(0, 31) + "g", 0, "input contained invalid character"},
        Row{good.substr(0, 2) + " " + good.substr(3), 0, "input contained invalid character"},
        Row{std::string(16, '\0'), 1, "invalid UID"},
        Row{std::string(16, '\xff'), 1, "unhandled version case"},
        Row{std::string(15, '\x01'), 1, "insufficient buffer for binary"}}) {
    errno = 0;
    EXPECT_EQ(KelUIDDeserialize(&uid, row.form.data(), row.form.size(), row.raw), 0u) << row.form;
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(same(uid, kUid));
    EXPECT_THAT(reports.take_texts(), ElementsAre(std::string("KelUIDDeserialize: ") + row.text));
  }

  char buf[32];
  const KelUID strange = {{2}};
  EXPECT_EQ(KelUIDSerialize(buf, 31, &kUid, 0), 0u);
  EXPECT_EQ(KelUIDSerialize(nullptr, 32, &kUid, 0), 0u);
  EXPECT_EQ(KelUIDSerialize(buf, 32, &strange, 0), 0u);
  EXPECT_EQ(KelUIDSerializedSize(&strange, 0), 0u);
  EXPECT_EQ(KelUIDVersionGet(&strange), 0);
  EXPECT_EQ(KelUIDGenerate(&uid, 0), nullptr);
  EXPECT_EQ(KelUIDGenerate(&uid, 257), nullptr);
  EXPECT_TRUE(same(uid, kUid));
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("KelUIDSerialize: insufficient buffer", "KelUIDSerialize: invalid NULL parameter",
                  "KelUIDSerialize: invalid UID", "KelUIDSerializedSize: invalid UID",
                  "KelUIDVersionGet: unhandled version case", "KelUIDGenerate: invalid UID",
                  "KelUIDGenerate: unhandled version case"));
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
  EXPECT_EQ(KelUIDInitFromFile(&uid, stream, 0, &consumed), nullptr);
  std::rewind(stream);
  EXPECT_EQ(KelUIDInitFromFile(&uid, stream, 1, nullptr), nullptr);
  EXPECT_EQ(KelUIDInitFromFile(&uid, nullptr, 1, nullptr), nullptr);
  EXPECT_TRUE(consumed == 16 && same(uid, kUid));
  std::fclose(stream);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENODATA, "KelUIDInitFromFile: could not read from file"),
                          error(EINVAL, "KelUIDInitFromFile: unhandled version case"),
                          error(EINVAL, "KelUIDInitFromFile: invalid NULL parameter")));
  stream = std::fopen(path.c_str(), "a");
  EXPECT_EQ(KelUIDInitFromFile(&uid, stream, 1, nullptr), nullptr);
  std::fclose(stream);
  EXPECT_EQ(reports.take().back(), error(EBADF, "KelUIDInitFromFile: could not read from file"));
}

}  // namespace

#include <kel/serialize.h>

#include <new>

#include "support/test.h"

namespace {

using namespace kel::testing;

/// The functions of one width; null where the family has none.
template <class T>
struct Width {
  size_t (*size)(T, int);
  size_t (*serialize)(void*, size_t, T, int);
  T* (*deserialize)(T*, const void*, size_t, int, size_t*);
  T* (*from_file)(T*, FILE*, int, size_t*);
  std::string name;
};
const Width<uint8_t> k8{KelUint8SerializedSize, KelUint8Serialize, KelUint8InitDeserialize,
                        KelUint8InitFromFile, "KelUint8"};
const Width<uint16_t> k16{KelUint16SerializedSize, KelUint16Serialize, KelUint16InitDeserialize,
                          nullptr, "KelUint16"};
const Width<uint32_t> k32{KelUint32SerializedSize, KelUint32Serialize, KelUint32InitDeserialize,
                          KelUint32InitFromFile, "KelUint32"};
const Width<uint64_t> k64{KelUint64SerializedSize, KelUint64Serialize, KelUint64InitDeserialize,
                          KelUint64InitFromFile, "KelUint64"};

/// A stream over this text, which is not empty.
File stream_of(const std::string& text) {
  File stream(std::tmpfile());
  std::fputs(text.c_str(), stream.get());
  std::rewind(stream.get());
  return stream;
}
std::string rest(const File& stream) {
  char buf[64];
  return {buf, std::fread(buf, 1, sizeof buf, stream.get())};
}

/// Both forms of `value` are what std::to_string and shifts make of it, and come back.
template <class T>
void round_trip(const Width<T>& width, T value) {
  std::string raw;
  for (size_t i = sizeof value; i-- > 0;) raw += static_cast<char>(value >> (8 * i) & 0xff);
  const std::string text = std::to_string(value);
  ASSERT_EQ(width.size(value, 1), raw.size());
  ASSERT_EQ(width.size(value, 0), text.size());
  for (const int is_raw : {1, 0}) {
    if (width.from_file == nullptr && is_raw == 0) continue;
    const std::string& form = is_raw != 0 ? raw : text;
    std::string buf(form.size() + 1, '#');
    ASSERT_EQ(width.serialize(buf.data(), form.size(), value, is_raw), form.size());
    ASSERT_EQ(buf, form + '#') << "no terminator where there is no room for one";
    ASSERT_EQ(width.serialize(buf.data(), buf.size(), value, is_raw), form.size());
    ASSERT_EQ(buf, form + (is_raw != 0 ? '#' : '\0'));
    T back = static_cast<T>(~value);
    size_t used = 0;
    ASSERT_EQ(width.deserialize(&back, (form + "x1").data(), form.size() + 2, is_raw, &used),
              &back);
    ASSERT_EQ(back, value);
    ASSERT_EQ(used, form.size());
  }
}

TEST(Serialize, EveryWidthRoundTripsInBothForms) {
  ReportCapture reports;
  std::mt19937_64 random(1);
  for (int round = 0; round < 20000; ++round) {
    const uint64_t value = random() >> random() % 64;
    round_trip(k8, static_cast<uint8_t>(value));
    round_trip(k16, static_cast<uint16_t>(value));
    round_trip(k32, static_cast<uint32_t>(value));
    round_trip(k64, value);
  }
  round_trip<uint64_t>(k64, 0);
  round_trip<uint64_t>(k64, UINT64_MAX);
  round_trip<uint32_t>(k32, UINT32_MAX);
  char buf[4];
  EXPECT_EQ(KelUint32Serialize(buf, 4, 16909060, 1), 4u);
  EXPECT_EQ(std::memcmp(buf, "\1\2\3\4", 4), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Serialize, WhatDoesNotFitIsNotWritten) {
  ReportCapture reports;
  std::string buf(24, '#');
  errno = 0;
  EXPECT_EQ(KelUint16Serialize(buf.data(), 1, 7, 1), 0u) << "and is not reported";
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take(), IsEmpty());
  expect_refused(reports, ENOBUFS,
                 {[&] { return KelUint64Serialize(buf.data(), 7, 1, 1) == 0; },
                  [&] { return KelUint8Serialize(buf.data(), 0, 1, 0) == 0 && buf[0] == '#'; },
                  [&] { return KelUint32Serialize(buf.data(), 9, UINT32_MAX, 0) == 0; }});
  EXPECT_EQ(buf, '\0' + std::string(23, '#'));
  expect_refused(reports, EINVAL,
                 {[&] { return KelUint16Serialize(buf.data(), 2, 7, 0) == 0; },
                  [] { return KelUint16Serialize(nullptr, 2, 7, 0) == 0; }});
}

/// A text is read as `value`, or with a `used` of 0 refused.
template <class T>
void reads(const Width<T>& width, const std::string& text, T value, size_t used) {
  SCOPED_TRACE(width.name + " of '" + text + "'");
  ReportCapture reports;
  T got = 99;
  size_t got_used = 99;
  T* const result = width.deserialize(&got, text.data(), text.size(), 0, &got_used);
  EXPECT_EQ(got, value);
  EXPECT_EQ(result, used != 0 ? &got : nullptr);
  EXPECT_EQ(got_used, used != 0 ? used : 99);
  if (used == 0) {
    EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, EINVAL)));
  }
}

TEST(Serialize, TextIsARunOfDigitsThatFits) {
  reads<uint8_t>(k8, "255", 255, 3);
  reads<uint8_t>(k8, "256", 0, 0);
  reads<uint32_t>(k32, "0004294967295,", UINT32_MAX, 13);
  reads<uint32_t>(k32, "4294967296", 0, 0);
  reads<uint64_t>(k64, "18446744073709551615", UINT64_MAX, 20);
  reads<uint64_t>(k64, "18446744073709551616", 0, 0);
  reads<uint64_t>(k64, std::string(30, '0') + "7", 7, 31);
  reads<uint64_t>(k64, std::string(31, '0') + "7", 0, 0);
  for (const char* none : {"x1", " 1", "-1", "+1"}) reads<uint64_t>(k64, none, 0, 0);

  ReportCapture reports;
  uint8_t byte = 5;
  uint16_t word = 5;
  expect_refused(reports, EINVAL,
                 {[] { return !KelUint64InitDeserialize(nullptr, "1", 1, 0, nullptr); },
                  [&] { return !KelUint16InitDeserialize(&word, nullptr, 1, 0, nullptr); },
                  [&] { return !KelUint16InitDeserialize(&word, "12", 2, 0, nullptr); },
                  [&] { return !KelUint16InitDeserialize(&word, "1", 1, 1, nullptr); },
                  [&] { return !KelUint8InitDeserialize(&byte, "1", 0, 1, nullptr); }});
  EXPECT_TRUE(byte == 5 && word == 5);
  EXPECT_EQ(KelUint8InitDeserialize(&byte, "12", 2, 0, nullptr), &byte);
}

TEST(Serialize, StreamsGiveUpExactlyTheForm) {
  ReportCapture reports;
  uint8_t byte = 0;
  uint32_t value = 0;
  uint64_t wide = 0;
  size_t used = 0;
  const File stream = stream_of("123abc");
  EXPECT_EQ(KelUint32InitFromFile(&value, stream.get(), 0, &used), &value);
  EXPECT_TRUE(value == 123 && used == 3);
  EXPECT_EQ(KelUint8InitFromFile(&byte, stream.get(), 1, &used), &byte);
  EXPECT_TRUE(byte == 'a' && used == 1);
  EXPECT_EQ(rest(stream), "bc");
  const File largest = stream_of("18446744073709551615");
  EXPECT_EQ(KelUint64InitFromFile(&wide, largest.get(), 0, nullptr), &wide);
  EXPECT_EQ(wide, UINT64_MAX);
  EXPECT_THAT(reports.take(), IsEmpty());

  const File too_long = stream_of(std::string(40, '1') + "x"), too_short = stream_of("abc");
  const File unreadable(std::fopen("/dev/null", "w"));
  const auto read_wide = [&] { return !KelUint64InitFromFile(&wide, too_long.get(), 0, &used); };
  const auto read_from = [&](const File& file, int raw) {
    return !KelUint32InitFromFile(&value, file.get(), raw, &used);
  };
  expect_refused(reports, EINVAL, {read_wide});
  EXPECT_EQ(rest(too_long), "11111111x");
  expect_refused(reports, EINVAL,
                 {read_wide, [&] { return !KelUint8InitFromFile(nullptr, stream.get(), 0, &used); },
                  [&] { return !KelUint8InitFromFile(&byte, nullptr, 0, &used); }});
  expect_refused(reports, EIO,
                 {[&] { return read_from(too_short, 1); }, [&] { return read_from(unreadable, 0); },
                  [&] {
                    std::rewind(too_short.get());
                    const Fault<"ungetc", int(int, FILE*)> fault(1, EOF, 0);
                    return read_from(too_short, 0);
                  }});
  EXPECT_TRUE(value == 123 && used == 1);
}

// Every length through the blocks of 16 and what is left of them, and every character at every
// place of one.
TEST(Serialize, BuffersAreHexTextAndBack) {
  ReportCapture reports;
  std::mt19937 random(2);
  for (size_t length = 1; length < 200; ++length) {
    std::string data(length, '\0'), expected;
    for (char& c : data) {
      c = static_cast<char>(random());
      char pair[3];
      snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
      expected += pair;
    }
    std::string text(2 * length + 1, '#');
    ASSERT_EQ(KelBufToSerialize(text.data(), 2 * length, data.data(), length), 2 * length);
    ASSERT_EQ(text, expected + '#');
    for (char& c : text)
      if (random() % 2 == 0) c = static_cast<char>(toupper(c));
    std::string back(length + 1, '#');
    ASSERT_EQ(KelBufToDeserialize(back.data(), length, text.data(), 2 * length), 2 * length);
    ASSERT_EQ(back, data + '#');
  }
  EXPECT_THAT(reports.take(), IsEmpty());

  char back[40];
  for (size_t at = 0; at < 80; ++at) {
    for (int c = 0; c < 256; ++c) {
      std::string text(80, 'a');
      text[at] = static_cast<char>(c);
      ASSERT_EQ(KelBufToDeserialize(back, 40, text.data(), 80), isxdigit(c) ? 80u : 0u) << c;
    }
  }
  reports.take();
  expect_refused(reports, EINVAL,
                 {[&] { return KelBufToSerialize(back, 40, "x", 0) == 0; },
                  [&] { return KelBufToSerialize(back, 1, "x", 1) == 0; },
                  [&] { return KelBufToSerialize(back, 40, "x", SIZE_MAX / 2 + 1) == 0; },
                  [&] { return KelBufToDeserialize(back, 2, "abc", 3) == 0; },
                  [&] { return KelBufToDeserialize(nullptr, 1, "ab", 2) == 0; }});
}

TEST(BackupIds, AreTheNamesOfImagesWithoutTheirExtension) {
  for (const auto& [name, id] : {std::pair{"b_1.img", "b_1"},
                                 {" a.b.info ", "a.b"},
                                 {"x .map", "x"},
                                 {"x.fmkept", "x"},
                                 {"y.hdr\n", "y"},
                                 {"z.txt", ""},
                                 {"z.im", ""},
                                 {"", ""},
                                 {" no dot ", " no dot "},
                                 {".img", ""}})
    EXPECT_EQ(getbackupid(name), id) << name;
}

TEST(BackupIds, ContainerListsAreReadLineByLine) {
  ReportCapture reports;
  TempDir dir;
  const std::string path = dir / "dcids";
  write_file(path,
             "64\n63\n\n \t 70\r\n0x50\n18446744073709551614\n18446744073709551615\n"
             "99999999999999999999\n-5\nabc\n64\n 80\v\f\n90");
  std::set<unsigned long> set = {1};
  EXPECT_TRUE(ReadDcidFile(path, &set));
  EXPECT_THAT(set, ElementsAre(1, 64, 70, 80, 90, 18446744073709551614u));
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(EndsWith(" 63"), EndsWith(" 0x50"), EndsWith(" 18446744073709551615"),
                          EndsWith(" 99999999999999999999"), EndsWith(" -5"), EndsWith(" abc")));

  EXPECT_FALSE(ReadDcidFile(dir / "missing", &set));
  EXPECT_FALSE(ReadDcidFile(dir.path().string(), &set)) << "opens, but cannot be read";
  EXPECT_FALSE(ReadDcidFile(path, nullptr));
  EXPECT_EQ(reports.take().size(), 3u);
}

TEST(BackupIds, RunningOutOfMemoryIsNoException) {
  ReportCapture reports;
  TempDir dir;
  const std::string path = dir / "dcids";
  write_file(path, "64\n65\n");
  const std::string name(100, 'n');
  std::set<unsigned long> set;
  const Hooked<"_Znwm", void*(size_t)> no_memory([](size_t) -> void* { throw std::bad_alloc(); });
  EXPECT_EQ(getbackupid(name + ".img"), "");
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_FALSE(ReadDcidFile(path, &set));
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(set, IsEmpty());
  EXPECT_EQ(reports.take().size(), 2u);
}

}  // namespace

#include <kel/base64.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/reports.h"
#include "text/peer.h"

namespace {

using kel::testing::error;
using kel::testing::filtered;
using kel::testing::random_bytes;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kUntouched = '#';

const unsigned char* bytes_of(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

/// What is written into a buffer of `capacity`, which is all that may be written to.
struct Written {
  size_t result;
  std::string buffer;
};

template <class Call>
Written write_with(size_t capacity, Call call) {
  std::string buffer(capacity + 16, kUntouched);
  const size_t result = call(buffer.data());
  EXPECT_EQ(buffer.substr(capacity), std::string(16, kUntouched));
  return {result, buffer.substr(0, capacity)};
}

Written encode(const std::string& bytes, size_t capacity) {
  return write_with(capacity, [&](char* dst) {
    return Base64Encode(bytes_of(bytes), bytes.size(), dst, capacity);
  });
}

Written decode(const std::string& text, size_t capacity) {
  return write_with(capacity, [&](char* dst) {
    return Base64Decode(text.c_str(), reinterpret_cast<unsigned char*>(dst), capacity);
  });
}

TEST(Base64, EncodesTheVectorsOfRfc4648) {
  const std::pair<const char*, const char*> rows[] = {{"", ""},
                                                      {"f", "Zg=="},
                                                      {"fo", "Zm8="},
                                                      {"foo", "Zm9v"},
                                                      {"foob", "Zm9vYg=="},
                                                      {"fooba", "Zm9vYmE="},
                                                      {"foobar", "Zm9vYmFy"},
                                                      {"\xFB\xFF", "+/8="}};
  for (const auto& [bytes, text] : rows) {
    const Written out = encode(bytes, KEL_BASE64_SIZE(std::strlen(bytes)));
    EXPECT_EQ(out.result, std::strlen(text));
    EXPECT_STREQ(out.buffer.c_str(), text);
    EXPECT_EQ(decode(text, 16).buffer.substr(0, std::strlen(bytes)), bytes);
  }
  char safe[8];
  EXPECT_EQ(Base64URLEncode(bytes_of("\xFB\xFF"), 2, safe, sizeof safe), 4u);
  EXPECT_STREQ(safe, "-_8=");
  unsigned char bytes[3];
  EXPECT_EQ(Base64URLDecode(safe, bytes, sizeof bytes), 2u);
  EXPECT_EQ(std::memcmp(bytes, "\xFB\xFF", 2), 0);
  EXPECT_EQ(Base64Decode(safe, bytes, sizeof bytes), KEL_BASE64_FAILURE);
  EXPECT_EQ(Base64URLDecode("+/8=", bytes, sizeof bytes), KEL_BASE64_FAILURE);
}

TEST(Base64, EncodingKeepsToItsCapacityAndSaysWhatIsMissing) {
  ReportCapture reports;
  std::mt19937 random(1);
  for (size_t size = 0; size <= 24; ++size) {
    const std::string bytes = random_bytes(random, size);
    const size_t needed = KEL_BASE64_SIZE(size);
    const std::string whole = encode(bytes, needed).buffer;
    for (size_t capacity = 0; capacity < needed; ++capacity) {
      errno = 0;
      const Written out = encode(bytes, capacity);
      EXPECT_EQ(static_cast<int>(out.result), -1);
      EXPECT_EQ(errno, ENOBUFS);
      const size_t groups = capacity / 4;
      EXPECT_EQ(out.buffer.substr(0, 4 * groups), whole.substr(0, 4 * groups));
    }
    reports.take();
  }
  encode("foo", 4);
  encode("foobar", 7);
  encode("foob", 7);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(-1, "Base64EncodeImpl: datalength (4) >= dest_len (4)"),
          error(-1, "Base64EncodeImpl: dest_len (7) not large enough to handle src_len (3)"),
          error(-1, "Base64EncodeImpl: dest_len (7) not large enough to handle padding")));
}

TEST(Base64, AgreesWithCoreutils) {
  std::mt19937 random(2);
  for (const size_t size : {1u, 2u, 3u, 56u, 57u, 58u, 1000u, 65536u, 100001u}) {
    const std::string bytes = random_bytes(random, size);
    const Written ours = encode(bytes, KEL_BASE64_SIZE(size));
    EXPECT_EQ(ours.buffer.c_str(), filtered("base64 -w0", bytes));
    EXPECT_EQ(filtered("base64 -d", ours.buffer.c_str()), bytes);
    const std::string lines = filtered("base64", bytes);
    const Written back = decode(lines, size + 1);
    EXPECT_EQ(back.result, size);
    EXPECT_EQ(back.buffer.substr(0, size), bytes);
    EXPECT_EQ(Base64Decode(lines.c_str(), nullptr, 0), size);
  }
}

TEST(Base64, DecodingFindsEveryWrongCharacterWhereverItStands) {
  ReportCapture reports;
  std::mt19937 random(3);
  const std::string bytes = random_bytes(random, 47);
  const std::string text = encode(bytes, KEL_BASE64_SIZE(47)).buffer.c_str();
  for (size_t at = 0; at < text.size(); ++at) {
    std::string spaced = text;
    spaced.insert(at, " \t\n\v\f\r");
    EXPECT_EQ(decode(spaced, 48).buffer.substr(0, 47), bytes);
    for (const char wrong : {'-', '\x01', '\x80', '\xFF'}) {
      std::string changed = text;
      changed[at] = wrong;
      EXPECT_EQ(decode(changed, 48).result, KEL_BASE64_FAILURE);
      EXPECT_EQ(Base64Decode(changed.c_str(), nullptr, 0), KEL_BASE64_FAILURE);
      EXPECT_EQ(errno, EINVAL);
    }
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Base64, DecodingKeepsToItsCapacityAndSaysWhatIsMissing) {
  ReportCapture reports;
  const std::string bytes = "some fifteen by";
  const std::string text = encode(bytes, 21).buffer.c_str();
  for (size_t capacity = 0; capacity < bytes.size(); ++capacity) {
    const Written out = decode(text, capacity);
    EXPECT_EQ(out.result, KEL_BASE64_FAILURE);
    EXPECT_EQ(errno, ENOBUFS);
    const size_t whole = capacity == 0 ? 0 : capacity - 1;
    EXPECT_EQ(out.buffer.substr(0, whole), bytes.substr(0, whole));
  }
  EXPECT_EQ(decode(text, bytes.size()).buffer, bytes);
  reports.take();

  const std::string kName = "Base64DecodeImpl: ";
  for (const size_t capacity : {0u, 1u, 2u}) {
    const std::string state = std::to_string(capacity);
    const std::string index = std::to_string(capacity == 0 ? 0 : capacity - 1);
    decode("Zm9v", capacity);
    EXPECT_THAT(reports.take(),
                ElementsAre(error(-1, kName + "in state(" + state + "): tar index (" + index +
                                          (capacity == 0 ? ") extended" : ") will extend") +
                                          " beyond dest_len (" + state + ")")));
  }
}

TEST(Base64, DecodingRefusesWhatIsNotPaddedAsItShould) {
  ReportCapture reports;
  const std::pair<const char*, const char*> rows[] = {
      {"Zm8", "finished processing without ending on null byte. state (3)"},
      {"Z", "finished processing without ending on null byte. state (1)"},
      {"Zm9v=", "invalid = in position 0"},
      {"Z=", "invalid = in position 1"},
      {"Zg=x", "invalid = in position 2"},
      {"Zg=", "invalid = in position 2"},
      {"Zg==x", "invalid character after '=' Expected padding or null char. state (2)"},
      {"Zm8= =", "invalid character after '=' Expected padding or null char. state (3)"},
      {"Zh==", "expected null characters after the last full byte. state(2)"},
      {"Zm9=", "expected null characters after the last full byte. state(3)"}};
  for (const auto& [text, message] : rows) {
    errno = 0;
    EXPECT_EQ(decode(text, 16).result, 4294967295u) << text;
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(),
                ElementsAre(error(-1, std::string("Base64DecodeImpl: ") + message)));
  }
  EXPECT_EQ(Base64Decode("Zh==", nullptr, 0), 1u);
  EXPECT_EQ(decode(" Zm 9v\n", 3).result, 3u);
  EXPECT_EQ(decode("Zg = = ", 2).result, 1u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

}  // namespace

#include <kel/base64.h>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

/// The result, and a buffer of `capacity` bytes; what exceeds it is seen.
struct Written {
  size_t result;
  std::vector<char> buffer;

  std::string prefix(size_t size) const { return {buffer.data(), size}; }
};

Written encode(const std::string& bytes, size_t capacity, auto* function) {
  std::vector<char> text(capacity + 1, '#');
  const size_t result = function(bytes_of(bytes), bytes.size(), text.data(), capacity);
  EXPECT_EQ(text.back(), '#');
  return {result, text};
}

std::string encoded(const std::string& bytes, auto* function) {
  return encode(bytes, KEL_BASE64_SIZE(bytes.size()), function).buffer.data();
}
std::string encoded(const std::string& bytes) { return encoded(bytes, Base64Encode); }

Written decode(const std::string& text, size_t capacity, auto* function) {
  std::vector<char> bytes(capacity);
  auto* const dst = reinterpret_cast<unsigned char*>(bytes.data());
  const size_t result = function(text.c_str(), dst, capacity);
  return {result, bytes};
}
Written decode(const std::string& text, size_t capacity) {
  return decode(text, capacity, Base64Decode);
}

TEST(Base64, AgreesWithCoreutilsInBothAlphabets) {
  std::mt19937 random(2);
  for (const size_t size : {0u, 1u, 2u, 3u, 57u, 58u, 65536u, 100001u}) {
    const std::string bytes = random_bytes(random, size);
    EXPECT_TRUE(encoded(bytes) == filtered("base64 -w0", bytes));
    EXPECT_TRUE(encoded(bytes, Base64URLEncode) == filtered("basenc --base64url -w0", bytes));
    const std::string lines = filtered("base64", bytes),
                      safe = filtered("basenc --base64url", bytes);
    for (const Written& back : {decode(lines, size + 1), decode(safe, size + 1, Base64URLDecode)}) {
      EXPECT_EQ(back.result, size);
      EXPECT_TRUE(back.prefix(size) == bytes);
    }
    EXPECT_EQ(Base64Decode(lines.c_str(), nullptr, 0), size);
  }
  EXPECT_EQ(decode("-_8=", 3).result, KEL_BASE64_FAILURE);
  EXPECT_EQ(decode("+/8=", 3, Base64URLDecode).result, KEL_BASE64_FAILURE);
}

TEST(Base64, KeepsToItsCapacityAndWritesWhatFits) {
  ReportCapture reports;
  std::mt19937 random(1);
  for (size_t size = 1; size <= 24; ++size) {
    const std::string bytes = random_bytes(random, size);
    const std::string text = encoded(bytes);
    for (size_t capacity = 0; capacity <= text.size(); ++capacity) {
      errno = 0;
      const Written out = encode(bytes, capacity, Base64Encode);
      EXPECT_EQ(static_cast<int>(out.result), -1);
      EXPECT_EQ(errno, ENOBUFS);
      const size_t groups = capacity / 4 * 4;
      EXPECT_EQ(out.prefix(groups), text.substr(0, groups));
    }
    for (size_t capacity = 1; capacity < size; ++capacity) {
      const Written out = decode(text, capacity);
      EXPECT_EQ(out.result, KEL_BASE64_FAILURE);
      EXPECT_EQ(out.prefix(capacity - 1), bytes.substr(0, capacity - 1));
    }
    EXPECT_EQ(decode(text, size + 1).prefix(size), bytes);
  }
  EXPECT_EQ(static_cast<int>(Base64Encode(bytes_of("a"), 1, nullptr, 0)), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Base64, DecodingSkipsWhiteSpaceAndRefusesWhatIsWrongWhereverItStands) {
  ReportCapture reports;
  std::mt19937 random(3);
  const std::string bytes = random_bytes(random, 47), text = encoded(bytes);
  for (size_t at = 0; at < text.size(); ++at) {
    std::string spaced = text;
    spaced.insert(at, " \t\n\v\f\r");
    EXPECT_EQ(decode(spaced, 48).prefix(47), bytes);
    for (const char wrong : {'-', '\x01', '\x80', '\xFF'}) {
      std::string changed = text;
      changed[at] = wrong;
      errno = 0;
      EXPECT_EQ(decode(changed, 48).result, KEL_BASE64_FAILURE);
      EXPECT_EQ(Base64Decode(changed.c_str(), nullptr, 0), KEL_BASE64_FAILURE);
      EXPECT_EQ(errno, EINVAL);
    }
  }
  EXPECT_EQ(Base64Decode("Zh==", nullptr, 0), 1u);
  EXPECT_EQ(decode(" Zm 9v\n", 3).result, 3u);
  EXPECT_EQ(decode("Zg = = ", 2).result, 1u);
  EXPECT_THAT(reports.take(), IsEmpty());

  for (const char* padded :
       {"Zm8", "Z", "Zm9v=", "Z=", "Zg=x", "Zg=", "Zg==x", "Zm8= =", "Zh==", "Zm9="}) {
    errno = 0;
    EXPECT_EQ(decode(padded, 16).result, 4294967295u) << padded;
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(reports.take().size(), 1u);
  }
}

}  // namespace

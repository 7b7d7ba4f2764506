#include <kel/crc.h>

#include <zlib.h>

#include "os/scripted_calls.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

/// The peer.
uint32_t adler(const std::string& data, uint32_t start = 1) {
  return static_cast<uint32_t>(
      adler32_z(start, reinterpret_cast<const unsigned char*>(data.data()), data.size()));
}

// Every length around the vector steps at every alignment, and the sums that are nearest to
// overflowing: the greatest start with nothing but 0xff.
TEST(Crc, AgreesWithZlibAtEveryLengthAndAlignment) {
  EXPECT_EQ(CRCAppend(1, "Wikipedia", 9), 0x11e60398u);
  EXPECT_EQ(CRCAppend(0xfff0fff0, nullptr, 9), 1u);
  EXPECT_EQ(CRCAppend(0x12345678, "x", 0), 0x12345678u);
  std::mt19937 random(2);
  const std::string data = random_bytes(random, 200000);
  const std::string high(200000, '\xff');
  for (size_t round = 0; round < 4000; ++round) {
    const size_t from = random() % 70;
    const size_t length = round < 1200 ? round : random() % (data.size() - from);
    for (const auto& [bytes, start] : {std::pair{&data, 1u}, std::pair{&high, 0xfff0fff0u}})
      ASSERT_EQ(CRCAppend(start, bytes->data() + from, length),
                adler(bytes->substr(from, length), start))
          << length << " bytes at " << from;
  }
  uint32_t running = 1;
  for (size_t at = 0, piece; at < data.size(); at += piece) {
    piece = std::min<size_t>(random() % 9000, data.size() - at);
    running = CRCAppend(running, data.data() + at, piece);
  }
  EXPECT_EQ(running, adler(data));
}

class CrcOfFile : public ::testing::Test {
 protected:
  using ScriptedRead = Scripted<"read", ssize_t(int, void*, size_t)>;

  TempDir dir;
  std::string path = dir / "data";
  ReportCapture reports;
};

TEST_F(CrcOfFile, CoversTheWholeFileOrItsTail) {
  std::mt19937 random(3);
  for (const size_t size : {0, 1, 98303, 98304, 98305, 300000}) {
    const std::string data = random_bytes(random, size);
    write_file(path, data);
    ScriptedRead script({fails(EINTR), at_most(7)});
    EXPECT_EQ(CRCFromFile(path.c_str()), adler(data)) << size;
    EXPECT_EQ(CRCFromPartFile(path.c_str(), 0, SEEK_END), adler(data)) << "no seek for offset 0";
    EXPECT_EQ(CRCFromPartFile(path.c_str(), -5, SEEK_SET), adler(data));
    for (const size_t from : {1, 97, 200000})
      EXPECT_EQ(CRCFromPartFile(path.c_str(), static_cast<off_t>(from), SEEK_SET),
                adler(data.substr(std::min(from, size))));
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(CrcOfFile, FailuresHaveChecksumsThatNoDataHave) {
  const size_t descriptors = open_descriptors();
  write_file(path, "data");
  const std::string missing = dir / "missing", folder = dir.path();
  const auto is_refused = [&](int code, uint32_t expected, std::function<uint32_t()> checksum) {
    expect_refused(reports, code, {[=] { return checksum() == expected; }});
  };
  is_refused(ENOENT, 0, [&] { return CRCFromFile(missing.c_str()); });
  is_refused(EINVAL, 0, [] { return CRCFromFile(nullptr); });
  is_refused(EINVAL, 0, [&] { return CRCFromPartFile(path.c_str(), 1, 99); });
  is_refused(EISDIR, KEL_CRC_READ_ERROR, [&] { return CRCFromFile(folder.c_str()); });
  ScriptedRead script({at_most(3), fails(EIO)});
  is_refused(EIO, KEL_CRC_READ_ERROR, [&] { return CRCFromPartFile(path.c_str(), 0, SEEK_SET); });
  EXPECT_EQ(open_descriptors(), descriptors);
}

}  // namespace

#include <kel/base64.h>
#include <kel/passwd.h>

#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "support/test.h"

namespace {

using namespace kel::testing;

std::string key_file(const std::vector<std::string>& lines) {
  std::string text, all;
  for (const std::string& line : lines) text += line + "\n", all += line;
  return text + "self=" + std::to_string(adler32_z(1, (const Bytef*)all.data(), all.size()));
}

struct Passwd : ::testing::Test {
  int encrypt(const char* from) { return EncryptPasswdWithKey(path.c_str(), from, text, 1024); }
  int decrypt(const char* from) { return DecryptPasswdWithKey(path.c_str(), from, text, 1024); }

  TempDir dir;
  std::string path = dir / "auth.key", key = "0123456789abcdefghijklmnopqrstuv";
  ReportCapture reports;
  int index = 0;
  unsigned long value = 1;
  char text[KEL_AUTH_KEY_SIZE];
};

TEST_F(Passwd, KeysAndPasswordsOfAnyLengthComeBackOrAreRefused) {
  std::mt19937 random(1);
  for (unsigned size = 0; size <= 492; ++size) {
    // Key lines around the sizes at which buffers grow; zeros end the key but not its line.
    std::string line = random_bytes(random, 512 * (size % 10) + random() % 3), passwd;
    std::ranges::replace(line, '\n', '\0');
    write_file(path, key_file({"version=0\r", "count=2 keys", key, line}) + (size % 2 ? "\n" : ""));
    std::ifstream in(path);
    ASSERT_EQ(_getLineParse(in, "version", value), "version=0\r");
    ASSERT_EQ(_getAuthKey(path.c_str(), index, text, sizeof text, 1) + index + value, 0);
    ASSERT_EQ(std::string(line.c_str()).substr(0, sizeof text - 1), text);
    std::ranges::replace(passwd = random_bytes(random, size), '\0', 'X');
    ASSERT_EQ(encrypt(passwd.c_str()) + encrypt(text) + !IsEncrypted(text), 0);
    ASSERT_EQ(std::to_string(decrypt(text)) + text, "0" + passwd);
    ASSERT_EQ(PasswdEncode((passwd += passwd + passwd).c_str(), text, size * 4 + 1), 0);
    ASSERT_EQ(PasswdDecode(std::string(text).c_str(), text, size * 4 + 1), 0);
    ASSERT_EQ(text, passwd);
  }
  EXPECT_EQ(std::to_string(PasswdEncode("secret", text, 9)) + text, "0JwQRHDMb");
  EXPECT_EQ(std::to_string(decrypt("plain")) + text, "0plain");
  EXPECT_EQ(encrypt(std::string(496, 'p').c_str()) + decrypt("X10000"), -2);
  EXPECT_EQ(EncryptPasswdWithKey(path.c_str(), "p", text, 40), -1);  // cut
  write_file(path, key_file({"version=16", "count=1", key}));
  EXPECT_TRUE(encrypt("p") == -1 && errno == ERANGE);
}

TEST_F(Passwd, KeyFilesAreRefusedForADescribedReason) {
  const std::string good = key_file({"version=2", "count=1", key}), huge(10 << 20, 'k');
  const size_t descriptors = open_descriptors();
  const auto refused = [&](int code, const std::string& reason) {
    EXPECT_TRUE(_getAuthKey(path.c_str(), index, text, sizeof text, 0) && errno == code);
    EXPECT_THAT(reports.take_texts(), ElementsAre("failed to load chksum file " + path + reason));
  };
  refused(ENOENT, ": open file " + path + " failed.");
  const std::tuple<std::string, int, std::string> rows[] = {
      {"version=2\ncount=99999999999999999999\n\n" + huge, ENODATA, ": file read error"},
      {std::string(65 << 20, '\0'), EFBIG, ": file read error"},
      {" version=2\n" + huge, EINVAL, ": bad line format"},
      {"version=2\ncount=0", ERANGE, ": index(0) is out of range[0, 18446744073709551615]."},
      {"version=3" + good.substr(9), ERANGE, ": CRC mismatch for " + path}};
  for (const auto& [file, code, reason] : rows) write_file(path, file), refused(code, reason);
  path = dir.path();
  refused(EISDIR, ": file read error");
  const Hooked<"_Znwm", void*(size_t)> full([](size_t) -> void* { throw std::bad_alloc(); });
  refused(ENOMEM, "");
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Passwd, OpenSslDecryptsOursAndWeDecryptItsOwn) {
  if (std::system("openssl version >/dev/null") != 0) GTEST_SKIP() << "no openssl tool";
  write_file(path, key_file({"version=10", "count=1", key + " what follows is no part of it"}));
  const std::string plain = "pa ss\two\xC3\xB6rd!", iv = "000102030405060708090A0BFFFFFFFE";
  const auto tool = [&](const std::string& in, const std::string& options) {
    write_file(dir / "in", in);
    HexEncode(key.data(), text, 32);
    const std::string command = "cd " + dir.path().string() + "; openssl enc -aes-256-ctr -in in";
    EXPECT_EQ(std::system((command + " -out out -K " + text + " -iv " + options).c_str()), 0);
    return read_file(dir / "out");
  };
  encrypt(plain.c_str());
  const std::string our_iv(text + 6, 32), sealed(text + 38, HexDecode(text + 38, 26));
  EXPECT_EQ(tool(sealed, our_iv + " -d"), plain);
  HexEncode(tool(plain, iv).data(), text, 13);
  EXPECT_EQ(std::to_string(decrypt(("XA0000" + iv + text).c_str())) + text, "0" + plain);
}

/// Whether what `masked` hides stands anywhere in the memory that this process may write.
bool in_memory(const std::string& masked) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    char *from, *end, mode[2];
    const auto same = [](char c, char m) { return c == static_cast<char>(~m); };
    if (std::sscanf(line.c_str(), "%p-%p r%1[w]", (void**)&from, (void**)&end, mode) == 3 &&
        std::search(from, end, masked.begin(), masked.end(), same) != end)
      return true;
  }
  return false;
}

TEST_F(Passwd, NoCopyOfAKeyOrAPasswordStaysInMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's memory is too large to search";
#endif
  std::string masked = key;
  for (char& c : masked) c = static_cast<char>(~('a' + std::random_device()() % 26));
  const auto reveal = [&](char* to) { std::ranges::transform(masked, to, std::bit_not<char>()); };
  if (::fork() == 0) {  // key files of a secret that this process never saw
    reveal(key.data());
    write_file(path, key_file({"version=0", "count=1", key}));
    write_file(dir / "bad", "version=0\n" + std::string(60000, '-') + key);
    ::_exit(0);
  }
  ASSERT_GT(::wait(nullptr), 0);
  char plain[33] = {};
  const auto use = [&] {
    reveal(plain);
    EXPECT_TRUE(in_memory(masked));
    if (encrypt(plain) == 0) decrypt(text);
    std::ranges::fill(plain, 0), std::ranges::fill(text, 0);
    EXPECT_FALSE(in_memory(masked));
    RetrieveAuthKey(text, (dir / "bad").c_str());
    EXPECT_FALSE(in_memory(masked));
  };
  use();
  EXPECT_EQ(fail_each_malloc(use), 2);
  EXPECT_GT((fail_each<"read", ssize_t(int, void*, size_t)>(-1, EIO, use)), 3);
}

}  // namespace

// The cipher's self-test, for programs that must know before they trust it with data.
#include <kel/blowfish.h>

#include <cstring>

namespace {

constexpr unsigned char kKey[] = {'B', 'F', 'C', 'H', 'E', 'C', 'K'};
constexpr char kText[] = "This is a Blowfish test string\n";
constexpr uint32_t kTextLength = sizeof kText - 1;
constexpr unsigned char kOneTwo[8] = {0, 0, 0, 1, 0, 0, 0, 2};
// The block (1, 2) under the test key, as every Blowfish encrypts it.
constexpr unsigned char kOneTwoEncrypted[8] = {0x9a, 0x0e, 0x1d, 0xc3, 0x41, 0xd3, 0xb4, 0xfb};

bool known_block(BlowfishContext* c) {
  unsigned char block[8];
  BlowfishInit(c, kKey, sizeof kKey);
  BlowfishEncodeECB(c, kOneTwo, block, sizeof block);
  if (std::memcmp(block, kOneTwoEncrypted, sizeof block) != 0) return false;
  BlowfishDecodeECB(c, block, block, sizeof block);
  return std::memcmp(block, kOneTwo, sizeof block) == 0;
}

bool ecb_round_trip(BlowfishContext* c) {
  unsigned char encrypted[256] = {};
  unsigned char decrypted[256] = {};
  BlowfishInit(c, kKey, sizeof kKey);
  const int length = BlowfishEncode(c, kText, encrypted, kTextLength);
  return length == 32 && BlowfishDecode(c, encrypted, decrypted, 32) == 32 &&
         std::memcmp(decrypted, kText, kTextLength) == 0;
}

bool cbc_round_trip(BlowfishContext* c) {
  unsigned char encrypted[256] = {};
  unsigned char decrypted[256] = {};
  BlowfishInitCBC(c, kKey, sizeof kKey, 0);
  BlowfishEncodeCBC(c, kText, encrypted, kTextLength);
  BlowfishInitCBC(c, kKey, sizeof kKey, 1);
  BlowfishDecodeCBC(c, encrypted, decrypted, 32);
  return std::memcmp(decrypted, kText, kTextLength) == 0;
}

}  // namespace

int BlowfishTest(BlowfishContext* context) {
  if (known_block(context) && ecb_round_trip(context) && cbc_round_trip(context)) return 1;
  bf_errno = -5;
  return 0;
}

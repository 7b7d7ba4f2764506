// A program that sees only the installed tree, in C++17: a class, a C++ function and a C one.
#include <kel/kel.h>

#include <cstring>

int main() {
  const tqutil::LibAutoInit library("from_cxx");
  KelKey key;
  key.Assign(nullptr);
  const unsigned char text[] = "the same text, the same text, the same text";
  unsigned char stream[512], back[512];
  const int size = dcpEncryptDataToBuffer(key, 3, text, sizeof text, stream, sizeof stream, 0);
  if (size <= 0 || kelMagicFromBuffer(stream, nullptr) <= 0) return 1;
  const int length =
      dcpDecryptDataToBuffer(key, 3, stream, static_cast<unsigned>(size), back, sizeof back);
  return length == sizeof text && std::memcmp(text, back, sizeof text) == 0 ? 0 : 1;
}

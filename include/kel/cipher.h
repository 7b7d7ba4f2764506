/**
 * @file
 * Keys and symmetric ciphers: four ciphers behind one interface, chosen by a number.
 *
 * | Type | Cipher                     | Block | Padding | Header size |
 * |------|----------------------------|-------|---------|-------------|
 * | 0    | Blowfish, 32-byte key      | 8     | 8       | 8           |
 * | 1    | AES-256-CFB (128-bit feedback) | 16 | 1      | 8           |
 * | 2    | AES-256-OFB                | 16    | 1       | 8           |
 * | 3    | AES-256-CTR                | 16    | 1       | 16          |
 *
 * The numbers are stored with the data that they protect. The AES modes are those of NIST SP
 * 800-38A and turn every input byte into one output byte; Blowfish works in blocks, holds
 * incomplete ones back, fills the last one with zero bytes and tells their count. No cipher
 * authenticates what it decrypts.
 *
 * Failures are reported, set `errno` and give -1, false or null; nothing throws. One thread at a
 * time uses a cipher object; different objects are independent. Key values are plain data.
 *
 * @code
 * const KelKey key = KelKey::NewKey(nullptr);  // random
 * std::unique_ptr<Cipher> cipher(Cipher::NewCipher(3));
 * unsigned char iv[16];
 * cipher->makeIv(iv);
 * if (!cipher->Init(0, key, iv)) return -1;
 * unsigned padBytes;
 * int written = cipher->Process(text, textLength, true, out, &padBytes);
 * @endcode
 */
#ifndef KEL_CIPHER_H
#define KEL_CIPHER_H

#include <kel/export.h>

#ifdef __cplusplus

#include <stddef.h>

struct BlowfishContext;
struct evp_cipher_st;      // EVP_CIPHER
struct evp_cipher_ctx_st;  // EVP_CIPHER_CTX

/**
 * A 256-bit key: 32 key bytes and a byte that is always zero. Starts as the zero key, is copied
 * freely and never wiped by itself.
 */
class KEL_API KelKey {
 public:
  static constexpr int kLength = 32;  ///< key bytes, without the zero byte

  /// The key that Assign(src) makes.
  static KelKey NewKey(const void* src);
  /// The one key of zero bytes.
  static const KelKey& Zero();

  /**
   * Takes the 32 bytes at `src`; with a null `src` makes a random key. A random key has no zero
   * byte, so that it is also a string of 32 characters, and at least one byte with its high bit
   * set.
   */
  void Assign(const void* src);
  void AssignZero();

  /// Compares with the 32 bytes at `other` as memcmp(3) does.
  int Compare(const void* other) const;
  /// Copies the key bytes and the zero byte; false, writing nothing, when `size` is below 33.
  bool CopyToBuffer(void* buf, size_t size) const;

  /// The 32 key bytes, followed by a zero byte; valid as long as the key.
  const unsigned char* Bytes() const { return bytes_; }

 private:
  unsigned char bytes_[kLength + 1] = {};
};

/**
 * One cipher, one key, one direction. Make one with NewCipher(), set it up with Init() or
 * InitSession(), pass the data through Process() in pieces of any size, the last with `last` set,
 * and delete it through this type. A new Init() or InitSession() starts over.
 */
class KEL_API Cipher {
 public:
  virtual ~Cipher();
  Cipher(const Cipher&) = delete;
  Cipher& operator=(const Cipher&) = delete;

  /// Bytes of a cipher block.
  virtual int GetBlockSize() const;
  /// What output is padded to a multiple of; 1: output is as long as input.
  virtual int GetPaddingSize() const;
  /// Input bytes held back until more come or Final() is called.
  virtual int GetAcUsed() const;

  /**
   * As Init(), but for messages of one session: Blowfish chains its blocks (CBC with a zero initial
   * value). The same as Init() for AES.
   */
  virtual bool InitSession(int opMode, const KelKey& key, const unsigned char* iv);
  /**
   * Sets the cipher up; it is unusable before. Blowfish runs in ECB mode.
   *
   * @param opMode  0 to encrypt, 1 to decrypt
   * @param iv      16 bytes, or null for zero bytes; Blowfish ignores it
   * @return false after a report
   */
  virtual bool Init(int opMode, const KelKey& key, const unsigned char* iv) = 0;
  /**
   * Processes `len` bytes at `in`. Blowfish writes (held-back count + `len`) rounded down to a
   * multiple of 8 bytes, AES exactly `len`. `in` and `out` may be the same address when nothing is
   * held back, else they must not overlap.
   *
   * @return bytes written, or -1 (EINVAL for a null pointer or a bad length)
   */
  virtual int Update(const void* in, int len, void* out) = 0;
  /**
   * Ends a piece of data: writes what was held back, filled up with zero bytes to `padBytes` more
   * than there were. The reader must be told that count. The key stream of AES runs on afterwards.
   *
   * @param out       room for GetPaddingSize() bytes
   * @param padBytes  receives the count, 0 for AES; may be null
   * @return bytes written, or -1
   */
  virtual int Final(void* out, unsigned int* padBytes) = 0;
  /// Drops and wipes key and state, as the destructor does; Init() makes the object usable again.
  virtual void Free() = 0;

  /// A cipher of `type`, owned by the caller; null (EINVAL, reported) for an unknown type.
  static Cipher* NewCipher(int type);
  /// The type's name in words; "Unknown" for an unknown type.
  static const char* GetCipherDescription(int type);

  const char* GetDescription() const { return GetCipherDescription(type_); }
  int GetType() const { return type_; }
  /// 0 encrypt, 1 decrypt: what was last given to Init() or InitSession(); 0 before.
  int GetOpMode() const { return op_mode_; }
  /// True when a stream carries an 8-byte encrypted check block instead of the cipher's IV.
  bool UseIv8() const { return use_iv8_; }
  /// Bytes that a stream carries ahead of its data: 8 with UseIv8(), else the block size.
  int GetHeaderSize() const { return use_iv8_ ? 8 : GetBlockSize(); }

  /**
   * Fills `iv` with GetHeaderSize() random bytes. With UseIv8() the second four repeat the first
   * four, by which a reader recognises a wrong key.
   */
  void makeIv(unsigned char* iv);
  /**
   * Update(), then Final() when `last` is set.
   *
   * @param padBytes  written only when `last` is set; may be null
   * @return bytes written, or -1
   */
  int Process(const void* in, int len, bool last, void* out, unsigned int* padBytes);
  /// @name Process() under two more names; the direction is the one given to Init().
  /// @{
  int Encrypt(const void* in, int len, bool last, void* out, unsigned int* padBytes);
  int Decrypt(const void* in, int len, bool last, void* out, unsigned int* padBytes);
  /// @}

 protected:
  Cipher(int id, int type, bool useIv8);

  int id_;  ///< serial number of the object; informational
  int op_mode_ = 0;
  int type_;
  bool use_iv8_;
};

/** Cipher type 0. */
class KEL_API BlowfishCipher : public Cipher {
 public:
  BlowfishCipher(int id, int type);
  ~BlowfishCipher() override;

  int GetBlockSize() const override;
  int GetPaddingSize() const override;
  int GetAcUsed() const override;
  bool InitSession(int opMode, const KelKey& key, const unsigned char* iv) override;
  bool Init(int opMode, const KelKey& key, const unsigned char* iv) override;
  int Update(const void* in, int len, void* out) override;
  int Final(void* out, unsigned int* padBytes) override;
  void Free() override;

  /// Processes `len` bytes past the held-back ones, filling the last block with zero bytes; bytes
  /// written, or -1.
  int UpdateAligned(const unsigned char* in, int len, unsigned char* out);

 private:
  bool Renew(int opMode);

  BlowfishContext* context_ = nullptr;
  unsigned char carry_[8] = {};
  int carry_count_ = 0;
};

/** Cipher types 1 to 3: AES-256 of OpenSSL in a mode that needs no padding. */
class KEL_API AESCipher : public Cipher {
 public:
  /// @param cipher  borrowed; must outlive the object
  AESCipher(int id, int type, bool useIv8, const evp_cipher_st* cipher);
  ~AESCipher() override;

  bool Init(int opMode, const KelKey& key, const unsigned char* iv) override;
  int Update(const void* in, int len, void* out) override;
  int Final(void* out, unsigned int* padBytes) override;
  void Free() override;

 private:
  const evp_cipher_st* cipher_;
  evp_cipher_ctx_st* context_ = nullptr;
};

#endif
#endif

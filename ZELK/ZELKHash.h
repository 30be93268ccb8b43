// Digest values.  A Hash keeps a digest both as raw bytes and as hexadecimal
// text; the engine never computes one itself, it only stores, converts and
// compares digests that arrive with events and rulesets.
#ifndef ZELK_ZELKHASH_H_
#define ZELK_ZELKHASH_H_

#include <cstdint>
#include <memory>
#include <string>

class Hash {
  public:
    // The value of each kind is its digest length in bytes.
    enum HashType : unsigned { MD5 = 16, SHA1 = 20, SHA256 = 32 };

    // Copies `type` bytes from `bytes` and builds the lowercase hex text.  A
    // null `bytes` makes an empty digest of the kind's nominal length.
    Hash(HashType type, const char* bytes);
    // Deep copy; the text is rebuilt from the bytes, so it is always lowercase.
    Hash(const Hash& other);
    Hash& operator=(const Hash& other);
    Hash(Hash&& other) noexcept = default;
    Hash& operator=(Hash&& other) noexcept = default;
    virtual ~Hash() = default;

    // True when the value holds digest bytes.
    bool HasBytes() const { return m_Bytes != nullptr; }
    const unsigned char* Bytes() const { return m_Bytes.get(); }
    unsigned Length() const { return m_Length; }
    const std::string& Text() const { return m_Text; }
    // Forgets the digest (no bytes, empty text); the length stays nominal.
    void Clear();

    // Writes `length` bytes as lowercase hex into `out` (two digits a byte).
    static void ToHex(const unsigned char* bytes, size_t length, std::string& out);
    // Decodes hex text into `length` bytes, as SetHash(std::string) does: a
    // byte per pair of characters from the start, bytes without a pair left
    // 0, characters past `length` bytes ignored, and a character that is not
    // a hex digit read through the same fixed table (never rejected).
    static void FromHex(const std::string& text, unsigned char* out, size_t length);

  protected:
    // Replaces the digest with `length` bytes copied from `bytes`.
    void Assign(const unsigned char* bytes, unsigned length);

    std::unique_ptr<unsigned char[]> m_Bytes;  // null: no digest
    unsigned m_Length;
    std::string m_Text;
};

class MD5Hash : public Hash {
  public:
    explicit MD5Hash(const char* bytes = nullptr) : Hash(MD5, bytes) {}
};

class SHA1Hash : public Hash {
  public:
    explicit SHA1Hash(const char* bytes = nullptr) : Hash(SHA1, bytes) {}
};

class SHA256Hash : public Hash {
  public:
    explicit SHA256Hash(const char* bytes = nullptr) : Hash(SHA256, bytes) {}

    // Decodes 64 hex characters into the 32 bytes and keeps `hexText` exactly
    // as given.  Non-hex characters decode leniently (see the source); text
    // beyond 64 characters is ignored, so the 32-byte array is never overrun,
    // and a shorter text leaves the remaining bytes zero.
    virtual void SetHash(std::string hexText);
    // Copies 32 raw bytes; a null pointer changes nothing.
    virtual void SetHash(const char* bytes);
};

#endif  // ZELK_ZELKHASH_H_

#include "ZELKHash.h"

#include <algorithm>
#include <cstring>

namespace {
const char kHexDigits[] = "0123456789abcdef";

// Indexed by (c & 0x1f) ^ 0x10: '0'..'9' land on 0..9, 'a'..'f' and 'A'..'F'
// on 17..22.  Any other character reads whatever its slot holds, which keeps
// the decoder branch-free and total for arbitrary input.
const unsigned char kHexValue[32] = {0, 1,  2,  3,  4,  5,  6,  7, 8, 9, 0, 0, 0, 0, 0, 0,
                                     0, 10, 11, 12, 13, 14, 15, 0, 0, 0, 0, 0, 0, 0, 0, 0};

unsigned char HexValue(char c) {
    return kHexValue[(static_cast<unsigned char>(c) & 0x1f) ^ 0x10];
}
}  // namespace

Hash::Hash(HashType type, const char* bytes) : m_Length(type) {
    if (bytes != nullptr) {
        Assign(reinterpret_cast<const unsigned char*>(bytes), type);
    }
}

Hash::Hash(const Hash& other) : m_Length(other.m_Length) {
    if (other.m_Bytes) {
        Assign(other.m_Bytes.get(), other.m_Length);
    }
}

Hash& Hash::operator=(const Hash& other) {
    if (this != &other) {
        if (other.m_Bytes) {
            Assign(other.m_Bytes.get(), other.m_Length);
        } else {
            m_Bytes.reset();
            m_Length = other.m_Length;
            m_Text.clear();
        }
    }
    return *this;
}

void Hash::Clear() {
    m_Bytes.reset();
    m_Text.clear();
}

void Hash::Assign(const unsigned char* bytes, unsigned length) {
    m_Length = length;
    m_Bytes.reset(new unsigned char[length]());
    memcpy(m_Bytes.get(), bytes, length);
    ToHex(m_Bytes.get(), length, m_Text);
}

void Hash::ToHex(const unsigned char* bytes, size_t length, std::string& out) {
    out.resize(length * 2);
    for (size_t i = 0; i < length; ++i) {
        out[2 * i] = kHexDigits[bytes[i] >> 4];
        out[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
    }
}

void Hash::FromHex(const std::string& text, unsigned char* out, size_t length) {
    memset(out, 0, length);
    const size_t pairs = std::min<size_t>(text.size() / 2, length);
    for (size_t i = 0; i < pairs; ++i) {
        out[i] = static_cast<unsigned char>(HexValue(text[2 * i]) * 16 + HexValue(text[2 * i + 1]));
    }
}

void SHA256Hash::SetHash(std::string hexText) {
    m_Length = SHA256;
    m_Bytes.reset(new unsigned char[SHA256]());
    m_Text = std::move(hexText);
    FromHex(m_Text, m_Bytes.get(), SHA256);
}

void SHA256Hash::SetHash(const char* bytes) {
    if (bytes == nullptr) {
        return;
    }
    Assign(reinterpret_cast<const unsigned char*>(bytes), SHA256);
}

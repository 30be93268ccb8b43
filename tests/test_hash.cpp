#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ZELKHash.h"

namespace {
// The 32 decoded bytes as a string, so whole digests compare in one check.
std::string Raw(const SHA256Hash& h) {
    return std::string(reinterpret_cast<const char*>(h.Bytes()), 32);
}
}  // namespace

TEST(Hash, BuildsLowercaseHexAndCopiesDeeply) {
    std::string raw(32, '\0');
    for (int i = 0; i < 32; ++i) {
        raw[i] = static_cast<char>(i);
    }
    SHA256Hash original(raw.data());
    EXPECT_EQ(original.Text(), "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");

    SHA256Hash copy(original);
    ASSERT_TRUE(copy.HasBytes());
    EXPECT_NE(copy.Bytes(), original.Bytes()) << "a copy must own its bytes";
    EXPECT_EQ(Raw(copy), raw);
    EXPECT_EQ(copy.Text(), original.Text());

    // Assignment replaces, and the source can go away without harming the copy.
    SHA256Hash assigned;
    {
        SHA256Hash temp(raw.data());
        assigned = temp;
    }
    EXPECT_EQ(assigned.Text(), original.Text());
    assigned = SHA256Hash();
    EXPECT_FALSE(assigned.HasBytes());
    EXPECT_TRUE(assigned.Text().empty());

    const unsigned char md5Bytes[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                        0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
    EXPECT_EQ(MD5Hash(reinterpret_cast<const char*>(md5Bytes)).Text(),
              "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Hash, EmptyDigestsHaveNominalLengthAndNoText) {
    SHA1Hash sha1;
    EXPECT_FALSE(MD5Hash().HasBytes());
    EXPECT_EQ(MD5Hash().Length(), 16u);
    EXPECT_EQ(sha1.Length(), 20u);
    EXPECT_EQ(SHA256Hash().Length(), 32u);
    EXPECT_TRUE(SHA256Hash().Text().empty());
    SHA1Hash copy(sha1);
    EXPECT_FALSE(copy.HasBytes());
}

TEST(Hash, SetHashFromTextDecodesAndKeepsText) {
    SHA256Hash h;
    const std::string lower = "00ff" + std::string(60, '0');
    h.SetHash(lower);
    EXPECT_EQ(h.Text(), lower);
    EXPECT_EQ(Raw(h), std::string("\x00\xff", 2) + std::string(30, '\0'));

    // Upper case decodes to the same bytes; the text is kept as given, and a
    // copy rebuilds it in lower case.
    SHA256Hash upper, lowerTwin;
    const std::string upperText = "ABCDEF" + std::string(58, '9');
    upper.SetHash(upperText);
    lowerTwin.SetHash(std::string("abcdef") + std::string(58, '9'));
    EXPECT_EQ(Raw(upper), Raw(lowerTwin));
    EXPECT_EQ(upper.Text(), upperText);
    EXPECT_EQ(SHA256Hash(upper).Text(), lowerTwin.Text());
}

TEST(Hash, SetHashFromTextNeverOverrunsWhateverItIsGiven) {
    // Oversized, short, odd-length and non-hex inputs are all taken without
    // writing past the 32 bytes (AddressSanitizer checks the bound in CI).
    SHA256Hash h;
    h.SetHash(std::string(10000, 'f'));
    EXPECT_EQ(Raw(h), std::string(32, '\xff'));
    h.SetHash(std::string("abc"));
    EXPECT_EQ(Raw(h).substr(0, 2), std::string("\xab\x00", 2));
    h.SetHash(std::string(""));
    EXPECT_EQ(h.Length(), 32u);
    // Non-hex characters decode leniently to zero nibbles instead of being
    // rejected.
    h.SetHash(std::string("gz/0") + std::string(60, '1'));
    EXPECT_EQ(Raw(h).substr(0, 3), std::string("\x00\x00\x11", 3));

    SHA256Hash raw;
    raw.SetHash(static_cast<const char*>(nullptr));
    EXPECT_FALSE(raw.HasBytes()) << "the raw-bytes form ignores a null pointer";
}

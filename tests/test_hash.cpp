#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ZELKHash.h"

namespace {
std::string Bytes0To31() {
    std::string bytes(32, '\0');
    for (int i = 0; i < 32; ++i) {
        bytes[i] = static_cast<char>(i);
    }
    return bytes;
}
}  // namespace

TEST(Hash, BuildsLowercaseHexAndCopiesDeeply) {
    const std::string raw = Bytes0To31();
    SHA256Hash original(raw.data());
    EXPECT_EQ(original.Text(), "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    EXPECT_EQ(original.Length(), 32u);

    SHA256Hash copy(original);
    ASSERT_TRUE(copy.HasBytes());
    EXPECT_NE(copy.Bytes(), original.Bytes()) << "a copy must own its bytes";
    EXPECT_EQ(0, memcmp(copy.Bytes(), original.Bytes(), 32));
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
}

TEST(Hash, EmptyDigestsHaveNominalLengthAndNoText) {
    MD5Hash md5;
    SHA1Hash sha1;
    SHA256Hash sha256;
    EXPECT_FALSE(md5.HasBytes());
    EXPECT_EQ(md5.Length(), 16u);
    EXPECT_EQ(sha1.Length(), 20u);
    EXPECT_EQ(sha256.Length(), 32u);
    EXPECT_TRUE(sha256.Text().empty());
    SHA1Hash copy(sha1);
    EXPECT_FALSE(copy.HasBytes());

    const unsigned char md5Bytes[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                        0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
    MD5Hash known(reinterpret_cast<const char*>(md5Bytes));
    EXPECT_EQ(known.Text(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Hash, SetHashFromTextDecodesAndKeepsText) {
    SHA256Hash h;
    const std::string lower = "00ff" + std::string(60, '0');
    h.SetHash(lower);
    EXPECT_EQ(h.Text(), lower);
    EXPECT_EQ(h.Bytes()[0], 0x00);
    EXPECT_EQ(h.Bytes()[1], 0xff);
    for (int i = 2; i < 32; ++i) {
        EXPECT_EQ(h.Bytes()[i], 0) << i;
    }

    // Upper case decodes to the same bytes; the text is kept as given, and a
    // copy rebuilds it in lower case.
    SHA256Hash upper;
    const std::string upperText = "ABCDEF" + std::string(58, '9');
    upper.SetHash(upperText);
    SHA256Hash lowerTwin;
    lowerTwin.SetHash(std::string("abcdef") + std::string(58, '9'));
    EXPECT_EQ(0, memcmp(upper.Bytes(), lowerTwin.Bytes(), 32));
    EXPECT_EQ(upper.Text(), upperText);
    SHA256Hash copy(upper);
    EXPECT_EQ(copy.Text(), lowerTwin.Text());
}

TEST(Hash, SetHashFromTextNeverOverrunsWhateverItIsGiven) {
    // Oversized, short, odd-length and non-hex inputs are all taken without
    // writing past the 32 bytes (AddressSanitizer checks the bound in CI).
    SHA256Hash h;
    h.SetHash(std::string(10000, 'f'));
    for (int i = 0; i < 32; ++i) {
        EXPECT_EQ(h.Bytes()[i], 0xff);
    }
    h.SetHash(std::string("abc"));
    EXPECT_EQ(h.Bytes()[0], 0xab);
    EXPECT_EQ(h.Bytes()[1], 0x00);
    h.SetHash(std::string(""));
    EXPECT_EQ(h.Length(), 32u);
    // Non-hex characters decode leniently instead of being rejected: 'g' and
    // 'z' fall on zero slots, '/' on a zero slot too.
    h.SetHash(std::string("gz/0") + std::string(60, '1'));
    EXPECT_EQ(h.Bytes()[0], 0x00);
    EXPECT_EQ(h.Bytes()[1], 0x00);
    EXPECT_EQ(h.Bytes()[2], 0x11);

    // The raw-bytes form ignores a null pointer.
    SHA256Hash raw;
    raw.SetHash(static_cast<const char*>(nullptr));
    EXPECT_FALSE(raw.HasBytes());
}

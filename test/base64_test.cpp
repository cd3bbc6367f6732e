#include "quorel/configmanager/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Quorel::Iot::Configmanager;

namespace {

std::string encoded(const std::string& in) {
    std::string out = "stale";
    base64_encode(in, out);
    return out;
}

std::string decoded(const std::string& in) {
    std::string out = "stale";
    base64_decode(in, out);
    return out;
}

}  // namespace

TEST(ABase64Codec, RoundTripsTheRfc4648Vectors) {
    const char* const vectors[][2] = {{"", ""},
                                      {"f", "Zg=="},
                                      {"fo", "Zm8="},
                                      {"foo", "Zm9v"},
                                      {"foob", "Zm9vYg=="},
                                      {"fooba", "Zm9vYmE="},
                                      {"foobar", "Zm9vYmFy"},
                                      {"\xfb\xff", "+/8="}};
    for (const auto& vector : vectors) {
        EXPECT_EQ(encoded(vector[0]), vector[1]);
        EXPECT_EQ(decoded(vector[1]), vector[0]);
    }
    char dst[16];
    EXPECT_EQ(base64_encode_block(dst, reinterpret_cast<const unsigned char*>("fooba"), 5), 8);
}

TEST(ABase64Decoder, IsLenientAboutPadding) {
    EXPECT_EQ(decoded("Zm9vYg"), "foob");
    EXPECT_EQ(decoded("Zg==Zm8="), "f");
    EXPECT_EQ(decoded("Z"), "");
    EXPECT_EQ(decoded("Zm9vZ"), "foo");
    // More padding than the length formula allows for must not overrun the buffer.
    EXPECT_EQ(decoded("Zm9v===="), "foo");
    EXPECT_EQ(decoded("===="), "stale");
    EXPECT_EQ(base64_decoded_length("Zg==Zm8=", 8), 5);
}

TEST(ABase64Decoder, CutsTheResultAtTheFirstNulByte) { EXPECT_EQ(decoded(encoded(std::string("ab\0cd", 5))), "ab"); }

TEST(ABase64Decoder, CorruptsOnlyTheGroupHoldingACharacterOutsideTheAlphabet) {
    for (const char* text : {"Zm9v\nmFy", "Zm9vY-Fy"}) {
        const std::string out = decoded(text);
        ASSERT_EQ(out.size(), 6u) << text;
        EXPECT_EQ(out.substr(0, 3), "foo");
        EXPECT_NE(out.substr(3), "bar");
    }
    EXPECT_EQ(base64_char_value('\x80'), -1);
    EXPECT_EQ(base64_char_value('/'), 63);
}

// Each group of four characters decodes on its own, wherever a bad character or padding falls:
// text built from groups decodes to the groups' decodings one after the other.
TEST(ABase64Decoder, DecodesEachGroupOnItsOwnWhereverABadCharacterOrPaddingFalls) {
    const std::vector<std::string> groups = {"Zm9v", "YmFy", "\nmFy", "Y-Fy", "YmF\x80", "Zg==", "Zm8="};
    for (const std::string& first : groups) {
        for (const std::string& second : groups) {
            for (const std::string& third : groups) {
                const std::string text = first + second + third;
                std::string expected;
                for (const std::string& group : {first, second, third}) {
                    if (group.find('=') != std::string::npos) {
                        expected += decoded(group);
                        break;
                    }
                    std::string bytes(3, '\0');
                    base64_decode_block(reinterpret_cast<unsigned char*>(&bytes[0]), group.data(), 4);
                    expected += bytes;
                }
                EXPECT_EQ(decoded(text), expected.substr(0, expected.find('\0'))) << text;
            }
        }
    }
}

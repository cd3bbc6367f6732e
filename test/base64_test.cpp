#include "quorel/configmanager/base64.h"

#include <gtest/gtest.h>

#include <string>

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

TEST(ABase64Encoder, ProducesTheRfc4648Vectors) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("foob"), "Zm9vYg==");
    EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
}

TEST(ABase64Encoder, UsesTheLastTwoAlphabetCharactersForHighBits) {
    EXPECT_EQ(encoded("\xfb\xff"), "+/8=");
    EXPECT_EQ(encoded("{\"data\":\"42\",\"ts\":1700000000000}\n"), "eyJkYXRhIjoiNDIiLCJ0cyI6MTcwMDAwMDAwMDAwMH0K");
}

TEST(ABase64Encoder, ReportsTheCharactersWrittenByTheBlockFunction) {
    char dst[16];
    EXPECT_EQ(base64_encode_block(dst, reinterpret_cast<const unsigned char*>("fooba"), 5), 8);
    EXPECT_STREQ(dst, "Zm9vYmE=");
}

TEST(ABase64Decoder, DecodesTheRfc4648Vectors) {
    EXPECT_EQ(decoded("Zg=="), "f");
    EXPECT_EQ(decoded("Zm8="), "fo");
    EXPECT_EQ(decoded("Zm9v"), "foo");
    EXPECT_EQ(decoded("Zm9vYmFy"), "foobar");
    EXPECT_EQ(decoded("+/8="), "\xfb\xff");
}

TEST(ABase64Decoder, AcceptsMissingPadding) { EXPECT_EQ(decoded("Zm9vYg"), "foob"); }

TEST(ABase64Decoder, StopsAtTheFirstPaddingCharacter) { EXPECT_EQ(decoded("Zg==Zm8="), "f"); }

TEST(ABase64Decoder, YieldsNothingForALoneTrailingCharacter) {
    EXPECT_EQ(decoded("Z"), "");
    EXPECT_EQ(decoded("Zm9vZ"), "foo");
}

TEST(ABase64Decoder, CorruptsOnlyTheGroupHoldingACharacterOutsideTheAlphabet) {
    const std::string with_break = decoded("Zm9v\nmFy");
    ASSERT_EQ(with_break.size(), 6u);
    EXPECT_EQ(with_break.substr(0, 3), "foo");
    EXPECT_NE(with_break.substr(3), "bar");

    const std::string with_minus = decoded("Zm9vY-Fy");
    ASSERT_EQ(with_minus.size(), 6u);
    EXPECT_EQ(with_minus.substr(0, 3), "foo");
    EXPECT_NE(with_minus.substr(3), "bar");
}

TEST(ABase64Decoder, TreatsHighBytesAsOutsideTheAlphabet) {
    EXPECT_EQ(base64_char_value('\x80'), -1);
    EXPECT_EQ(base64_char_value('\xff'), -1);
    EXPECT_EQ(base64_char_value('-'), -1);
    EXPECT_EQ(base64_char_value('/'), 63);
}

TEST(ABase64Decoder, CutsTheResultAtTheFirstNulByte) { EXPECT_EQ(decoded(encoded(std::string("ab\0cd", 5))), "ab"); }

TEST(ABase64Decoder, SurvivesMorePaddingThanTheLengthFormulaExpects) { EXPECT_EQ(decoded("Zm9v===="), "foo"); }

TEST(ABase64Decoder, LeavesTheOutputAloneWhenThePaddingOutweighsTheText) { EXPECT_EQ(decoded("===="), "stale"); }

TEST(TheBase64LengthFunctions, RoundUpToWholeGroupsAndDiscountTrailingPadding) {
    EXPECT_EQ(base64_encoded_length(0), 0);
    EXPECT_EQ(base64_encoded_length(1), 4);
    EXPECT_EQ(base64_encoded_length(3), 4);
    EXPECT_EQ(base64_encoded_length(4), 8);
    EXPECT_EQ(base64_decoded_length("Zg==", 4), 1);
    EXPECT_EQ(base64_decoded_length("Zm9vYg", 6), 4);
    EXPECT_EQ(base64_decoded_length("Zg==Zm8=", 8), 5);
}

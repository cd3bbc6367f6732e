#include "json_text.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace Quorel::Iot::Configmanager;

namespace {

Json::Value parsed(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
    return value;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string library_quoted(const std::string& text) {
    std::string written = Json::FastWriter().write(Json::Value(text));
    written.pop_back();
    return written;
}

Json::Value lenient(const std::string& text) {
    Json::Reader reader;
    Json::Value value;
    EXPECT_TRUE(reader.parse(text, value, true)) << text;
    return value;
}
#pragma GCC diagnostic pop

Json::Value store_of(size_t keys) {
    Json::Value doc;
    for (size_t i = 0; i < keys; ++i) doc["config"]["bench.key." + std::to_string(100000 + i)] = "dmFsdWU=";
    doc["metadata"]["subscribe"]["bench.key.100001"]["iot.observer"] = 1;
    return doc;
}

}  // namespace

TEST(AStyledHead, IsTheHeadOfTheWholeStyledTextForEveryShapeAndLimit) {
    std::vector<Json::Value> documents = {
        store_of(3000),
        store_of(3),
        parsed("[1, 2, 3]"),
        parsed("[" + std::string("0,", 0) + "0" +
               [] {
                   std::string more;
                   for (int i = 1; i < 40; ++i) more += "," + std::to_string(i);
                   return more;
               }() +
               "]"),
        parsed("// before\n{\"a\": [ {\"b\": null} ], /* inside */ \"c\": \"\\u00e9\\n\", \"d\": {}} // after"),
        parsed("\"just a string\""),
        parsed("{\"big\": [" + std::string(5000, ' ') + "[], [], [1], {\"x\": [[[]]]}]}"),
    };
    Json::Value wide(Json::arrayValue);
    for (int i = 0; i < 5000; ++i) wide.append(i % 7);
    documents.push_back(wide);
    for (const Json::Value& doc : documents) {
        const std::string whole = doc.toStyledString();
        for (size_t limit : {0, 1, 7, 30, 47, 48, 75, 200, 2047, 4096, 100000}) {
            EXPECT_EQ(styled_head(doc, limit), whole.substr(0, limit)) << "limit " << limit << " of\n" << whole;
        }
    }
}

TEST(RenderStyled, GivesTheLibrarysSavedTextForEveryShapeAndReusesTheBuffer) {
    Json::Value types;
    types["config"]["int"] = -42;
    types["config"]["uint"] = Json::UInt64(18446744073709551615ULL);
    types["config"]["least"] = Json::Int64(-9223372036854775807LL - 1);
    types["config"]["real"] = 0.1;
    types["config"]["whole real"] = 3.0;
    types["config"]["huge real"] = 1e300;
    types["config"]["true"] = true;
    types["config"]["null"] = Json::Value();
    types["config"]["empty object"] = Json::Value(Json::objectValue);
    types["config"]["empty array"] = Json::Value(Json::arrayValue);
    types["config"]["nested"]["deeper"]["deepest"] = "x";
    types["config"]["esc\"a\\pe\t"] = "tab\tquote\"back\\slash\nline\r\b\f";
    types["config"][std::string("caf\xc3\xa9 nul\0", 10)] = "\x01\x7f\xff";
    types["metadata"]["subscribe"]["k"]["iot.observer"] = 1;
    const std::vector<Json::Value> documents = {
        store_of(3000),
        types,
        Json::Value(Json::objectValue),
        Json::Value(Json::arrayValue),
        Json::Value("just a string"),
        Json::Value(7),
        Json::Value(),
        // The library lays arrays out by their width and writes comments: its own writer does those.
        parsed("{\"a\": [1, 2, 3], \"b\": {\"c\": [[], {\"d\": [\"x\"]}]}}"),
        parsed("// before\n{\"a\": {\"b\": null}, /* inside */ \"c\": \"\\u00e9\"} // after"),
        parsed("[" + std::string(100, '1') + ", {}]"),
    };
    std::string out = "left over from the previous save";
    for (const Json::Value& doc : documents) {
        render_styled(doc, out);
        EXPECT_EQ(out, Json::writeString(Json::StreamWriterBuilder(), doc));
    }
}

TEST(AppendQuoted, QuotesAsTheJsonLibraryDoes) {
    const std::vector<std::string> texts = {"",
                                            "plain text / with slash",
                                            "a\"quote",
                                            "back\\slash",
                                            "line\nbreak\ttab",
                                            "\x01\x1f control",
                                            "\x7f delete",
                                            "caf\xc3\xa9 \xe2\x9c\x93 \xf0\x9f\x98\x80",
                                            "\xff\xfe not UTF-8",
                                            std::string("nul\0inside", 10)};
    for (const std::string& text : texts) {
        std::string out = "[";
        append_quoted(out, text.data(), text.size());
        EXPECT_EQ(out, "[" + library_quoted(text)) << text;
    }
}

TEST(APlainEnvelope, IsReadAsTheLenientReaderReadsItAndAnythingElseIsLeftToTheReader) {
    struct CCase {
        std::string text;
        bool plain;
    };
    const std::vector<CCase> cases = {
        {"{\"data\":\"value-000001\",\"ts\":1700000000000}\n", true},
        {"{\"data\":\"\",\"ts\":0}", true},
        {"{\"data\":\"x\",\"ts\":9999999999999999999}\n", true},
        {"{\"data\":\"x\",\"ts\":18446744073709551615}\n", false},  // 20 digits
        {"{\"data\":\"x\",\"ts\":01}", false},
        {"{\"data\":\"a\\\"b\",\"ts\":1}", false},
        {"{\"data\":\"caf\xc3\xa9\",\"ts\":1}", false},
        {"{\"data\": \"x\",\"ts\":1}", false},
        {"{\"data\":\"x\",\"ts\":1}\n\n", false},
        {"{\"data\":\"x\",\"ts\":1} ", false},
        {"{\"data\":\"x\",\"ts\":-1}", false},
        {"{\"data\":\"x\",\"ts\":1.5}", false},
        {"{\"ts\":1,\"data\":\"x\"}", false},
        {"{\"data\":\"x\",\"ts\":1", false},
    };
    for (const CCase& c : cases) {
        std::string data = c.text;
        uint64_t ts = 7;
        ASSERT_EQ(unwrap_plain_envelope(data, ts), c.plain) << c.text;
        if (!c.plain) {
            EXPECT_EQ(data, c.text);
            EXPECT_EQ(ts, 7u);
            continue;
        }
        const Json::Value reference = lenient(c.text);
        EXPECT_EQ(data, reference["data"].asString()) << c.text;
        EXPECT_EQ(ts, reference["ts"].asUInt64()) << c.text;
    }
}

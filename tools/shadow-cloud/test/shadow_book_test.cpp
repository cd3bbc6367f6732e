#include "shadow_book.h"

#include <gtest/gtest.h>

using namespace ShadowCloud;

namespace {

Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(CShadowBook::parse(text, value)) << text;
    return value;
}

Json::Value values(const std::string& text) { return parsed(text); }

}  // namespace

TEST(AShadowBook, AnswersAGetWithAReplyHoldingDesiredReportedAndTheVersion) {
    CShadowBook book;
    std::string reason;
    ASSERT_TRUE(book.report("pk01/gw-7", values(R"({"gw_orlo_project":"proj-a"})"), reason));
    COutgoing control;
    ASSERT_TRUE(book.desire("pk01/gw-7", values(R"({"gw_orlo_level":3})"), control, reason));

    const CHandled handled = book.handle_update("/shadow/update/pk01/gw-7", R"({"method":"get"})");
    EXPECT_EQ("get", handled.method);
    EXPECT_EQ("", handled.note);
    ASSERT_EQ(1u, handled.outgoing.size());
    EXPECT_EQ("/shadow/get/pk01/gw-7", handled.outgoing[0].topic);
    const Json::Value reply = parsed(handled.outgoing[0].payload);
    EXPECT_EQ("reply", reply["method"].asString());
    EXPECT_EQ(3, reply["payload"]["state"]["desired"]["gw_orlo_level"].asInt());
    EXPECT_EQ("proj-a", reply["payload"]["state"]["reported"]["gw_orlo_project"].asString());
    EXPECT_EQ(1u, reply["version"].asUInt64());
}

TEST(AShadowBook, AnswersAGetForADeviceItHasNeverSeenWithAnEmptyShadow) {
    CShadowBook book;
    const CHandled handled = book.handle_update("/shadow/update//", R"({"method":"get"})");
    ASSERT_EQ(1u, handled.outgoing.size());
    EXPECT_EQ("/shadow/get//", handled.outgoing[0].topic);
    const Json::Value reply = parsed(handled.outgoing[0].payload);
    EXPECT_TRUE(reply["payload"]["state"]["desired"].isObject());
    EXPECT_EQ(0u, reply["payload"]["state"]["desired"].size());
    EXPECT_EQ(0u, reply["version"].asUInt64());
}

TEST(AShadowBook, MergesAnUpdatesReportedStateAndTakesItsVersion) {
    CShadowBook book;
    book.handle_update("/shadow/update/pk/d",
                       R"({"method":"update","state":{"reported":{"a":"1","b":2}},"version":7})");
    book.handle_update("/shadow/update/pk/d",
                       R"({"method":"update","state":{"reported":{"b":null,"c":true}},"version":8})");
    const Json::Value shadow = book.show("pk/d");
    EXPECT_EQ(parsed(R"({"a":"1","c":true})"), shadow["reported"]);
    EXPECT_EQ(8u, shadow["version"].asUInt64());
    // Without a usable version the cloud counts on by itself.
    book.handle_update("/shadow/update/pk/d", R"({"method":"update","state":{"reported":{}},"version":"x"})");
    EXPECT_EQ(9u, book.show("pk/d")["version"].asUInt64());
}

TEST(AShadowBook, PushesTheWholeDesiredStateWithTheNextVersion) {
    CShadowBook book;
    std::string reason;
    COutgoing control;
    ASSERT_TRUE(book.desire("pk01/gw-7", values(R"({"gw_orlo_level":3,"gw_vexa_switch":1})"), control, reason));
    ASSERT_TRUE(book.desire("pk01/gw-7", values(R"({"gw_orlo_level":null,"gw_orlo_switch":0})"), control, reason));
    EXPECT_EQ("/shadow/get/pk01/gw-7", control.topic);
    const Json::Value document = parsed(control.payload);
    EXPECT_EQ("control", document["method"].asString());
    EXPECT_EQ(parsed(R"({"gw_vexa_switch":1,"gw_orlo_switch":0})"), document["payload"]["state"]["desired"]);
    EXPECT_EQ(2u, document["version"].asUInt64());
}

TEST(AShadowBook, IgnoresDocumentsItCannotUseAndSaysWhy) {
    CShadowBook book;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/shadow/update/pk/d", "not json"},
        {"/shadow/update/pk/d", "[1,2]"},
        {"/shadow/update/pk/d", R"({"no":"method"})"},
        {"/shadow/update/pk/d", R"({"method":"update","state":{"reported":[1]}})"},
        {"/shadow/update/pk/d", R"({"method":"update","state":"x"})"},
        {"/shadow/update/pk/d", R"({"method":"reboot"})"},
        {"/shadow/get/pk/d", R"({"method":"get"})"},
        {"/shadow/update/pk/d", std::string(40000, '[') + std::string(40000, ']')},
    };
    for (const auto& c : cases) {
        const CHandled handled = book.handle_update(c.first, c.second);
        EXPECT_NE("", handled.note) << c.second.substr(0, 60);
        EXPECT_TRUE(handled.outgoing.empty());
    }
    EXPECT_FALSE(book.has("pk/d"));
}

TEST(AShadowBook, StaysWithinItsBoundsWhateverClientsPublish) {
    CShadowBook book;
    for (size_t i = 0; i < CShadowBook::kMaxDevices + 5; ++i)
        book.handle_update("/shadow/update/pk/" + std::to_string(i), R"({"method":"get"})");
    EXPECT_EQ(CShadowBook::kMaxDevices, book.show_all().size());

    Json::Value many(Json::objectValue);
    for (size_t i = 0; i <= CShadowBook::kMaxMembers; ++i) many["k" + std::to_string(i)] = 1;
    std::string reason;
    EXPECT_FALSE(book.report("pk/0", many, reason));
    EXPECT_EQ("too many members", reason);
    EXPECT_EQ(0u, book.show("pk/0")["reported"].size());
}

TEST(AShadowBook, ReadsCommandLineValuesAsJsonScalarsOrText) {
    const std::vector<std::pair<std::string, Json::Value>> cases = {
        {"k=3", Json::Value(3)},
        {"k=true", Json::Value(true)},
        {"k=null", Json::Value()},
        {"k=\"3\"", Json::Value("3")},
        {"k=proj-a", Json::Value("proj-a")},
        {"k=", Json::Value("")},
        {"k={\"a\":1}", Json::Value("{\"a\":1}")},
        {"k=a=b", Json::Value("a=b")},
        {"k=2.5", Json::Value(2.5)},
    };
    for (const auto& c : cases) {
        std::string key;
        Json::Value value;
        ASSERT_TRUE(CShadowBook::parse_assignment(c.first, key, value)) << c.first;
        EXPECT_EQ("k", key);
        EXPECT_EQ(c.second, value) << c.first;
    }
    std::string key;
    Json::Value value;
    EXPECT_FALSE(CShadowBook::parse_assignment("novalue", key, value));
    EXPECT_FALSE(CShadowBook::parse_assignment("=3", key, value));
    EXPECT_FALSE(CShadowBook::parse_assignment("k=\xff", key, value));
}

TEST(AShadowBook, AcceptsOnlyDevicesOfTheFormProductKeySlashName) {
    EXPECT_TRUE(CShadowBook::valid_device("pk01/gw-7"));
    for (const std::string& bad :
         std::vector<std::string>{"", "pk01", "/gw", "pk/", "pk/+", "pk/#", std::string("pk/\0x", 4),
                                  std::string("pk/\xc3", 4), "pk/" + std::string(600, 'a')}) {
        EXPECT_FALSE(CShadowBook::valid_device(bad)) << bad;
    }
}

TEST(AShadowBook, KeepsItsShadowsAcrossASaveAndALoad) {
    CShadowBook book;
    std::string reason;
    COutgoing control;
    ASSERT_TRUE(book.desire("pk/a", values(R"({"x":"1"})"), control, reason));
    ASSERT_TRUE(book.report("pk/b", values(R"({"y":2})"), reason));
    CShadowBook copy;
    ASSERT_TRUE(copy.load(book.save(), reason)) << reason;
    EXPECT_EQ(book.show_all(), copy.show_all());

    for (const std::string& bad :
         std::vector<std::string>{"[]", "{\"pk/a\":3}", "{\"pk/a\":{\"version\":-1}}", "{\"pk/a\":{\"desired\":[]}}",
                                  "{\"p+k/a\":{}}", "nonsense"}) {
        EXPECT_FALSE(copy.load(bad, reason)) << bad;
        EXPECT_EQ(book.show_all(), copy.show_all()) << "a refused load changed the book: " << bad;
    }
}

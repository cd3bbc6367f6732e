// export and import against the real service: the default-file layout with base64 values, a round
// trip that keeps timestamps, a dry run that changes nothing, and documents that are refused whole.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "cmctl_fixture.h"
#include "quorel/testsupport/fake_subscriber.h"

using namespace Quorel::Iot::Testing;

namespace {

using ADocumentCmctl = CCmctlTest;

Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

TEST_F(ADocumentCmctl, ExportsTheLayoutTheServiceReadsAtStart) {
    CProcessResult r = cmctl({"export"});
    ASSERT_EQ(0, r.status) << r.err;
    // The service was started from this very layout; its stored texts come back unchanged.
    Json::Value expected = parse(default_document());
    EXPECT_EQ(expected, parse(r.out));
    EXPECT_EQ('\n', r.out.back());

    ASSERT_EQ(0, cmctl({"set", "gw_text", "a\nb \xe2\x82\xac"}).status);
    ASSERT_EQ(0, cmctl({"set", "--ts=1700000000999", "gw_stamped", "x"}).status);
    r = cmctl({"export", "^gw_[st]"});
    ASSERT_EQ(0, r.status) << r.err;
    const Json::Value document = parse(r.out);
    EXPECT_EQ(Json::Value(Json::objectValue), document["metadata"]);
    EXPECT_EQ((std::vector<std::string>{"gw_stamped", "gw_text"}), document["config"].getMemberNames());
    EXPECT_EQ(base64("a\nb \xe2\x82\xac"), document["config"]["gw_text"].asString());
    EXPECT_EQ(base64(envelope("x", 1700000000999ULL)), document["config"]["gw_stamped"].asString());

    r = cmctl({"export", "^none"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);
}

TEST_F(ADocumentCmctl, ImportsOnlyWhatDiffersAndKeepsTimestamps) {
    const CProcessResult exported = cmctl({"export"});
    ASSERT_EQ(0, exported.status) << exported.err;
    const std::string path = m_dir + "/backup.json";
    std::ofstream(path) << exported.out;

    ASSERT_EQ(0, cmctl({"set", "gw_orlo_level", "7"}).status);
    ASSERT_EQ(0, cmctl({"set", "--ts=1800000000000", "gw_vexa_serialNumber", "SN-0002"}).status);
    ASSERT_EQ(0, cmctl({"unset", "gw_orlo_project"}).status);
    ASSERT_EQ(0, cmctl({"set", "gw_extra", "stays"}).status);

    CProcessResult r = cmctl({"import", "--dry-run", path});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(
        "change gw_orlo_level: 7 -> 2\n"
        "add gw_orlo_project = gateway-logs\n"
        "change gw_vexa_serialNumber: SN-0002 @2027-01-15T08:00:00.000+00:00 -> SN-0001 "
        "@2023-11-14T22:13:20.000+00:00\n"
        "1 to add, 2 to change, 0 to remove, 0 unchanged\n",
        r.out);
    EXPECT_EQ("7\n", cmctl({"get", "gw_orlo_level"}).out);

    // Observers hear of the changed keys only.
    CFakeSubscriber observer(address(), "iot.test.observer");
    ASSERT_TRUE(observer.start());
    ASSERT_EQ(0, cmctl({"subscribe", "iot.test.observer", "gw_orlo_level", "observer"}).status);
    ASSERT_EQ(0, cmctl({"set", "gw_orlo_level", "2"}).status);
    ASSERT_TRUE(observer.wait_for_notifications(1));

    r = cmctl({"import", path});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out + r.err);
    EXPECT_EQ(
        "KEY                   TIME                           VALUE\n"
        "gw_extra              -                              stays\n"
        "gw_orlo_level         -                              2\n"
        "gw_orlo_project       -                              gateway-logs\n"
        "gw_vexa_serialNumber  2023-11-14T22:13:20.000+00:00  SN-0001\n",
        cmctl({"dump"}).out);
    EXPECT_EQ("0 to add, 0 to change, 0 to remove, 3 unchanged\n", cmctl({"import", "--dry-run", path}).out);
    ASSERT_EQ(0, cmctl({"set", "gw_orlo_level", "3"}).status);
    ASSERT_TRUE(observer.wait_for_notifications(2));
    EXPECT_EQ(2u, observer.notifications().size());

    // An empty value deletes; from standard input too.
    const std::string removal = R"({"config": {"gw_extra": ""}})";
    EXPECT_EQ("remove gw_extra\n0 to add, 0 to change, 1 to remove, 0 unchanged\n",
              cmctl({"import", "--dry-run", "-"}, removal).out);
    EXPECT_EQ(0, cmctl({"import", "-"}, removal).status);
    EXPECT_EQ(3, cmctl({"get", "gw_extra"}).status);
}

TEST_F(ADocumentCmctl, RefusesABrokenDocumentWholeAndGoesOnPastARefusingOwner) {
    const std::string good = base64("new");
    for (const std::string& document : {
             std::string("not json"),
             std::string(R"({"settings": {}})"),
             R"({"config": {"gw_a": ")" + good + R"(", "gw_b": "no base64!"}})",
             R"({"config": {"gw_a": ")" + good + R"(", "gw_b": 5}})",
             R"({"config": {"gw_a": ")" + good + R"(", "gw_b": ")" + base64("\xff") + R"("}})",
         }) {
        const CProcessResult r = cmctl({"import", "-"}, document);
        EXPECT_EQ(2, r.status) << document;
        EXPECT_EQ(0u, r.err.find("cmctl: standard input: not a default-configuration document: ")) << r.err;
    }
    EXPECT_EQ(3, cmctl({"get", "gw_a"}).status);

    // JSON that decodes to text libdbus refuses (a lone surrogate) goes to the service as the
    // stored text it is, which is UTF-8.
    const std::string surrogate = R"({"data":"\udc00","ts":5})";
    CProcessResult r = cmctl({"import", "-"}, R"({"config": {"gw_sur": ")" + base64(surrogate) + R"("}})");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("gw_sur\n", cmctl({"keys", "^gw_sur"}).out);

    const CProcessResult missing = cmctl({"import", m_dir + "/none.json"});
    EXPECT_EQ(1, missing.status);
    EXPECT_EQ("cmctl: " + m_dir + "/none.json: No such file or directory\n", missing.err);

    CFakeSubscriber owner(address(), "iot.test.owner");
    owner.answer_code(99);
    ASSERT_TRUE(owner.start());
    ASSERT_EQ(0, cmctl({"subscribe", "iot.test.owner", "gw_b", "owner"}).status);
    r = cmctl({"import", "-"},
              R"({"config": {"gw_a": ")" + good + R"(", "gw_b": ")" + good + R"(", "gw_c": ")" + good + R"("}})");
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("cmctl: gw_b: refused by the key's owner (99)\n", r.err);
    EXPECT_EQ("new\n", cmctl({"get", "gw_a"}).out);
    EXPECT_EQ(3, cmctl({"get", "gw_b"}).status);
    EXPECT_EQ("new\n", cmctl({"get", "gw_c"}).out);
}

}  // namespace

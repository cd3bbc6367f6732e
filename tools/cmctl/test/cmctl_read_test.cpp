// get, dump and keys against the real service: values as stored, timestamps, the table and the
// service's JSON, a missing key, and values with newlines, non-ASCII text and invalid bytes.
#include <gtest/gtest.h>

#include "cmctl_fixture.h"

using namespace Quorel::Iot::Testing;

namespace {

using AReadingCmctl = CCmctlTest;

TEST_F(AReadingCmctl, PrintsAValueAndItsTimestampInLocalTime) {
    CProcessResult r = cmctl({"get", "gw_orlo_level"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("2\n", r.out);
    EXPECT_EQ("", r.err);

    r = cmctl({"get", "--raw", "gw_orlo_project"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("gateway-logs", r.out);

    // The envelope is unwrapped; its timestamp is printed in milliseconds and in the local zone.
    r = cmctl({"get", "gw_vexa_serialNumber"});
    EXPECT_EQ("SN-0001\n", r.out);
    r = cmctl({"get", "--ts", "gw_vexa_serialNumber"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("SN-0001\n1700000000000 2023-11-14T22:13:20.000+00:00\n", r.out);
    // --address wins over the environment.
    const std::string elsewhere = "CONFIG_MANAGER_BUS_ADDRESS=unix:path=/nonexistent/bus";
    r = run_cmctl({"--address", address(), "get", "--ts", "gw_vexa_serialNumber"}, {"TZ=XYZ-1", elsewhere});
    EXPECT_EQ("SN-0001\n1700000000000 2023-11-14T23:13:20.000+01:00\n", r.out) << r.err;
    r = run_cmctl({"get", "--address=" + address(), "--ts", "gw_vexa_serialNumber"}, {"TZ=XYZ+3:30", elsewhere});
    EXPECT_EQ("SN-0001\n1700000000000 2023-11-14T18:43:20.000-03:30\n", r.out) << r.err;
}

TEST_F(AReadingCmctl, ReportsAMissingKeyWithItsCodeAndStatusThree) {
    CProcessResult r = cmctl({"get", "gw_foo"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("cmctl: gw_foo: key not found (100100)\n", r.err);

    // A key stored without a timestamp has none to show.
    r = cmctl({"get", "--ts", "gw_orlo_level"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("cmctl: gw_orlo_level: key not found, or it has no timestamp (100100)\n", r.err);

    r = cmctl({"keys", "^nothing_here"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("cmctl: ^nothing_here: no key matches, or the pattern was refused (100100)\n", r.err);
    r = cmctl({"dump", "^nothing_here"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", r.out);

    // A key whose name holds a newline is named on one line.
    r = cmctl({"get", "gw\nfoo"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("cmctl: gw\\nfoo: key not found (100100)\n", r.err);
}

TEST_F(AReadingCmctl, ListsKeysAndAnAlignedTableOrTheServicesJson) {
    CProcessResult r = cmctl({"keys"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("gw_orlo_level\ngw_orlo_project\ngw_vexa_serialNumber\n", r.out);
    r = cmctl({"keys", "orlo"});
    EXPECT_EQ("gw_orlo_level\ngw_orlo_project\n", r.out);

    r = cmctl({"dump"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(
        "KEY                   TIME                           VALUE\n"
        "gw_orlo_level         -                              2\n"
        "gw_orlo_project       -                              gateway-logs\n"
        "gw_vexa_serialNumber  2023-11-14T22:13:20.000+00:00  SN-0001\n",
        r.out);

    r = cmctl({"dump", "--json", "^gw_vexa\\|level$"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(
        R"([{"key":"gw_orlo_level","ts":0,"value":"2"},{"key":"gw_vexa_serialNumber","ts":1700000000000,"value":"SN-0001"}])"
        "\n",
        r.out);
}

TEST_F(AReadingCmctl, KeepsNewlinesAndNonAsciiTextAndEscapesThemInTheTable) {
    const std::string multiline = "first line\nzweite Zeile \xc3\xa4\xe2\x82\xac\n\tend";
    CProcessResult r = cmctl({"set", "gw_text", multiline});
    ASSERT_EQ(0, r.status) << r.err;
    r = cmctl({"get", "gw_text"});
    EXPECT_EQ(multiline + "\n", r.out);
    r = cmctl({"get", "--raw", "gw_text"});
    EXPECT_EQ(multiline, r.out);

    // Standard input is taken byte for byte, its trailing newline included.
    const std::string piped = "\xe6\x97\xa5\xe6\x9c\xac back\\slash \"quoted\"\n";
    r = cmctl({"set", "gw_piped", "-"}, piped);
    ASSERT_EQ(0, r.status) << r.err;
    r = cmctl({"get", "--raw", "gw_piped"});
    EXPECT_EQ(piped, r.out);

    r = cmctl({"set", "gw_\xc3\xa4", "x\x01y"});
    ASSERT_EQ(0, r.status) << r.err;

    // One line per key, columns aligned on characters, not bytes.
    r = cmctl({"dump", "^gw_[^ov]"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(
        "KEY       TIME  VALUE\n"
        "gw_piped  -     \xe6\x97\xa5\xe6\x9c\xac back\\\\slash \"quoted\"\\n\n"
        "gw_text   -     first line\\nzweite Zeile \xc3\xa4\xe2\x82\xac\\n\\tend\n"
        "gw_\xc3\xa4      -     x\\x01y\n",
        r.out);
}

TEST_F(AReadingCmctl, RefusesTextThatIsNotUtf8BeforeItReachesTheBus) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"set", "gw_bad", "\xff\xfe"},
             {"set", "gw_\xc3", "value"},
             {"get", "gw_\xff"},
             {"dump", "\xc0\x80"},
             {"subscribe", "iot.x.y", "gw_\xff", "observer"},
             {"watch", "gw_ok", "gw_\xff"},
         }) {
        const CProcessResult r = cmctl(args);
        EXPECT_EQ(2, r.status) << args[0] << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find("is not UTF-8 text")) << r.err;
    }
    CProcessResult r = cmctl({"set", "gw_bad", "-"}, std::string("a\0b", 3));
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("cmctl: set: the value is not UTF-8 text, or holds a NUL byte\nTry 'cmctl set --help'.\n", r.err);
    r = cmctl({"set", "gw_bad", "-"}, "caf\xe9");
    EXPECT_EQ(2, r.status);

    // The service is still there and stored nothing.
    r = cmctl({"get", "gw_bad"});
    EXPECT_EQ(3, r.status) << r.err;
    EXPECT_TRUE(m_service.running());
}

}  // namespace

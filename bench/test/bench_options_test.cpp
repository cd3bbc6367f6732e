// The command line of cm-bench.
#include "bench_options.h"

#include <gtest/gtest.h>

#include <vector>

using Quorel::Iot::Bench::COptions;
using Quorel::Iot::Bench::parse_options;

namespace {

// Parses the arguments over defaults that name both services.
bool parse(std::vector<const char*> args, COptions& options) {
    options.config_manager = "/opt/config-manager";
    options.keychain_devd = "/opt/keychain-devd";
    args.insert(args.begin(), "cm-bench");
    return parse_options(static_cast<int>(args.size()), args.data(), options);
}

}  // namespace

TEST(TheOptions, LeaveThePeerOutUnlessAsked) {
    COptions options;
    ASSERT_TRUE(parse({"--quick", "--out", "/tmp/x.json"}, options));
    EXPECT_FALSE(options.peer_dconf);
    EXPECT_TRUE(options.quick);
    EXPECT_EQ(options.out, "/tmp/x.json");
}

TEST(TheOptions, TakeDconfAsPeerAndLetALaterNoneTurnItOff) {
    COptions options;
    ASSERT_TRUE(parse({"--peer", "dconf"}, options));
    EXPECT_TRUE(options.peer_dconf);
    ASSERT_TRUE(parse({"--peer", "dconf", "--peer", "none"}, options));
    EXPECT_FALSE(options.peer_dconf);
}

TEST(TheOptions, RefuseAnUnknownPeerOrOneWithoutAName) {
    COptions options;
    EXPECT_FALSE(parse({"--peer", "gsettings"}, options));
    EXPECT_FALSE(parse({"--quick", "--peer"}, options));
}

TEST(TheOptions, RefuseARunWithoutTheServiceUnderTest) {
    COptions options;
    const char* args[] = {"cm-bench", "--quick"};
    EXPECT_FALSE(parse_options(2, args, options));
}

// The subscription table on its own: which subscribers a topic reaches, and its bound.
#include "subscription_table.h"

#include <gtest/gtest.h>

namespace {

using Names = std::vector<std::string>;

Names match(const CSubscriptionTable& table, const std::string& topic) {
    Names out = {"left over from an earlier call"};
    table.match(topic, out);
    return out;
}

TEST(ASubscriptionTable, ReachesOnlyTheTopicOfAnExactFilter) {
    CSubscriptionTable table(10);
    ASSERT_TRUE(table.add("shadow/get", "a.adapter"));
    ASSERT_TRUE(table.add("shadow/update", "b.other"));
    EXPECT_EQ(match(table, "shadow/get"), Names({"a.adapter"}));
    EXPECT_EQ(match(table, "shadow/update"), Names({"b.other"}));
    EXPECT_EQ(match(table, "shadow"), Names());
    EXPECT_EQ(match(table, "shadow/get/x"), Names());
}

TEST(ASubscriptionTable, MatchesWildcardsAsMqttDefinesThem) {
    CSubscriptionTable table(10);
    ASSERT_TRUE(table.add("sensors/+/temp", "plus.one"));
    ASSERT_TRUE(table.add("alerts/#", "hash.one"));
    ASSERT_TRUE(table.add("#", "everything.one"));
    EXPECT_EQ(match(table, "sensors/a/temp"), Names({"everything.one", "plus.one"}));
    EXPECT_EQ(match(table, "sensors/a/b/temp"), Names({"everything.one"}));
    // "#" also matches its parent level.
    EXPECT_EQ(match(table, "alerts"), Names({"everything.one", "hash.one"}));
    EXPECT_EQ(match(table, "alerts/x/y"), Names({"everything.one", "hash.one"}));
    // Topics starting with $ are not matched by a leading wildcard.
    EXPECT_EQ(match(table, "$SYS/broker/uptime"), Names());
}

TEST(ASubscriptionTable, NamesASubscriberMatchedByTwoFiltersOnce) {
    CSubscriptionTable table(10);
    ASSERT_TRUE(table.add("a/b", "one.name"));
    ASSERT_TRUE(table.add("a/+", "one.name"));
    ASSERT_TRUE(table.add("a/#", "one.name"));
    EXPECT_EQ(match(table, "a/b"), Names({"one.name"}));
}

TEST(ASubscriptionTable, BoundsPairsButAcceptsKnownPairsWhenFull) {
    CSubscriptionTable table(2);
    EXPECT_TRUE(table.add("t/1", "x.a"));
    EXPECT_TRUE(table.add("t/1", "x.b"));
    EXPECT_EQ(table.size(), 2u);
    EXPECT_FALSE(table.add("t/2", "x.a"));
    EXPECT_FALSE(table.add("t/1", "x.c"));
    EXPECT_TRUE(table.add("t/1", "x.a"));  // known already: no new entry
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table.filters(), Names({"t/1"}));
    EXPECT_TRUE(table.contains("t/1", "x.b"));
    EXPECT_FALSE(table.contains("t/2", "x.a"));
}

TEST(ASubscriptionTable, ListsEachFilterOnceWhateverItsSubscribers) {
    CSubscriptionTable table(10);
    table.add("a/#", "x.a");
    table.add("a/#", "x.b");
    table.add("b", "x.a");
    Names filters = table.filters();
    std::sort(filters.begin(), filters.end());
    EXPECT_EQ(filters, Names({"a/#", "b"}));
}

}  // namespace

#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/keychain/keychain.h"
#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/keychain_environment.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Configmanager;
using namespace Quorel::Iot::Testing;

namespace {

const char kItem[] = "_configmanager.config.file";
// {"config": {"gw_a": "9"}} as the store writes it, with its NUL.
const std::string kStoredNine("{\n\t\"config\" : \n\t{\n\t\t\"gw_a\" : \"OQ==\"\n\t}\n}", 41);

class AKeychainBackedStore : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_env.start());
        char dir[] = "/tmp/cm_store_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        // gw_a "1", gw_new "3"
        std::ofstream(m_dir + "/default.json") << R"({"config": {"gw_a": "MQ==", "gw_new": "Mw=="}})";
    }
    void TearDown() override {
        m_store.reset();  // the saver must be gone before the keychain client closes
        m_env.stop();
        unlink((m_dir + "/default.json").c_str());
        rmdir(m_dir.c_str());
    }
    CConfigFileManagerFullamount& start_store(const std::string& file = "default.json") {
        m_store = std::make_unique<CConfigFileManagerFullamount>();
        m_store->start(m_dir + "/" + file);
        return *m_store;
    }
    std::string stored(const std::string& item = kItem) const {
        std::string bytes;
        keychain().get_item(item, bytes);
        return bytes;
    }
    std::string value_of(const std::string& key) {
        std::string value;
        return m_store->get_config(key, value) ? value : "<none>";
    }

    CLogCapture m_log;
    CKeychainEnvironment m_env;
    CFakeKeychain& keychain() const { return const_cast<CKeychainEnvironment&>(m_env).keychain(); }
    std::unique_ptr<CConfigFileManagerFullamount> m_store;
    std::string m_dir;
};

}  // namespace

TEST_F(AKeychainBackedStore, BootsFirstFromTheDefaultFileAndSavesNothingUntilAChange) {
    start_store();
    EXPECT_EQ(m_log.count("load_json_file, kc_get_item key:_configmanager.config.file, ret:ffff0002, key_sec_len:0."),
              1u);
    EXPECT_EQ(value_of("gw_a"), "1");
    // Longer than the saver's one-second wake-up: a pending change would have been saved.
    EXPECT_FALSE(wait_until([this] { return keychain().add_count() > 0; }, std::chrono::milliseconds(1100)));
    m_store->set_config("gw_new", "");
    ASSERT_TRUE(wait_until([this] { return keychain().add_count() == 1; }));
    EXPECT_EQ(stored(), std::string("{\n\t\"config\" : \n\t{\n\t\t\"gw_a\" : \"MQ==\"\n\t}\n}", 41));
}

TEST_F(AKeychainBackedStore, AddsAKeyNewInTheDefaultFileWithOneSaveAndKeepsStoredValues) {
    keychain().set_item(kItem, kStoredNine);
    start_store();
    EXPECT_EQ(m_log.count("Key gw_new Value Mw== is new config"), 1u);
    ASSERT_TRUE(wait_until([this] { return keychain().add_count() == 1; }));
    m_store->stop();
    EXPECT_EQ(keychain().add_count(), 1u);
    EXPECT_EQ(value_of("gw_a"), "9");
    EXPECT_EQ(value_of("gw_new"), "3");
    EXPECT_NE(stored().find("\"gw_new\" : \"Mw==\""), std::string::npos);
}

TEST_F(AKeychainBackedStore, KeepsAChangedValueAcrossRestarts) {
    start_store().set_config("gw_a", "7");
    ASSERT_TRUE(wait_until([this] { return keychain().add_count() == 1; }));
    start_store();
    EXPECT_EQ(value_of("gw_a"), "7");
    EXPECT_EQ(m_log.count_containing("is new config"), 0u);
}

TEST_F(AKeychainBackedStore, SavesChangesMadeDuringASaveTogetherOnce) {
    start_store("absent.json");
    keychain().set_delay_ms(300);
    m_store->set_metadata("first", Json::Value(0));
    ASSERT_TRUE(keychain().wait_for_count("kcAddKey", 1));
    // set_metadata does not wait for m_lock, so these land while the first save is on the bus.
    for (int i = 1; i <= 5; ++i) m_store->set_metadata("burst.r" + std::to_string(i), Json::Value(i));
    ASSERT_TRUE(wait_until([this] { return keychain().add_count() == 2; }));
    m_store->stop();
    EXPECT_EQ(keychain().add_count(), 2u);
    EXPECT_NE(stored().find("\"r5\" : 5"), std::string::npos);
    EXPECT_EQ(stored().find("\"config\""), std::string::npos);
}

TEST_F(AKeychainBackedStore, LogsAFailedSaveAndDropsIt) {
    start_store();
    keychain().set_forced_result(-65530);
    m_store->set_config("gw_a", "2");
    EXPECT_TRUE(m_log.wait_for("save_json_file, kc_add_item key:_configmanager.config.file, count:62, ret:-65530."));
    m_store->stop();
    EXPECT_EQ(keychain().add_count(), 1u);
}

TEST_F(AKeychainBackedStore, FallsBackToTheDefaultFileWhenTheStoredCopyIsUnreadable) {
    keychain().set_item(kItem, std::string("{\"config\": ", 12));
    start_store();
    EXPECT_EQ(m_log.count_containing("load json file fail, key:_configmanager.config.file, errs:* Line 1"), 1u);
    EXPECT_EQ(value_of("gw_a"), "1");
    keychain().set_item(kItem, kStoredNine);
    keychain().set_always_short_buffer(true);
    start_store();
    EXPECT_EQ(m_log.count("load_json_file, kc_get_item key:_configmanager.config.file, ret:ffff000a, key_sec_len:41."),
              1u);
    EXPECT_EQ(value_of("gw_a"), "1");
}

TEST_F(AKeychainBackedStore, KeepsRecordsAsItemsOfTheirOwn) {
    CConfigFileManagerItems items;
    items.load(m_dir + "/default.json");
    ASSERT_TRUE(items.set_config("gw_a", "on"));
    EXPECT_EQ(stored("_configmanager.prefix.gw_a"), std::string("on\0", 3));
    std::string value;
    ASSERT_TRUE(items.get_config("gw_a", value));
    EXPECT_EQ(value, std::string("on\0", 3));
    ASSERT_TRUE(items.get_config("gw_new", value));
    EXPECT_EQ(value, "3");
    EXPECT_EQ(m_log.count("read_file, kc_get_item key:_configmanager.prefix.gw_new, ret:ffff0002, key_sec_len:0."), 1u);
    EXPECT_FALSE(items.get_config("gw_x", value));
    EXPECT_EQ(m_log.count("get_config_from_json fail, member gw_x error."), 1u);

    ASSERT_TRUE(items.set_metadata("subscribe", Json::Value(Json::arrayValue)));
    Json::Value out;
    ASSERT_TRUE(items.get_metadata("subscribe", out));
    EXPECT_TRUE(out.isArray());
    keychain().set_item("_configmanager.metadata.bad", std::string("garbage\0", 8));
    EXPECT_FALSE(items.get_metadata("bad", out));
    EXPECT_EQ(m_log.count_containing("get_metadata, reader fail, content:garbage, errs:* Line 1"), 1u);
}

TEST_F(AKeychainBackedStore, RefusesItemNamesOver256CharactersWithoutAKeychainCall) {
    CConfigFileManagerItems items;
    const std::string name(257, 'k');
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    EXPECT_FALSE(items.read_file(name, buf, len));
    EXPECT_FALSE(items.save_file(name, reinterpret_cast<const uint8_t*>("x"), 2));
    EXPECT_FALSE(items.set_config(name, ""));
    EXPECT_TRUE(items.set_config(name.substr(1), ""));
    EXPECT_EQ(keychain().add_count() + keychain().get_count(), 0u);
    EXPECT_TRUE(items.save_file(name.substr(1), reinterpret_cast<const uint8_t*>("x"), 2));
    keychain().set_always_short_buffer(true);
    EXPECT_FALSE(items.read_file(name.substr(1), buf, len));
    EXPECT_EQ(m_log.count("read_file, kc_get_item key:" + name.substr(1) + ", ret:-65526, key_sec_len:2."), 1u);
}

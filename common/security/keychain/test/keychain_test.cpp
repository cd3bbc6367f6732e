#include "quorel/keychain/keychain.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/keychain_environment.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/private_bus.h"

using Quorel::Iot::Testing::CFakeKeychain;
using Quorel::Iot::Testing::CKeychainEnvironment;
using Quorel::Iot::Testing::CLogCapture;
using Quorel::Iot::Testing::CLogLine;
using Quorel::Iot::Testing::CPrivateBus;

namespace {

const uint8_t* bytes_of(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

// Segments still listed by the kernel that this process created.
int segments_created_by_this_process() {
    std::ifstream table("/proc/sysvipc/shm");
    std::string line;
    std::getline(table, line);  // column headings
    int count = 0;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        long key, id, perms, size, cpid;
        if (fields >> key >> id >> perms >> size >> cpid && cpid == getpid()) ++count;
    }
    return count;
}

// Log lines of one function at level 3 that start with the given text.
int failures_logged(const CLogCapture& log, const std::string& function, const std::string& prefix) {
    int count = 0;
    for (const CLogLine& line : log.lines())
        count += line.level == 3 && line.function == function && line.message.rfind(prefix, 0) == 0 ? 1 : 0;
    return count;
}

class AKeychainClient : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_env.start()); }

    CLogCapture m_log;
    CKeychainEnvironment m_env;
    CFakeKeychain& keychain() { return m_env.keychain(); }
};

TEST_F(AKeychainClient, StoresAnItemAndReadsBackItsBytesAndType) {
    const std::string stored("line one\0line two", 17);
    ASSERT_EQ(KC_SUCCESS, kc_add_item("item.a", bytes_of(stored), stored.size(), 2));

    uint8_t buf[64];
    uint32_t len = sizeof(buf);
    int32_t type = -1;
    ASSERT_EQ(KC_SUCCESS, kc_get_item("item.a", buf, &len, &type));
    EXPECT_EQ(stored, std::string(reinterpret_cast<char*>(buf), len));
    EXPECT_EQ(2, type);
    std::string seen;
    ASSERT_TRUE(keychain().get_item("item.a", seen));
    EXPECT_EQ(stored, seen);
}

TEST_F(AKeychainClient, AnswersASizeProbeWithShortBufferAndTheItemLength) {
    keychain().set_item("item.b", std::string("{}\0", 3), 3);
    uint32_t len = 0;
    int32_t type = -1;
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_get_item("item.b", nullptr, &len, &type));
    EXPECT_EQ(3u, len);
    EXPECT_EQ(1u, m_log.count("short buffer 0 : 3\n"));

    uint8_t buf[3];
    EXPECT_EQ(KC_SUCCESS, kc_get_item("item.b", buf, &len, &type));
    EXPECT_EQ(std::string("{}\0", 3), std::string(reinterpret_cast<char*>(buf), 3));
}

TEST_F(AKeychainClient, PassesTheServiceResultThroughAndKeepsTheCapacityForAnAbsentItem) {
    uint8_t buf[8];
    uint32_t len = sizeof(buf);
    int32_t type = -1;
    EXPECT_EQ(CFakeKeychain::kNotFound, kc_get_item("missing", buf, &len, &type));
    EXPECT_EQ(8u, len);

    keychain().set_forced_result(-7);
    EXPECT_EQ(-7, kc_add_item("item.c", bytes_of("x"), 1, 3));
    EXPECT_FALSE(keychain().has_item("item.c"));
}

TEST_F(AKeychainClient, RejectsBadParametersWithoutAskingTheService) {
    uint32_t len = 5;
    int32_t type = 0;
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_get_item("item", nullptr, &len, &type));
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_add_item("item", bytes_of("x"), 1, 4));
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_add_item("item", bytes_of("x"), 0, 3));
    EXPECT_EQ(3u, m_log.count("bad null params\n"));

    uint8_t out[4];
    uint32_t out_len = sizeof(out);
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_encrypt_data(bytes_of("x"), 0, "k", out, &out_len));
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_decrypt_data(nullptr, bytes_of("x"), 1, out, &out_len));
    EXPECT_EQ(3u, m_log.lines().size());
    EXPECT_EQ(0u, keychain().received().size());
}

TEST_F(AKeychainClient, TellsTheServiceWhichExecutableOwnsTheItem) {
    char exe[4097] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, 4096), 0);
    ASSERT_EQ(KC_SUCCESS, kc_add_item("item.d", bytes_of("x"), 1, 3));
    EXPECT_EQ(std::string(exe), keychain().last_exe_path());
}

TEST_F(AKeychainClient, EncryptsAndDecryptsThroughTheirOppositeLayouts) {
    const std::string plain = "open sesame";
    uint8_t cipher[32];
    uint32_t cipher_len = sizeof(cipher);
    ASSERT_EQ(KC_SUCCESS, kc_encrypt_data(bytes_of(plain), plain.size(), "wifi.key", cipher, &cipher_len));
    const std::string ciphertext(reinterpret_cast<char*>(cipher), cipher_len);
    EXPECT_EQ(CFakeKeychain::scramble(plain, "wifi.key"), ciphertext);

    uint8_t back[32];
    uint32_t back_len = sizeof(back);
    ASSERT_EQ(KC_SUCCESS, kc_decrypt_data("wifi.key", cipher, cipher_len, back, &back_len));
    EXPECT_EQ(plain, std::string(reinterpret_cast<char*>(back), back_len));
}

TEST_F(AKeychainClient, ReportsTheOutputSizeNeededWhenTheOutputBufferIsShort) {
    uint8_t out[2];
    uint32_t out_len = sizeof(out);
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_encrypt_data(bytes_of("secret"), 6, "k", out, &out_len));
    EXPECT_EQ(6u, out_len);
    EXPECT_EQ(1, failures_logged(m_log, "kc_encrypt_data", "short buffer need 6\n"));
}

TEST_F(AKeychainClient, TurnsASuccessfulReadLongerThanTheBufferIntoShortBufferWithTheClaimedLength) {
    keychain().set_item("item.f", "abc", 1);
    keychain().set_length_claim([](int32_t capacity, int32_t) { return capacity + 100; });
    uint8_t buf[8];
    uint32_t len = sizeof(buf);
    int32_t type = -1;
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_get_item("item.f", buf, &len, &type));
    EXPECT_EQ(108u, len);
    EXPECT_EQ(1u, m_log.count("short buffer 8 : 108\n"));

    uint8_t out[8];
    uint32_t out_len = sizeof(out);
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_encrypt_data(bytes_of("abc"), 3, "k", out, &out_len));
    EXPECT_EQ(108u, out_len);
    out_len = sizeof(out);
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_decrypt_data("k", bytes_of("abc"), 3, out, &out_len));
    EXPECT_EQ(108u, out_len);
}

TEST_F(AKeychainClient, TurnsANegativeLengthIntoShortBufferWithNoSize) {
    keychain().set_item("item.g", "abc", 1);
    keychain().set_length_claim([](int32_t, int32_t) { return -1; });
    uint8_t buf[8];
    uint32_t len = sizeof(buf);
    int32_t type = -1;
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_get_item("item.g", buf, &len, &type));
    EXPECT_EQ(0u, len);
    // The size probe: the service's short-buffer answer carries the negative length.
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_get_item("item.g", nullptr, &len, &type));
    EXPECT_EQ(0u, len);

    uint8_t out[8];
    uint32_t out_len = sizeof(out);
    EXPECT_EQ(KC_ERR_SHORT_BUFFER, kc_encrypt_data(bytes_of("abc"), 3, "k", out, &out_len));
    EXPECT_EQ(0u, out_len);
}

TEST_F(AKeychainClient, AcceptsASuccessfulReadThatFillsTheBufferExactly) {
    keychain().set_item("item.h", "abcd", 1);
    uint8_t buf[4];
    uint32_t len = sizeof(buf);
    int32_t type = -1;
    EXPECT_EQ(KC_SUCCESS, kc_get_item("item.h", buf, &len, &type));
    EXPECT_EQ("abcd", std::string(reinterpret_cast<char*>(buf), len));
}

TEST_F(AKeychainClient, ChecksAWriteLikeKcAddItemWhenTheServiceAnswers) {
    ASSERT_EQ(KC_SUCCESS, kc_add_item_checked("item.i", bytes_of("x"), 1, 3));
    std::string seen;
    ASSERT_TRUE(keychain().get_item("item.i", seen));
    EXPECT_EQ("x", seen);

    keychain().set_forced_result(-7);
    EXPECT_EQ(-7, kc_add_item_checked("item.j", bytes_of("x"), 1, 3));
    EXPECT_EQ(KC_ERR_BAD_PARAMS, kc_add_item_checked("item.j", bytes_of("x"), 1, 4));
    EXPECT_EQ(1, failures_logged(m_log, "kc_add_item_checked", "bad null params\n"));
}

TEST_F(AKeychainClient, TellsAReplyWithoutItsResultApartOnlyInTheCheckedWrite) {
    keychain().set_empty_replies(true);
    EXPECT_EQ(KC_SUCCESS, kc_add_item("item.k", bytes_of("x"), 1, 3));
    EXPECT_EQ(KC_ERR_BUS, kc_add_item_checked("item.k", bytes_of("x"), 1, 3));
    uint8_t buf[4];
    uint32_t len = sizeof(buf);
    int32_t type = 9;
    EXPECT_EQ(KC_SUCCESS, kc_get_item("item.k", buf, &len, &type));
    EXPECT_EQ(4u, len);
    EXPECT_EQ(2u, keychain().add_count());
}

TEST_F(AKeychainClient, LeavesNoSharedMemorySegmentBehindOnAnyPath) {
    uint8_t buf[16];
    uint32_t len = sizeof(buf);
    int32_t type = 0;
    kc_add_item("item.e", bytes_of("value"), 5, 3);
    kc_get_item("item.e", buf, &len, &type);
    len = 0;
    kc_get_item("item.e", nullptr, &len, &type);
    kc_get_item("missing", buf, &len, &type);
    len = sizeof(buf);
    kc_encrypt_data(bytes_of("value"), 5, "k", buf, &len);
    kc_deinit();
    EXPECT_EQ(KC_ERR_NOT_INITIALIZED, kc_add_item("item.e", bytes_of("value"), 5, 3));
    EXPECT_EQ(0, segments_created_by_this_process());
}

TEST(AnUninitialisedKeychainClient, AsksForKcInitFirst) {
    CLogCapture log;
    uint8_t buf[4];
    uint32_t len = sizeof(buf);
    int32_t type = 0;
    EXPECT_EQ(KC_ERR_NOT_INITIALIZED, kc_add_item("item", bytes_of("x"), 1, 3));
    EXPECT_EQ(KC_ERR_NOT_INITIALIZED, kc_get_item("item", buf, &len, &type));
    EXPECT_EQ(2, failures_logged(log, "kc_add_item", "please first call kc_init\n") +
                     failures_logged(log, "kc_get_item", "please first call kc_init\n"));
}

TEST(AnUninitialisedKeychainClient, PrintsTheBusErrorWhenTheBusIsUnreachable) {
    setenv("CONFIG_MANAGER_BUS_ADDRESS", "unix:path=/nonexistent/cm-keychain-test", 1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(KC_ERR_NOT_INITIALIZED, kc_init());
    EXPECT_EQ(0u, ::testing::internal::GetCapturedStdout().rfind("kc_init(27) dbus error (", 0));
    kc_deinit();
}

TEST(AKeychainClientWithoutAService, ReportsSuccessAndLogsTheBusError) {
    CPrivateBus bus;
    ASSERT_TRUE(bus.start());
    bus.export_address();
    ASSERT_EQ(KC_SUCCESS, kc_init());
    CLogCapture log;

    EXPECT_EQ(KC_SUCCESS, kc_add_item("item", bytes_of("x"), 1, 3));
    uint8_t buf[4];
    uint32_t len = sizeof(buf);
    int32_t type = 9;
    EXPECT_EQ(KC_SUCCESS, kc_get_item("item", buf, &len, &type));
    EXPECT_EQ(4u, len);
    EXPECT_EQ(9, type);
    EXPECT_EQ(1, failures_logged(log, "kc_add_item", "dbus error ("));
    EXPECT_EQ(1, failures_logged(log, "kc_get_item", "dbus error ("));
    kc_deinit();
}

TEST(AKeychainClientWithoutAService, ReportsTheBusFailureOfACheckedWrite) {
    CPrivateBus bus;
    ASSERT_TRUE(bus.start());
    bus.export_address();
    ASSERT_EQ(KC_SUCCESS, kc_init());
    CLogCapture log;

    EXPECT_EQ(KC_ERR_BUS, kc_add_item_checked("item", bytes_of("x"), 1, 3));
    EXPECT_EQ(1, failures_logged(log, "kc_add_item_checked", "dbus error ("));
    kc_deinit();
}

TEST(AKeychainClientWithoutAService, ReportsTheBusFailureOfACheckedWriteWhenTheServiceLeavesMidCall) {
    CPrivateBus bus;
    ASSERT_TRUE(bus.start());
    bus.export_address();
    CFakeKeychain keychain(bus.address());
    ASSERT_TRUE(keychain.start());
    ASSERT_EQ(KC_SUCCESS, kc_init());
    // The service takes the call and leaves without answering it.
    keychain.on("kcAddKey", [](DBusMessage*) { return nullptr; });
    std::thread leaver([&keychain] {
        if (keychain.wait_for_count("kcAddKey", 1)) keychain.stop();
    });
    EXPECT_EQ(KC_ERR_BUS, kc_add_item_checked("item", bytes_of("x"), 1, 3));
    leaver.join();
    kc_deinit();
}

}  // namespace

// The development keychain service (tools/keychain-devd) run as a child process on a private bus
// and spoken to through the real client.
#include <dbus/dbus.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "quorel/keychain/keychain.h"
#include "quorel/keychain/keychain_wire.h"
#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Testing::CFakeKeychain;
using Quorel::Iot::Testing::CPrivateBus;
using Quorel::Iot::Testing::wait_until;

namespace {

const uint8_t* bytes_of(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

class AKeychainDevService : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.start());
        m_bus.export_address();
        char dir[] = "/tmp/cm-kcdevd-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        m_dir = dir;
        m_watcher.reset(dbus_connection_open_private(m_bus.address().c_str(), nullptr));
        ASSERT_TRUE(m_watcher && dbus_bus_register(m_watcher.get(), nullptr));
        ASSERT_EQ(KC_SUCCESS, kc_init());
    }
    void TearDown() override {
        kc_deinit();
        if (m_pid > 0) stop_devd();
        for (const std::string& file : files()) unlink((m_dir + "/" + file).c_str());
        rmdir(m_dir.c_str());
    }

    bool service_owned() const {
        return dbus_bus_name_has_owner(m_watcher.get(), "iot.gateway.security.keychain", nullptr);
    }
    bool start_devd() {
        const pid_t parent = getpid();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            execl(CM_KEYCHAIN_DEVD, "keychain-devd", m_dir.c_str(), m_bus.address().c_str(), nullptr);
            _exit(127);
        }
        return m_pid > 0 && wait_until([this] { return service_owned(); });
    }
    // SIGTERM; the exit status, or -1 when it did not exit by itself.
    int stop_devd() {
        kill(m_pid, SIGTERM);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        EXPECT_TRUE(wait_until([this] { return !service_owned(); }));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::set<std::string> files() const {
        std::set<std::string> names;
        if (DIR* dir = opendir(m_dir.c_str())) {
            while (const dirent* entry = readdir(dir))
                if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..")
                    names.insert(entry->d_name);
            closedir(dir);
        }
        return names;
    }
    // The two-call read of an item of unknown size.
    std::string read_item(const char* name, int32_t& type) {
        uint32_t len = 0;
        if (kc_get_item(name, nullptr, &len, &type) != KC_ERR_SHORT_BUFFER) return "<no size>";
        std::vector<uint8_t> buf(len);
        if (kc_get_item(name, buf.data(), &len, &type) != KC_SUCCESS) return "<no item>";
        return std::string(buf.begin(), buf.end());
    }

    CPrivateBus m_bus;
    // Asks the bus who owns the service name; nothing else reads from it.
    Quorel::Iot::Keychain::ConnectionPtr m_watcher;
    std::string m_dir;
    pid_t m_pid = -1;
};

TEST_F(AKeychainDevService, KeepsAnItemAcrossARestartWithoutLeavingTemporaries) {
    const std::string document("{\n\t\"config\" : {}\n}\0", 19);
    ASSERT_TRUE(start_devd());
    ASSERT_EQ(KC_SUCCESS, kc_add_item("_configmanager.config.file", bytes_of(document), document.size(), 3));
    int32_t type = -1;
    EXPECT_EQ(document, read_item("_configmanager.config.file", type));

    EXPECT_EQ(0, stop_devd());
    ASSERT_TRUE(start_devd());
    type = -1;
    EXPECT_EQ(document, read_item("_configmanager.config.file", type));
    EXPECT_EQ(3, type);
    EXPECT_EQ(std::set<std::string>{"_configmanager.config.file.item"}, files());
}

TEST_F(AKeychainDevService, ReplacesAnItemAndReportsAnAbsentOne) {
    ASSERT_TRUE(start_devd());
    uint32_t len = 0;
    int32_t type = 0;
    EXPECT_EQ(CFakeKeychain::kNotFound, kc_get_item("missing", nullptr, &len, &type));
    ASSERT_EQ(KC_SUCCESS, kc_add_item("item", bytes_of("first"), 5, 1));
    ASSERT_EQ(KC_SUCCESS, kc_add_item("item", bytes_of("second"), 6, 2));
    EXPECT_EQ("second", read_item("item", type));
    EXPECT_EQ(2, type);
    EXPECT_EQ(1u, files().size());
}

TEST_F(AKeychainDevService, LeavesTheOldItemWholeWhenKilledInTheMiddleOfAWriteAndStartsCleanAgain) {
    const std::string old_bytes = "old";
    // Large enough that writing and syncing it takes a while on any disk.
    const std::string new_bytes(32 * 1024 * 1024, 'n');
    const std::string item_file = m_dir + "/item.item";
    ASSERT_TRUE(start_devd());
    ASSERT_EQ(KC_SUCCESS, kc_add_item("item", bytes_of(old_bytes), old_bytes.size(), 3));

    std::thread writer([&] { kc_add_item("item", bytes_of(new_bytes), new_bytes.size(), 3); });
    // The write is under way once anything but the item is in the directory, or the item changed.
    const bool writing = wait_until([&] {
        struct stat info;
        return files().size() > 1 || (stat(item_file.c_str(), &info) == 0 && info.st_size != 4);
    });
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    writer.join();
    ASSERT_TRUE(writing);

    // Whatever the moment of the kill: the item on disk is the whole old one or the whole new one.
    std::ifstream stream(item_file, std::ios::binary);
    const std::string on_disk((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const bool old_or_new = on_disk == "\x03" + old_bytes || on_disk == "\x03" + new_bytes;
    EXPECT_TRUE(old_or_new) << "torn item of " << on_disk.size() << " bytes";

    ASSERT_TRUE(wait_until([this] { return !service_owned(); }));
    ASSERT_TRUE(start_devd());
    EXPECT_EQ(std::set<std::string>{"item.item"}, files());
    int32_t type = 0;
    const std::string read_back = read_item("item", type);
    EXPECT_TRUE(read_back == old_bytes || read_back == new_bytes) << read_back.substr(0, 16);
}

TEST_F(AKeychainDevService, KeepsEveryNameInsideItsDirectoryAndClearsUnfinishedWrites) {
    std::ofstream(m_dir + "/.partial-Ab12Cd") << "torn";
    ASSERT_TRUE(start_devd());
    ASSERT_EQ(KC_SUCCESS, kc_add_item("../outside", bytes_of("x"), 1, 3));
    int32_t type = 0;
    EXPECT_EQ("x", read_item("../outside", type));
    EXPECT_EQ(std::set<std::string>{"%2E.%2Foutside.item"}, files());
}

}  // namespace

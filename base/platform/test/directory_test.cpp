#include "quorel/platform/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "quorel/platform/file.h"
#include "temp_dir.h"

using namespace Quorel::Iot::Platform;
using Quorel::Iot::Testing::CTempDir;

namespace {

// Every call of the injected mkdir, in order; `g_fail_mkdir` makes it fail without creating.
std::vector<std::pair<std::string, mode_t>> g_mkdir_calls;
bool g_fail_mkdir = false;

int recording_mkdir(const char* path, mode_t mode) {
    g_mkdir_calls.emplace_back(path, mode);
    return g_fail_mkdir ? -1 : ::mkdir(path, mode);
}

class ADirectoryPath : public ::testing::Test {
protected:
    void SetUp() override {
        g_mkdir_calls.clear();
        g_fail_mkdir = false;
        m_saved_umask = umask(0);
    }
    void TearDown() override { umask(m_saved_umask); }

    CTempDir m_root;
    mode_t m_saved_umask = 0;
};

mode_t permissions(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

}  // namespace

TEST_F(ADirectoryPath, IsMadeLevelByLevelParentFirstWithTheGivenMode) {
    const std::string deepest = m_root / "a/b/c";
    ASSERT_TRUE(make_directory_path(deepest, 0750, recording_mkdir));
    const std::vector<std::pair<std::string, mode_t>> expected = {
        {m_root / "a/", 0750}, {m_root / "a/b/", 0750}, {m_root / "a/b/c", 0750}};
    EXPECT_EQ(g_mkdir_calls, expected);
    for (const char* level : {"a", "a/b", "a/b/c"}) EXPECT_EQ(permissions(m_root / level), 0750u) << level;
}

TEST_F(ADirectoryPath, ThatExistsAlreadyCallsNoMkdir) {
    ASSERT_TRUE(make_directory(m_root / "here", 0700));
    EXPECT_TRUE(make_directory_path(m_root / "here", 0700, recording_mkdir));
    EXPECT_TRUE(make_directory_path(m_root.path(), 0700, recording_mkdir));
    EXPECT_TRUE(g_mkdir_calls.empty());
}

TEST_F(ADirectoryPath, StopsAtTheFirstLevelThatCannotBeMade) {
    g_fail_mkdir = true;
    EXPECT_FALSE(make_directory_path(m_root / "x/y", 0700, recording_mkdir));
    ASSERT_EQ(g_mkdir_calls.size(), 1u);
    EXPECT_EQ(g_mkdir_calls[0].first, m_root / "x/");
}

TEST(ARemovedTree, TakesNestedFilesAndDirectoriesWithIt) {
    CTempDir root;
    const std::string top = root / "top";
    ASSERT_TRUE(make_directory_path(top + "/one/two", 0700));
    ASSERT_TRUE(make_directory(top + "/empty", 0700));
    root.write("top/file", "x");
    root.write("top/one/two/deep", "y");
    EXPECT_TRUE(remove_tree(top));
    EXPECT_FALSE(is_readable(top));
}

TEST(ARemovedTree, ThatIsAPlainFileRemovesTheFile) {
    CTempDir root;
    const std::string file = root.write("plain", "x");
    EXPECT_TRUE(remove_tree(file));
    EXPECT_FALSE(is_readable(file));
    EXPECT_FALSE(remove_tree(file));
}

TEST(ARemovedTree, RemovesASymlinkWithoutEnteringItsTarget) {
    CTempDir root;
    ASSERT_TRUE(make_directory(root / "outside", 0700));
    const std::string kept = root.write("outside/kept", "x");
    ASSERT_TRUE(make_directory(root / "tree", 0700));
    ASSERT_EQ(symlink((root / "outside").c_str(), (root / "tree/link").c_str()), 0);
    EXPECT_TRUE(remove_tree(root / "tree"));
    EXPECT_TRUE(is_regular_file(kept));
}

TEST(ADirectory, ListsItsEntriesWithDotAndDotDotAndCanListThemAgain) {
    CTempDir root;
    root.write("f", "x");
    CDirectory dir;
    ASSERT_TRUE(dir.open(root.path()));
    std::vector<std::string> names;
    std::string name;
    while (dir.next_name(name)) names.push_back(name);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "f"}));
    ASSERT_TRUE(dir.rewind());
    EXPECT_TRUE(dir.next_name(name));
}

TEST(ADirectory, AnswersFalseWhenClosedOrOpenedOnAFile) {
    CTempDir root;
    CDirectory dir;
    std::string name;
    EXPECT_FALSE(dir.is_open());
    EXPECT_FALSE(dir.rewind());
    EXPECT_FALSE(dir.next_name(name));
    EXPECT_FALSE(dir.open(root.write("f", "x")));
    ASSERT_TRUE(dir.open(root.path()));
    dir.close();
    EXPECT_FALSE(dir.is_open());
    EXPECT_FALSE(dir.next_name(name));
}

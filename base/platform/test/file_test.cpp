#include "quorel/platform/file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "quorel/platform/directory.h"
#include "temp_dir.h"

using namespace Quorel::Iot::Platform;
using Quorel::Iot::Testing::CTempDir;

TEST(AClosedFile, AnswersZeroMinusOneOrFalseWithoutAStream) {
    CFile file;
    char buffer[8] = "abc";
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(file.write(buffer, 1, 3), 0u);
    EXPECT_EQ(file.read(buffer, 1, 3), 0u);
    EXPECT_EQ(file.tell(), -1);
    EXPECT_EQ(file.seek(0, SEEK_SET), -1);
    EXPECT_EQ(file.size(), -1);
    EXPECT_TRUE(file.at_end());
    EXPECT_TRUE(file.has_error());
    EXPECT_FALSE(file.get_line(buffer, sizeof(buffer)));
    EXPECT_FALSE(file.put_text("x"));
    file.rewind();
    file.close();
    EXPECT_STREQ(buffer, "abc");
}

TEST(AClosedFile, StaysClosedWhenTheOpenFails) {
    CTempDir root;
    CFile file;
    EXPECT_FALSE(file.open(root / "missing", "r"));
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(file.path(), root / "missing");
    EXPECT_EQ(file.tell(), -1);
}

TEST(AFile, WritesTextAndItemsAndReadsThemBack) {
    CTempDir root;
    CFile file;
    ASSERT_TRUE(file.open(root / "data", "w+"));
    EXPECT_TRUE(file.put_text("first\n"));
    const char items[] = "0123456789";
    EXPECT_EQ(file.write(items, 2, 5), 5u);
    EXPECT_EQ(file.tell(), 16);
    file.close();

    ASSERT_TRUE(file.open(root / "data", "r"));
    EXPECT_EQ(file.size(), 16);
    char line[32];
    ASSERT_TRUE(file.get_line(line, sizeof(line)));
    EXPECT_STREQ(line, "first\n");
    char read_back[11] = {};
    EXPECT_EQ(file.read(read_back, 2, 5), 5u);
    EXPECT_STREQ(read_back, items);
    EXPECT_FALSE(file.get_line(line, sizeof(line)));
    EXPECT_TRUE(file.at_end());
    EXPECT_FALSE(file.has_error());
    EXPECT_EQ(file.seek(6, SEEK_SET), 0);
    EXPECT_EQ(file.read(read_back, 1, 1), 1u);
    EXPECT_EQ(read_back[0], '0');
    file.rewind();
    EXPECT_EQ(file.tell(), 0);
}

TEST(AFile, CountsOnlyWhatHasReachedTheDiskInItsSize) {
    CTempDir root;
    CFile file;
    ASSERT_TRUE(file.open(root / "buffered", "w"));
    EXPECT_TRUE(file.put_text("abc"));
    EXPECT_EQ(file.size(), 0);
    file.close();
    ASSERT_TRUE(file.open(root / "buffered", "a"));
    EXPECT_EQ(file.size(), 3);
}

TEST(APath, IsClassifiedByItsFileType) {
    CTempDir root;
    const std::string file = root.write("f", "x");
    EXPECT_TRUE(is_regular_file(file));
    EXPECT_FALSE(is_directory(file));
    EXPECT_TRUE(is_directory(root.path()));
    EXPECT_FALSE(is_regular_file(root.path()));
    EXPECT_TRUE(is_device("/dev/null"));
    EXPECT_FALSE(is_device(file));
    EXPECT_TRUE(is_readable(file));
    EXPECT_FALSE(is_readable(root / "missing"));
    EXPECT_FALSE(is_regular_file(root / "missing"));
}

TEST(APath, IsRenamedAndRemoved) {
    CTempDir root;
    const std::string from = root.write("from", "x");
    EXPECT_TRUE(rename_path(from, root / "to"));
    EXPECT_FALSE(is_readable(from));
    EXPECT_FALSE(rename_path(from, root / "again"));
    EXPECT_TRUE(remove_path(root / "to"));
    EXPECT_FALSE(remove_path(root / "to"));
}

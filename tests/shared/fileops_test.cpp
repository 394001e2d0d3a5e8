// Files and trees: what is written, read, copied and deleted, and what is left alone.
#include "shared/fileops.h"

#include "host/datatype.h"
#include "support/tempfolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace fs = std::filesystem;

namespace {

/// Works in a folder of its own.
class FileOpsTest : public testing::Test {
protected:
    FileOpsTest() { fs::current_path(dir.path()); }
    ~FileOpsTest() override { fs::current_path(dir.path().parent_path()); }

    support::TempFolder dir;
};

TEST_F(FileOpsTest, MatricesAndBytesGoThereAndBack)
{
    const std::vector<std::int16_t> words = {1, -2, 32767};
    EXPECT_EQ(0, writeAsciiMatrix("m", DTYPE_I16, words.data(), 3, 2, false));
    EXPECT_EQ("1 -2\n32767 ", dir.read("m"));
    std::vector<std::int16_t> back(3);
    EXPECT_EQ(0, readAsciiMatrix("m", DTYPE_I16, 3, back.data()));
    EXPECT_EQ(words, back);
    EXPECT_EQ(-3, writeAsciiMatrix("/dev/full", DTYPE_I16, words.data(), 1, 1, false));

    EXPECT_EQ(0, writeBinary("bytes", "ab\0c", 4, false));
    EXPECT_EQ(0, copyFile("bytes", "copy"));
    std::string bytes(4, '#');
    EXPECT_EQ(0, readBinary("copy", bytes.data(), 4));
    EXPECT_EQ(std::string("ab\0c", 4), bytes);
    EXPECT_EQ(-2, readBinary("copy", bytes.data(), 5));
    EXPECT_EQ(-3, copyFile("bytes", "/dev/full"));
}

TEST_F(FileOpsTest, CopiesATreeWithoutLinksOrItsOwnCopy)
{
    createFilePath("from/sub/deep/");
    for (const char* const name : {"from/z", "from/sub/deep/f"})
        dir.write(name, name);
    fs::create_symlink("z", "from/link");
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(0, copyFileDir("from/", "from/sub/copy"));
    EXPECT_EQ("from/zfrom/sub/deep/f", dir.read("from/sub/copy/z") + dir.read("from/sub/copy/sub/deep/f"));
    EXPECT_FALSE(fileExists("from/sub/copy/link") || fileExists("from/sub/copy/sub/copy"));
}

TEST_F(FileOpsTest, DeletesATreeButNothingThatLinksLeadTo)
{
    createFilePath("tree/sub/");
    createFilePath("kept/");
    dir.write("tree/sub/f", "");
    dir.write("kept/f", "");
    fs::create_directory_symlink(dir / "kept", "tree/sub/link");
    fs::create_directory_symlink("kept", "link");
    EXPECT_EQ(0, deleteFileDir("tree"));
    EXPECT_FALSE(fileExists("tree"));
    EXPECT_EQ(0, deleteFileDir("link//")) << "the link, not what the slash leads to";
    EXPECT_FALSE(fs::is_symlink("link"));
    EXPECT_TRUE(fileExists("kept/f"));
    EXPECT_EQ(-1, deleteFileDir(""));
}

TEST(Files, AreClosedInProgramsThatAreStarted)
{
    const support::TempFolder dir;
    for (const char* mode : {"w", "a+b", "rb"}) {
        const std::string path = dir / "file";
        const File file(path.c_str(), mode);
        ASSERT_NE(static_cast<FILE*>(file), nullptr);
        EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0) << mode;
    }
}

} // namespace

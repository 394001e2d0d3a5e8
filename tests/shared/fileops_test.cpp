// Matrices as text, bytes, and directories: what is written, what is read, and what is left alone.
#include "shared/fileops.h"

#include "host/datatype.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>

#include <cstdint>

using testing::ElementsAre;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

/// Works in a folder of its own.
class FileOpsTest : public testing::Test {
protected:
    FileOpsTest() { fs::current_path(dir.path()); }
    ~FileOpsTest() override { fs::current_path(dir.path().parent_path()); }

    support::TempFolder dir;
};

TEST_F(FileOpsTest, MatricesGoToTextAndBack)
{
    const std::vector<std::int16_t> words = {1, -2, 32767};
    EXPECT_EQ(0, writeAsciiMatrix("m", DTYPE_I16, words.data(), 3, 2, false));
    EXPECT_EQ(0, writeAsciiMatrixHex("m", DTYPE_I16, words.data(), 2, 0, true));
    EXPECT_EQ("1 -2\n32767 0001 FFFE ", dir.read("m"));
    std::vector<std::int16_t> back(5);
    EXPECT_EQ(0, readAsciiMatrix("m", DTYPE_I16, 3, back.data()));
    EXPECT_EQ(-2, readAsciiMatrix("m", DTYPE_I16, 5, back.data()));
    EXPECT_THAT(back, ElementsAre(1, -2, 32767, 1, 0)) << "up to what is no decimal number";
    EXPECT_EQ(-4, readAsciiMatrix("m", DTYPE_STRING, 1, back.data()));
    EXPECT_EQ(-3, writeAsciiMatrix("/dev/full", DTYPE_I16, words.data(), 1, 1, false));
    unsigned long width = 0;
    unsigned long height = 0;
    EXPECT_EQ(0, getAsciiMatrixDimensions("m", &width, &height));
    EXPECT_THAT((std::vector{width, height}), ElementsAre(2, 2));
    EXPECT_EQ(2, getNumberOfLinesInFile("m", true));
}

TEST_F(FileOpsTest, MovesComparesAndCopiesBytes)
{
    EXPECT_EQ(0, writeBinary("bytes", "ab\0c", 4, false));
    EXPECT_EQ(0, writeBinary("bytes", "def", 3, true));
    EXPECT_EQ(7, getFileSize("bytes"));
    std::string bytes(8, '#');
    EXPECT_EQ(0, readBinary("bytes", bytes.data(), 7));
    EXPECT_EQ(std::string("ab\0cdef#", 8), bytes);
    EXPECT_EQ(-2, readBinary("bytes", bytes.data(), 8));
    EXPECT_EQ(-3, writeBinary("/dev/full", "a", 1, false));

    EXPECT_EQ(0, copyFile("bytes", "copy"));
    EXPECT_TRUE(isFilesEqual("bytes", "copy", 3));
    EXPECT_FALSE(isFilesEqual("bytes", dir.write("longer", bytes).c_str(), 3));
    fs::create_symlink("bytes", "link");
    EXPECT_EQ(0, copyFile("bytes", "link"));
    EXPECT_EQ(7, getFileSize("bytes")) << "not onto itself";
    EXPECT_EQ(-3, copyFile("bytes", "/dev/full"));
}

TEST_F(FileOpsTest, MakesAndListsDirectories)
{
    EXPECT_EQ(0, createFilePath("p//d.txt/file"));
    EXPECT_TRUE(fs::is_directory("p/d.txt") && !fileExists("p/d.txt/file"));
    EXPECT_EQ(-1, createDir("p"));
    dir.write("p/a.txt", "");
    dir.write("p/.hidden", "");
    std::vector<std::string> names;
    EXPECT_EQ(0, listFilesInDir("p", "*.t?t", false, false, names));
    EXPECT_EQ(0, listFilesInDir("p", nullptr, true, true, names));
    EXPECT_THAT(names, UnorderedElementsAre("a.txt", "d.txt", "p/a.txt", "p/.hidden"));
    EXPECT_TRUE(matchMask("aaab", "*aab") && matchMask("", "*"));
    EXPECT_FALSE(matchMask("ab", "*?.?") || matchMask("", "?") || matchMask("a", ""));
    EXPECT_EQ("/a/b", getFileDir("/a/b/c") + getFileDir("/c") + getFileDir("c"));
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

} // namespace

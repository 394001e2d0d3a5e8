// Matrices as text, bytes, and directories: what is written, what is read, and what is left alone.
#include "shared/fileops.h"

#include "shared/datatype.h"
#include "shared/str.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>

using testing::ElementsAre;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

/// Works in a folder of its own.
class FileOpsTest : public testing::Test {
protected:
    FileOpsTest() { fs::current_path(dir.path()); }
    ~FileOpsTest() override { fs::current_path(dir.path().parent_path()); }

    /// What a text holds as `count` items, read into memory of just that size.
    template <typename T>
    std::vector<T> numbers(_DataType type, std::size_t count, const std::string& text, int result = 0)
    {
        std::vector<T> data(count);
        EXPECT_EQ(result, readAsciiMatrix(dir.write("numbers", text).c_str(), type, count, data.data())) << text;
        return data;
    }
    /// The text of a matrix.
    template <typename T, typename Write>
    std::string text(Write write, _DataType type, std::vector<T> data, unsigned long width)
    {
        EXPECT_EQ(0, write("text", type, data.data(), data.size(), width, false));
        return dir.read("text");
    }
    /// All files below a directory, with it.
    static std::vector<std::string> tree(const char* name)
    {
        std::vector<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(name))
            if (!entry.is_directory())
                paths.push_back(entry.path());
        return paths;
    }

    support::TempFolder dir;
};

TEST_F(FileOpsTest, ReadsMatricesOfEachType)
{
    EXPECT_THAT(numbers<std::uint8_t>(DT_BYTE, 3, "1 255\n256"), ElementsAre(1, 255, 0));
    EXPECT_THAT(numbers<std::int16_t>(DT_I16, 3, "-1 32767\t65535"), ElementsAre(-1, 32767, -1));
    EXPECT_THAT(numbers<std::uint16_t>(DT_U16, 3, "1\r\n\r\n65535 3 4"), ElementsAre(1, 65535, 3));
    EXPECT_THAT(numbers<std::uint32_t>(DT_U32, 1, "4294967295"), ElementsAre(UINT32_MAX));
    EXPECT_THAT(numbers<double>(DT_DOUBLE, 3, "1.5 -2e3 7"), ElementsAre(1.5, -2000, 7));

    EXPECT_THAT(numbers<std::uint16_t>(DT_U16, 3, "1 2", -2), ElementsAre(1, 2, 0));
    EXPECT_THAT(numbers<std::int32_t>(DT_I32, 2, "1 x 2", -2), ElementsAre(1, 0));
    for (const _DataType type : {DT_CHAR, DT_I64, DT_U64, DT_FLOAT, DT_BOOL, DT_STRING, DT_UNKNOWN})
        numbers<std::uint64_t>(type, 1, "1", -4);
    EXPECT_EQ(-1, readAsciiMatrix(nullptr, DT_U16, 0, nullptr));
}

TEST_F(FileOpsTest, WritesRowsOfMatrices)
{
    EXPECT_EQ("1 2\n3 4\n255 ", text<std::uint8_t>(writeAsciiMatrix, DT_BYTE, {1, 2, 3, 4, 255}, 2));
    EXPECT_EQ("4294967295 ", text<std::uint32_t>(writeAsciiMatrix, DT_U32, {UINT32_MAX}, 0));
    EXPECT_EQ("0.500000 ", text<float>(writeAsciiMatrix, DT_FLOAT, {0.5F}, 0));
    EXPECT_EQ("0F FF ", text<std::uint8_t>(writeAsciiMatrixHex, DT_BYTE, {15, 255}, 0));
    EXPECT_EQ("FFFE\n0001\n", text<std::int16_t>(writeAsciiMatrixHex, DT_I16, {-2, 1}, 1));

    const double value = 1;
    EXPECT_EQ(0, writeAsciiMatrix("text", DT_DOUBLE, &value, 1, 1, true));
    EXPECT_EQ(-4, writeAsciiMatrix("text", DT_U64, &value, 1, 1, false));
    EXPECT_EQ(-4, writeAsciiMatrixHex("text", DT_DOUBLE, &value, 1, 1, false));
    EXPECT_EQ("FFFE\n0001\n1.000000\n", dir.read("text")) << "a wrong type costs nothing";
    EXPECT_EQ(-1, writeAsciiMatrix("no/such", DT_DOUBLE, &value, 1, 1, false));
    EXPECT_EQ(-3, writeAsciiMatrix("/dev/full", DT_DOUBLE, &value, 1, 1, false));
}

TEST_F(FileOpsTest, CountsLinesAndDimensions)
{
    dir.write("m", "\r\n \t\n1 2.5 -3 end 4\r\n5\n\n6");
    unsigned long width = 9;
    unsigned long height = 9;
    EXPECT_EQ(0, getAsciiMatrixDimensions("m", &width, &height));
    EXPECT_EQ(3U, width);
    EXPECT_EQ(3U, height);
    EXPECT_EQ(6, getNumberOfLinesInFile("m", false));
    EXPECT_EQ(3, getNumberOfLinesInFile("m", true));
    EXPECT_EQ(0, getAsciiMatrixDimensions("absent", &width, &height));
    EXPECT_EQ(0U, width + height);
    EXPECT_EQ(-1, getNumberOfLinesInFile(nullptr, false));
}

TEST_F(FileOpsTest, MovesAndComparesBytes)
{
    EXPECT_EQ(0, writeBinary("bytes", "ab\0c", 4, false));
    EXPECT_EQ(0, writeBinary("bytes", "def", 3, true));
    EXPECT_EQ(7, getFileSize("bytes"));
    std::string bytes(8, '#');
    EXPECT_EQ(0, readBinary("bytes", bytes.data(), 7));
    EXPECT_EQ(std::string("ab\0cdef#", 8), bytes);
    EXPECT_EQ(-2, readBinary("bytes", bytes.data(), 8));
    EXPECT_EQ(-1, readBinary("absent", bytes.data(), 1));
    EXPECT_EQ(-1, writeBinary("no/such", "a", 1, false));
    EXPECT_EQ(-3, writeBinary("/dev/full", "a", 1, false));
    EXPECT_EQ(-1, getFileSize("absent"));
    EXPECT_EQ(-1, getFileSize("."));

    dir.write("same", bytes.substr(0, 7));
    dir.write("other", bytes.substr(0, 6) + "F");
    dir.write("longer", bytes);
    for (const unsigned long chunk : {0UL, 3UL, 7UL, std::numeric_limits<unsigned long>::max()}) {
        EXPECT_TRUE(isFilesEqual("bytes", "same", chunk));
        EXPECT_FALSE(isFilesEqual("bytes", "other", chunk));
        EXPECT_FALSE(isFilesEqual("bytes", "longer", chunk));
    }
    EXPECT_FALSE(isFilesEqual("absent", "absent", 1));
}

TEST_F(FileOpsTest, CopiesAFileButNotOntoItself)
{
    dir.write("from", std::string(100000, 'x'));
    dir.write("to", "before");
    EXPECT_EQ(0, copyFile("from", "to"));
    EXPECT_TRUE(isFilesEqual("from", "to", 4096));
    fs::create_symlink("from", "link");
    EXPECT_EQ(0, copyFile("from", "link"));
    EXPECT_EQ(100000, getFileSize("from"));
    EXPECT_EQ(-1, copyFile("absent", "to"));
    EXPECT_EQ(-1, copyFile(".", "to"));
    EXPECT_EQ(100000, getFileSize("to")) << "the target stays without a source";
    EXPECT_EQ(-1, copyFile("from", "no/such"));
    EXPECT_EQ(-3, copyFile("from", "/dev/full"));
}

TEST(MatchMask, StarsAndQuestionMarks)
{
    const auto matches = [](const std::string& nameAndMask) {
        const auto parts = str::split(nameAndMask, " ", false, 2);
        return matchMask(parts[0].c_str(), parts[1].c_str());
    };
    for (const char* const pair : {"a.txt *.t*", "a.txt ?.txt", " *", " ", "abc ***", "aXbXc *X?", "aaab *aab", "* ?"})
        EXPECT_TRUE(matches(pair)) << pair;
    for (const char* const pair : {"a.txt a?txt", "a A", "a.txt a.tx", "a.tx a.txt", " ?", "abc *b", "ab *?.?", "a "})
        EXPECT_FALSE(matches(pair)) << pair;
}

TEST_F(FileOpsTest, ListsADirectory)
{
    dir.write("a.txt", "");
    dir.write(".hidden", "");
    fs::create_directory("d.txt");
    fs::create_directory_symlink("d.txt", "l.txt");
    std::vector<std::string> names = {"before"};
    EXPECT_EQ(0, listFilesInDir(".", "*.txt", false, false, names));
    EXPECT_THAT(names, UnorderedElementsAre("before", "a.txt", "d.txt", "l.txt"));
    names.clear();
    EXPECT_EQ(0, listFilesInDir(".", nullptr, true, true, names));
    EXPECT_THAT(names, UnorderedElementsAre("./a.txt", "./.hidden"));
    EXPECT_EQ(-5, listFilesInDir("a.txt", "*", true, true, names));
    EXPECT_EQ("/a/b", getFileDir("/a/b/c") + getFileDir("/c") + getFileDir("c"));
}

TEST_F(FileOpsTest, MakesThePathOfAFile)
{
    EXPECT_EQ(0, createFilePath("p//q/file"));
    EXPECT_TRUE(fs::is_directory("p/q") && !fileExists("p/q/file"));
    EXPECT_EQ(fs::perms::owner_all, fs::status("p").permissions());
    EXPECT_EQ(-1, createDir("p"));
    EXPECT_EQ(0, createFilePath(("p/" + std::string(5000, 'n') + "/file").c_str())) << "beyond any file system";
    EXPECT_EQ(-1, createFilePath(nullptr));
}

TEST_F(FileOpsTest, CopiesATreeWithoutLinksOrItsOwnCopy)
{
    createFilePath("from/sub/deep/");
    for (const char* const name : {"from/z", "from/sub/deep/f"})
        dir.write(name, name);
    fs::create_symlink("z", "from/link");
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(0, copyFileDir("from/", "from/sub/copy"));
    EXPECT_THAT(tree("from/sub/copy"), UnorderedElementsAre("from/sub/copy/sub/deep/f", "from/sub/copy/z"));
    EXPECT_EQ("from/z", dir.read("from/sub/copy/z"));

    createFilePath("to/z/"); // a directory in the way of a file
    EXPECT_EQ(-1, copyFileDir("from", "to"));
    EXPECT_THAT(tree("to"), UnorderedElementsAre("to/sub/copy/sub/deep/f", "to/sub/copy/z", "to/sub/deep/f"));
    EXPECT_EQ(-1, copyFileDir("absent", "to"));
    EXPECT_EQ(-1, copyFileDir("from/z", "to"));
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
    for (const char* const nothing : {"", "/no/such", static_cast<const char*>(nullptr)})
        EXPECT_EQ(-1, deleteFileDir(nothing));
}

} // namespace

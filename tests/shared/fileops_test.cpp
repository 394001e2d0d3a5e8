// Matrices as text, bytes, and directories: what is written, what is read, and what is left alone.
#include "shared/fileops.h"

#include "shared/datatype.h"
#include "shared/str.h"
#include "tempfile.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>

using testing::ElementsAre;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

class FileOpsTest : public testing::Test {
protected:
    std::string at(const char* name) const { return dir.path(name); }

    /// What a file holds as `Count` items, read into memory of just that size.
    template <typename T, std::size_t Count>
    std::array<T, Count> numbers(_DataType type, const std::string& text, int result = 0)
    {
        const std::string path = dir.write("numbers", text);
        const auto data = std::make_unique<T[]>(Count);
        EXPECT_EQ(result, readAsciiMatrix(path.c_str(), type, Count, data.get())) << text;
        std::array<T, Count> copy;
        std::copy_n(data.get(), Count, copy.begin());
        return copy;
    }
    /// The text of a matrix.
    template <typename T, typename Write>
    std::string text(Write write, _DataType type, std::vector<T> data, unsigned long width)
    {
        EXPECT_EQ(0, write(at("text").c_str(), type, data.data(), data.size(), width, false));
        return dir.read("text");
    }
    /// All files below a directory, without it.
    std::vector<std::string> tree(const char* name) const
    {
        std::vector<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(at(name)))
            if (!entry.is_directory())
                paths.push_back(fs::relative(entry.path(), at(name)));
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    TempDir dir;
};

TEST_F(FileOpsTest, ReadsMatricesOfEachType)
{
    EXPECT_THAT((numbers<std::uint8_t, 3>(DT_BYTE, "1 255\n256")), ElementsAre(1, 255, 0));
    EXPECT_THAT((numbers<std::int16_t, 3>(DT_I16, "-1 32767\t65535")), ElementsAre(-1, 32767, -1));
    EXPECT_THAT((numbers<std::uint16_t, 3>(DT_U16, "1\r\n\r\n65535 3 4")), ElementsAre(1, 65535, 3));
    EXPECT_THAT((numbers<std::int32_t, 2>(DT_I32, "-2147483648 7")), ElementsAre(INT32_MIN, 7));
    EXPECT_THAT((numbers<std::uint32_t, 1>(DT_U32, "4294967295")), ElementsAre(UINT32_MAX));
    EXPECT_THAT((numbers<double, 3>(DT_DOUBLE, "1.5 -2e3 7")), ElementsAre(1.5, -2000, 7));

    EXPECT_THAT((numbers<std::uint16_t, 3>(DT_U16, "1 2", -2)), ElementsAre(1, 2, 0));
    EXPECT_THAT((numbers<std::int32_t, 2>(DT_I32, "1 x 2", -2)), ElementsAre(1, 0));
    for (const _DataType type : {DT_CHAR, DT_I64, DT_U64, DT_FLOAT, DT_BOOL, DT_STRING, DT_UNKNOWN})
        numbers<std::uint64_t, 1>(type, "1", -4);
    std::uint64_t item = 0;
    EXPECT_EQ(-1, readAsciiMatrix(nullptr, DT_U16, 1, &item));
}

TEST_F(FileOpsTest, WritesRowsOfMatrices)
{
    EXPECT_EQ("1 2\n3 4\n255 ", text<std::uint8_t>(writeAsciiMatrix, DT_BYTE, {1, 2, 3, 4, 255}, 2));
    EXPECT_EQ("-1 32767 ", text<std::int16_t>(writeAsciiMatrix, DT_I16, {-1, 32767}, 0));
    EXPECT_EQ("4294967295 ", text<std::uint32_t>(writeAsciiMatrix, DT_U32, {UINT32_MAX}, 0));
    EXPECT_EQ("0.500000 ", text<float>(writeAsciiMatrix, DT_FLOAT, {0.5F}, 0));
    EXPECT_EQ("-2000.000000 ", text<double>(writeAsciiMatrix, DT_DOUBLE, {-2e3}, 0));
    EXPECT_EQ("0F FF ", text<std::uint8_t>(writeAsciiMatrixHex, DT_BYTE, {15, 255}, 0));
    EXPECT_EQ("FFFE\n0001\n", text<std::int16_t>(writeAsciiMatrixHex, DT_I16, {-2, 1}, 1));
    EXPECT_EQ("FFFFFFFF ", text<std::int32_t>(writeAsciiMatrixHex, DT_I32, {-1}, 0));

    const double value = 1;
    EXPECT_EQ(0, writeAsciiMatrix(at("text").c_str(), DT_DOUBLE, &value, 1, 1, true));
    EXPECT_EQ(-4, writeAsciiMatrix(at("text").c_str(), DT_U64, &value, 1, 1, false));
    EXPECT_EQ(-4, writeAsciiMatrixHex(at("text").c_str(), DT_DOUBLE, &value, 1, 1, false));
    EXPECT_EQ("FFFFFFFF 1.000000\n", dir.read("text")) << "a wrong type costs nothing";
    EXPECT_EQ(-1, writeAsciiMatrix(at("no/such").c_str(), DT_DOUBLE, &value, 1, 1, false));
    EXPECT_EQ(-3, writeAsciiMatrix("/dev/full", DT_DOUBLE, &value, 1, 1, false));
}

TEST_F(FileOpsTest, CountsLinesAndDimensions)
{
    const std::string path = dir.write("m", "\r\n \t\n1 2.5 -3 end 4\r\n5\n\n6");
    unsigned long width = 9;
    unsigned long height = 9;
    EXPECT_EQ(0, getAsciiMatrixDimensions(path.c_str(), &width, &height));
    EXPECT_EQ(3U, width);
    EXPECT_EQ(3U, height);
    EXPECT_EQ(6, getNumberOfLinesInFile(path.c_str(), false));
    EXPECT_EQ(3, getNumberOfLinesInFile(path.c_str(), true));
    EXPECT_EQ(0, getAsciiMatrixDimensions(at("absent").c_str(), &width, &height));
    EXPECT_EQ(0U, width + height);
    EXPECT_EQ(-1, getNumberOfLinesInFile(nullptr, false));
}

TEST_F(FileOpsTest, MovesAndComparesBytes)
{
    const std::string path = at("bytes");
    EXPECT_EQ(0, writeBinary(path.c_str(), "ab\0c", 4, false));
    EXPECT_EQ(0, writeBinary(path.c_str(), "def", 3, true));
    EXPECT_EQ(7, getFileSize(path.c_str()));
    std::array<char, 8> bytes{};
    EXPECT_EQ(0, readBinary(path.c_str(), bytes.data(), 7));
    EXPECT_EQ(std::string("ab\0cdef\0", 8), std::string(bytes.data(), 8));
    EXPECT_EQ(-2, readBinary(path.c_str(), bytes.data(), 8));
    EXPECT_EQ(-1, readBinary(at("absent").c_str(), bytes.data(), 1));
    EXPECT_EQ(-1, writeBinary(at("no/such").c_str(), "a", 1, false));
    EXPECT_EQ(-3, writeBinary("/dev/full", "a", 1, false));
    EXPECT_EQ(-1, getFileSize(at("absent").c_str()));
    EXPECT_EQ(-1, getFileSize(dir.folder.c_str()));

    const std::string other = dir.write("other", std::string("ab\0cdeF", 7));
    const std::string longer = dir.write("longer", std::string("ab\0cdef!", 8));
    const std::string same = dir.write("same", std::string("ab\0cdef", 7));
    for (const unsigned long chunk : {0UL, 1UL, 3UL, 7UL, std::numeric_limits<unsigned long>::max()}) {
        EXPECT_TRUE(isFilesEqual(path.c_str(), same.c_str(), chunk));
        EXPECT_FALSE(isFilesEqual(path.c_str(), other.c_str(), chunk));
        EXPECT_FALSE(isFilesEqual(path.c_str(), longer.c_str(), chunk));
    }
    EXPECT_FALSE(isFilesEqual(at("absent").c_str(), at("absent").c_str(), 1));
}

TEST_F(FileOpsTest, CopiesAFileButNotOntoItself)
{
    const std::string from = dir.write("from", std::string(100000, 'x'));
    const std::string to = dir.write("to", "before");
    EXPECT_EQ(0, copyFile(from.c_str(), to.c_str()));
    EXPECT_TRUE(isFilesEqual(from.c_str(), to.c_str(), 4096));
    fs::create_symlink(from, at("link"));
    EXPECT_EQ(0, copyFile(from.c_str(), at("link").c_str()));
    EXPECT_EQ(100000, getFileSize(from.c_str()));
    EXPECT_EQ(-1, copyFile(at("absent").c_str(), to.c_str()));
    EXPECT_EQ(-1, copyFile(dir.folder.c_str(), to.c_str()));
    EXPECT_EQ(100000, getFileSize(to.c_str())) << "the target stays without a source";
    EXPECT_EQ(-1, copyFile(from.c_str(), at("no/such").c_str()));
    EXPECT_EQ(-3, copyFile(from.c_str(), "/dev/full"));
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
    fs::create_directory(at("d.txt"));
    fs::create_directory_symlink(at("d.txt"), at("l.txt"));
    std::vector<std::string> names = {"before"};
    EXPECT_EQ(0, listFilesInDir(dir.folder.c_str(), "*.txt", false, false, names));
    EXPECT_THAT(names, UnorderedElementsAre("before", "a.txt", "d.txt", "l.txt"));
    names.clear();
    EXPECT_EQ(0, listFilesInDir(dir.folder.c_str(), nullptr, true, true, names));
    EXPECT_THAT(names, UnorderedElementsAre(at("a.txt"), at(".hidden")));
    EXPECT_EQ(-5, listFilesInDir(at("a.txt").c_str(), "*", true, true, names));
    EXPECT_EQ("/a/b", getFileDir("/a/b/c") + getFileDir("/c") + getFileDir("c"));
}

TEST_F(FileOpsTest, MakesThePathOfAFile)
{
    EXPECT_EQ(0, createFilePath(at("p//q/file").c_str()));
    EXPECT_TRUE(fs::is_directory(at("p/q")) && !fileExists(at("p/q/file")));
    EXPECT_EQ(fs::perms::owner_all, fs::status(at("p")).permissions());
    EXPECT_EQ(-1, createDir(at("p").c_str()));
    EXPECT_EQ(0, createFilePath((at("p/") + std::string(5000, 'n') + "/file").c_str())) << "beyond any file system";
    EXPECT_EQ(-1, createFilePath(nullptr));
}

TEST_F(FileOpsTest, CopiesATreeWithoutLinksOrItsOwnCopy)
{
    createFilePath(at("from/sub/deep/").c_str());
    for (const char* const name : {"from/z", "from/sub/deep/f"})
        dir.write(name, name);
    fs::create_symlink(at("from/z"), at("from/link"));
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(0, copyFileDir(at("from/").c_str(), at("from/sub/copy").c_str()));
    EXPECT_THAT(tree("from/sub/copy"), ElementsAre("sub/deep/f", "z"));
    EXPECT_EQ("from/z", dir.read("from/sub/copy/z"));

    createFilePath(at("to/z/").c_str()); // a directory in the way of a file
    EXPECT_EQ(-1, copyFileDir(at("from").c_str(), at("to").c_str()));
    EXPECT_THAT(tree("to"), ElementsAre("sub/copy/sub/deep/f", "sub/copy/z", "sub/deep/f"));
    EXPECT_EQ(-1, copyFileDir(at("absent").c_str(), at("to").c_str()));
    EXPECT_EQ(-1, copyFileDir(at("from/z").c_str(), at("to").c_str()));
}

TEST_F(FileOpsTest, DeletesATreeButNothingThatLinksLeadTo)
{
    createFilePath(at("tree/sub/").c_str());
    createFilePath(at("kept/").c_str());
    dir.write("tree/sub/f", "");
    dir.write("kept/f", "");
    fs::create_directory_symlink(at("kept"), at("tree/sub/link"));
    fs::create_directory_symlink(at("kept"), at("link"));
    EXPECT_EQ(0, deleteFileDir(at("tree").c_str()));
    EXPECT_FALSE(fileExists(at("tree")));
    EXPECT_EQ(0, deleteFileDir(at("link//").c_str())) << "the link, not what the slash leads to";
    EXPECT_FALSE(fs::is_symlink(at("link")));
    EXPECT_TRUE(fileExists(at("kept/f")));
    for (const char* const nothing : {"", "/no/such", static_cast<const char*>(nullptr)})
        EXPECT_EQ(-1, deleteFileDir(nothing));
}

} // namespace

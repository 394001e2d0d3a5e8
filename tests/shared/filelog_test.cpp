// Records, levels, dumps and files of the log.
#include "shared/filelog.h"

#include "shared/str.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>

#include <numeric>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

class FileLogTest : public testing::Test {
protected:
    /// The log's lines behind the banner.
    std::vector<std::string> lines() const
    {
        std::vector<std::string> all = str::split(dir.read("x.log"), "\n", true, 0);
        EXPECT_THAT(all.at(0), MatchesRegex("################# LOG OPENED \\([0-9/]+ [0-9:.]+\\) #+ "));
        all.erase(all.begin());
        return all;
    }
    std::vector<std::string> dump(unsigned long size, bool ascii)
    {
        std::vector<unsigned char> bytes(size);
        std::iota(bytes.begin(), bytes.end(), 0x1C);
        FileLog target(dir / "x.log", true, false, false, true);
        EXPECT_EQ(target.logBuffer(7, ERR, bytes.data(), size, "T", ascii, 0, false), 7);
        const std::vector<std::string> all = lines();
        return {all.begin() + 1, all.end()};
    }

    support::TempFolder dir;
    FileLog log{dir / "x.log", true, false, false, true};
};

TEST_F(FileLogTest, EveryFormOfARecordHonoursTheLevel)
{
    const std::string longText(3000, 'y');
    log.setLogLevel(MSG);
    EXPECT_EQ(log.log(ERR, "code %d", 0), 0);
    EXPECT_EQ(log.log(-5, MSG, "%s", longText.c_str()), -5);
    EXPECT_EQ(log.log(3, FATAL, std::string("100%")), 3);
    EXPECT_EQ(log.log(-5, DBG, "dropped %d", 1), -5);
    EXPECT_EQ(log.logBuffer(3, DBG, "dropped", 7, nullptr, false, 0, false), 0);
    log.logNoTime(DBG, "dropped");
    log.logNoTime(MSG, "a");
    log.logNoTime(MSG, "%d\n");

    const std::string time = "^\\([0-9]{2}_[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\) ";
    EXPECT_THAT(lines(),
                ElementsAre(MatchesRegex(time + "\\[ERR\\]: code 0"), MatchesRegex(time + "\\[MSG\\]: " + longText),
                            MatchesRegex(time + "\\[FATAL\\]: 100%"), "a%d"));
}

TEST_F(FileLogTest, ConsoleGetsWhatAnUnwritableFileLoses)
{
    testing::internal::CaptureStdout();
    FileLog console(dir / "no/such/folder.log", true, true, true, true);
    EXPECT_EQ(console.log(4, ERR, std::string("text")), 4);
    console.logBuffer(0, ERR, "A", 1, nullptr, false, 0, true);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_THAT(output, MatchesRegex("\\(.*\\) \\[ERR\\]: text\n\\(.*\\) \\[ERR\\]: Buffer:   41 +\n"));
}

TEST_F(FileLogTest, DumpsShowBytesAndCharactersOfHeadAndTail)
{
    EXPECT_THAT(dump(6, true),
                ElementsAre("   1c 1d 1e 1f 20 21 " + std::string(33, ' ') + "|.....!" + std::string(12, ' ') + " "));
    EXPECT_THAT(dump(112, true).at(6), HasSubstr("||}~\x7f............"));

    const std::vector<std::string> rows = dump(1000, false);
    ASSERT_EQ(rows.size(), 8U + 1 + 8 + 1);
    EXPECT_EQ(rows[8], "          ----- SKIPPED DATA -----");
    EXPECT_THAT(rows[9], testing::StartsWith("   87 88 ")); // 0x1C + 875
    EXPECT_EQ(rows[17], "   Bytes: 1000");

    log.setLogBufferContent(false);
    log.logBuffer(ERR, rows.data(), 5, "T", true);
    EXPECT_EQ(lines().back(), "   Bytes: 5");
}

TEST_F(FileLogTest, KeepsTheFormerFileOnlyWhenItWouldBeTruncated)
{
    const auto filesAfterOpening = [this](bool rotate, bool truncate) {
        const FileLog next(dir / "x.log", true, false, rotate, truncate);
        return dir.names().size();
    };
    log.log(ERR, "former");
    EXPECT_EQ(filesAfterOpening(true, false), 1U);
    EXPECT_THAT(dir.read("x.log"), HasSubstr("former"));
    EXPECT_EQ(filesAfterOpening(true, true), 2U);
    EXPECT_TRUE(lines().empty());
    EXPECT_THAT(dir.names(), ElementsAre("x.log", MatchesRegex("x\\.log_[0-9]{8}_[0-9]{6}\\.log")));
}

TEST_F(FileLogTest, DumpsOfSeveralThreadsStayInOnePiece)
{
    constexpr int ROUNDS = 20;
    std::vector<std::thread> threads;
    for (char mark : {'A', 'B', 'C'}) {
        threads.emplace_back([this, mark] {
            const std::string bytes(40, mark);
            log.setLogLevel(MSG);
            log.setLogBufferContent(true);
            for (int i = 0; i < ROUNDS; ++i)
                log.logBuffer(MSG, bytes.data(), bytes.size(), std::string(1, mark).c_str(), true);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 3U * ROUNDS * 5);
    for (std::size_t i = 0; i < all.size(); ++i)
        EXPECT_TRUE(i % 5 == 0 || i % 5 == 4 || all[i].at(3 + 52) == all[i - i % 5].back()) << all[i];
}

} // namespace

// What the user sees while a series runs.
#include "apps/latixel/progress.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace {

using testing::EndsWith;
using testing::HasSubstr;

TEST(Progress, TellsWhatRemainsInAnyWidth)
{
    const tool::ProgressState half{50, 100, 10, 0.2, ""};
    EXPECT_THAT(tool::progressBar(half, 80), HasSubstr("50/100 frames, 5.00 frames/s, 10 s left"));
    for (unsigned columns = 0; columns < 120; ++columns)
        EXPECT_LT(tool::progressBar(half, columns).size(), std::max(columns, 1u)) << columns;
    EXPECT_THAT(tool::progressSentence({0, 60, 1, 2, ""}), EndsWith("1:59 min left"));
    EXPECT_THAT(tool::progressSentence({0, 1, 9, 2, ""}), EndsWith("waiting for the first frame"));
    EXPECT_THAT(tool::progressSentence({5, 0, 1, 1, ""}), HasSubstr("5/0"));
}

} // namespace

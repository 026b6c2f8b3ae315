// The picture in a terminal.
#include "tools/terminal_preview.h"

#include <gmock/gmock.h>

namespace fixture {

namespace {

TEST(Preview, NeedsATerminalWithColours) {
    const auto preview = [](const char *term, int columns) {
        const char *const environment[] = {term, nullptr};
        return TerminalPreview(Picture(320, 240), columns, 24, environment);
    };
    EXPECT_THAT(preview("TERM=xterm-256color", 80), testing::HasSubstr("\x1b["));
    EXPECT_LT(preview("TERM=xterm-256color", 20).size(), preview("TERM=xterm-256color", 60).size());
    for (const char *term : {"TERM=dumb", "TERM=", "LANG=C"}) EXPECT_EQ(preview(term, 80), "") << term;
    const char *const without[] = {"TERM=xterm-256color", "NO_COLOR=1", nullptr};
    EXPECT_EQ(TerminalPreview(Picture(320, 240), 80, 24, without), "");
    testing::internal::CaptureStdout();
    PrintPreview(stdout, Picture(320, 240));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "no terminal";
}

} // namespace

} // namespace fixture

// MediaCmd debug lines, captured from the debugger output.
#include <gtest/gtest.h>

#include "tests/mediacmd/mediacmd_test.h"

namespace {
// The debug line of a record, or "(none)" when nothing was written.
std::string line(const MediaCmd& c) {
    qnvtest::LogCapture log;
    __dbgout_mediacmd(&c);
    if (log.lines.empty()) return "(none)";
    EXPECT_EQ(log.levels, std::vector<uint32_t>{QX_LOG_DEBUG});
    return log.lines[0];
}
}  // namespace

TEST(MediaCmdDebug, CommandNamesAndValueNames) {
    MediaCmd c = mctest::record(ctPlay);
    EXPECT_EQ(line(c), "qnv-Chan-1 ctPlay ");
    c.Channel = 0;
    c.Flags = cfDeferred;
    // Value names for ctGetValue, numbers when unnamed; no name for an unknown
    // command; no line at all for the state commands.
    const struct { uint32_t cmd; int32_t alt; const char* want; } rows[] = {
        {ctGetValue, gsTc, "qnv-Chan0 ctGetValue(tc)Deferred "},
        {ctGetValue, 12345, "qnv-Chan0 ctGetValue(12345, 0x3039) Deferred "},
        {ctSwitch, 12345, "qnv-Chan0 ctSwitch Deferred "},
        {22, 12345, "qnv-Chan0 Deferred "},
        {ctSetState, 0, "(none)"},
        {ctGetState, 0, "(none)"}};
    for (const auto& r : rows) {
        c.Cmd = r.cmd;
        c.CmdAlt = r.alt;
        EXPECT_EQ(line(c), r.want) << r.cmd;
    }
}

TEST(MediaCmdDebug, ItemsInOrder) {
    MediaCmd c = mctest::record(ctRecord);
    c.Channel = 2;
    c.Flags = cfUsePresets;
    EXPECT_EQ(line(c), "qnv-Chan2 ctRecord ") << "the masks follow the position flag only";
    c.Flags = cfUsePosition;
    c.Position = 5;
    EXPECT_EQ(line(c), "qnv-Chan2 ctRecord UsePosition (5) UsePresets: V(-1)A(-1)I(-1) ");
    c.Flags = cfUseSpeed | cfUseStart | cfUseStartOffset | cfUseEnd | cfUseEndOffset | cfUseCmdAlt | cfUseClipID;
    c.Speed = -98280;
    c.Start = 1, c.End = 2, c.CmdAlt = 3;
    std::strcpy(c.ClipID, "AB");
    std::strcpy(c.FileName, "f.mov");
    EXPECT_EQ(line(c), "qnv-Chan2 ctRecord UseSpeed (-150) Use Start (1) UseStartOffset (1) UseEnd (2) "
                       "UseEndOffset (2) CmdAlt: (3) UseClipId: (AB)(f.mov) ");
    const std::pair<uint32_t, const char*> labels[] = {{cfTimeMs | cfTimeTarget | cfTimeHouseClock, "CmdTarget: "},
                                                        {cfTimeMs | cfTimeHouseClock, "CmdHouse: "},
                                                        {cfTimeMs, "CmdTime: "},
                                                        {cfTimeTarget, "CmdAlt: "}};
    for (const auto& [bits, label] : labels) {
        c.Flags = cfUseCmdAlt | bits;
        EXPECT_EQ(line(c), std::string("qnv-Chan2 ctRecord ") + label + "(3) ");
    }
    // A long name runs into the file name; the line is cut at its buffer.
    c.Flags = cfUseClipID;
    std::memset(mctest::area(c), 'n', 4000);
    EXPECT_EQ(line(c).size(), 1039u);
}

TEST(MediaCmdDebug, Timecode) {
    qnvtest::LogCapture log;
    __dbgout_tc(107892, 4);
    __dbgout_tc(108000, 0);
    __dbgout_tc(-1, 1);
    EXPECT_EQ(log.lines, (std::vector<std::string>{"01:00:00;00", "01:00:00:00", "49710:16:10:15"}));
    EXPECT_EQ(log.levels, std::vector<uint32_t>(3, QX_LOG_DEBUG));
}

// The CEA-608 decoder: sequences of byte pairs to the rows on screen and
// the captions with their times, in every caption mode.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/qnvtool/cea608.h"

namespace {

using qnvtool::cea608::Cue;
using qnvtool::cea608::Decoder;

uint8_t parity(uint8_t b) { return static_cast<uint8_t>(__builtin_parity(b & 0x7F) ? b & 0x7F : b | 0x80); }

// A step: a pair without parity bits (added), or one sent as it is.
struct Step {
    uint8_t b1, b2;
    bool raw = false;
};
// Control codes (CC1), each sent once: the decoder is checked for doubles
// separately.
const Step RCL{0x14, 0x20}, BS{0x14, 0x21}, DER{0x14, 0x24}, RU2{0x14, 0x25}, RU3{0x14, 0x26}, RDC{0x14, 0x29},
    EDM{0x14, 0x2C}, CR{0x14, 0x2D}, ENM{0x14, 0x2E}, EOC{0x14, 0x2F}, PAC15{0x14, 0x70}, PAC14{0x14, 0x50},
    PAC1{0x11, 0x40}, PAC15_8{0x14, 0x74}, TO2{0x17, 0x22}, MIDROW{0x11, 0x2E}, CC2_RCL{0x1C, 0x20};
Step chars(char a, char b = 0) { return {uint8_t(a), uint8_t(b)}; }

struct Decoded {
    std::string shown;
    std::vector<Cue> cues;
};

// Step i at time i; the stream ends at the time after the last.
Decoded decode(const std::vector<Step>& steps) {
    Decoded run;
    Decoder d([&](const Cue& c) { run.cues.push_back(c); });
    int64_t t = 0;
    for (const Step& s : steps) {
        d.pair(t, s.raw ? s.b1 : parity(s.b1), s.raw ? s.b2 : parity(s.b2));
        ++t;
    }
    run.shown = d.shown();
    d.finish(t);
    return run;
}

TEST(Cea608, SequencesToRowsOnScreen) {
    struct Case {
        const char* what;
        std::vector<Step> steps;
        const char* shown;
    };
    const Case cases[] = {
        {"pop-on is loaded off screen", {RCL, ENM, PAC15, chars('H', 'I')}, ""},
        {"pop-on shown by EOC", {RCL, ENM, PAC15, chars('H', 'I'), EOC}, "HI"},
        {"two rows, indent dropped", {RCL, PAC14, chars('A', 'B'), PAC15_8, chars('C', 'D'), EOC}, "AB\nCD"},
        {"rows in screen order", {RCL, PAC15, chars('B'), PAC1, chars('A'), EOC}, "A\nB"},
        {"EDM clears the screen", {RCL, PAC15, chars('H', 'I'), EOC, EDM}, ""},
        {"EOC swaps back an erased memory", {RCL, PAC15, chars('A'), EOC, ENM, PAC15, chars('B'), EOC}, "B"},
        {"roll-up 2: the text shows at once", {RU2, PAC15, chars('A', 'B')}, "AB"},
        {"roll-up 2 keeps two rows", {RU2, PAC15, chars('A', 'B'), CR, chars('C', 'D'), CR, chars('E', 'F')},
         "CD\nEF"},
        {"roll-up 3 keeps three rows",
         {RU3, PAC15, chars('A'), CR, chars('B'), CR, chars('C'), CR, chars('D')}, "B\nC\nD"},
        {"roll-up window follows the PAC row", {RU2, PAC15, chars('A'), CR, chars('B'), PAC14, chars('C')}, "A\nC"},
        {"roll-up window stays on screen", {RU3, PAC15, chars('A'), CR, chars('B'), PAC1, TO2, chars('C')}, "A\nB C"},
        {"paint-on draws on screen", {RDC, PAC15, chars('P', 'A'), chars('I', 'N')}, "PAIN"},
        {"tab offset", {RCL, PAC15, chars('A'), TO2, chars('B'), EOC}, "A  B"},
        {"mid-row code is a space", {RCL, PAC15, chars('A'), MIDROW, chars('B'), EOC}, "A B"},
        {"backspace and delete to end of row",
         {RCL, PAC15, chars('A', 'B'), chars('C', 'D'), BS, PAC15, chars('X'), DER, EOC}, "X"},
        {"basic set replacements", {RCL, PAC15, chars(0x2A, 0x5C), chars(0x7E, 0x7F), EOC}, "\xC3\xA1\xC3\xA9\xC3\xB1\xE2\x96\x88"},
        {"special characters", {RCL, PAC15, {0x11, 0x37}, {0x11, 0x30}, {0x11, 0x34}, EOC}, "\xE2\x99\xAA\xC2\xAE\xE2\x84\xA2"},
        {"extended characters replace their stand-in",
         {RCL, PAC15, chars('E'), {0x12, 0x21}, chars('s', 'o'), {0x13, 0x34}, chars('e'), EOC},
         "\xC3\x89s\xC3\x9F" "e"},
        {"parity error shows a block", {RCL, PAC15, {0x41, 0xC1, true}, EOC}, "\xE2\x96\x88" "A"},
        {"control code with a parity error is dropped", {RCL, PAC15, chars('A'), {0x14, 0x2F, true}}, ""},
        {"data channel 2 is not shown", {RCL, PAC15, chars('A'), EOC, CC2_RCL, chars('Z'), {0x1C, 0x2F}}, "A"},
    };
    for (const Case& c : cases) EXPECT_EQ(decode(c.steps).shown, c.shown) << c.what;
}

TEST(Cea608, ControlCodesSentTwiceActOnce) {
    // EOC twice would swap the caption back off screen.
    EXPECT_EQ(decode({RCL, RCL, PAC15, PAC15, chars('O', 'K'), EOC, EOC}).shown, "OK");
    // A third EOC in a row is a new one.
    EXPECT_EQ(decode({RCL, PAC15, chars('O', 'K'), EOC, EOC, EOC}).shown, "");
    // Another pair between two EOCs makes each count.
    EXPECT_EQ(decode({RCL, PAC15, chars('O', 'K'), EOC, {0, 0}, EOC}).shown, "");
}

TEST(Cea608, CaptionsRunFromTheirCommandToTheNextChange) {
    struct Expected {
        int64_t start, end;
        const char* text;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        std::vector<Expected> cues;
    };
    const Step pad{0x00, 0x00};
    const Case cases[] = {
        {"pop-on from EOC to EDM", {RCL, PAC15, chars('H', 'I'), EOC, pad, pad, EDM}, {{3, 6, "HI"}}},
        {"pop-on replaced by the next EOC",
         {RCL, PAC15, chars('A'), EOC, RCL, ENM, PAC15, chars('B'), EOC, pad},
         {{3, 8, "A"}, {8, 10, "B"}}},
        {"pop-on still shown at the end", {RCL, PAC15, chars('A'), EOC, pad}, {{3, 5, "A"}}},
        {"roll-up: rows as they stood at each CR", {EDM, RU2, PAC15, chars('A'), CR, chars('B'), CR, EDM},
         {{0, 4, "A"}, {4, 6, "A\nB"}, {6, 7, "B"}}},
        {"roll-up 3 keeps the rows", {RU3, PAC15, chars('A'), CR, chars('B'), CR, EDM},
         {{0, 3, "A"}, {3, 5, "A\nB"}, {5, 6, "A\nB"}}},
        {"paint-on: shown until EDM", {EDM, RDC, PAC15, chars('A'), pad, PAC14, chars('B'), EDM},
         {{0, 7, "B\nA"}}},
        {"entering roll-up ends a pop-on caption", {RCL, PAC15, chars('A'), EOC, RU2, PAC15, chars('B'), CR},
         {{3, 4, "A"}, {4, 7, "B"}, {7, 8, "B"}}},
    };
    for (const Case& c : cases) {
        const Decoded run = decode(c.steps);
        ASSERT_EQ(run.cues.size(), c.cues.size()) << c.what;
        for (size_t i = 0; i < c.cues.size(); ++i) {
            EXPECT_EQ(run.cues[i].start, c.cues[i].start) << c.what << " cue " << i;
            EXPECT_EQ(run.cues[i].end, c.cues[i].end) << c.what << " cue " << i;
            EXPECT_EQ(run.cues[i].text, c.cues[i].text) << c.what << " cue " << i;
        }
    }
}

}  // namespace

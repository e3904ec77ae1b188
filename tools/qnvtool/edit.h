// qnvtool edit: the changes one run makes, and the pieces that make them
// (parameter sets in edit_paramsets.cpp, delimiters and SEI in edit_units.cpp).
#ifndef QNVTOOL_EDIT_H
#define QNVTOOL_EDIT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/qnvtool/annexb.h"

namespace qnvtool {

struct Ratio {
    uint32_t num;
    uint32_t den;
};

struct Crop {
    uint32_t left, right, top, bottom;  // luma samples
};

// A level as written: "4.1" is {4, 1}; "1b" is {1, 0, true}.
struct Level {
    uint32_t major;
    uint32_t minor;
    bool oneB;
};

enum class AudEdit { kKeep, kInsert, kRemove };

// Everything the command line asked for; absent options change nothing.
struct EditChanges {
    std::optional<uint32_t> primaries, transfer, matrix;  // ITU-T H.273 code points
    std::optional<bool> fullRange;
    std::optional<Ratio> sar;
    std::optional<Level> level;
    std::optional<Ratio> fps;  // frames per second as num/den
    // H.264 only: VUI pic_struct_present_flag set (for pic_timing time codes),
    // and timing info at this rate for an SPS that has none.
    bool picStructPresent = false;
    std::optional<Ratio> fpsWhenAbsent;
    std::optional<Crop> crop;
    AudEdit aud = AudEdit::kKeep;
    std::vector<uint32_t> removeSei;  // payloadType values

    bool colour() const { return primaries || transfer || matrix; }
    bool vui() const { return colour() || fullRange || sar || fps || picStructPresent || fpsWhenAbsent; }
    bool sequence() const { return vui() || level || crop; }
};

// ---- Parameter sets (edit_paramsets.cpp) ---------------------------------

// Rewrites parameter sets of one codec with the changes, through the
// library's readers and writers. Holds the work records (large for HEVC), so
// one instance serves a whole stream.
class ParameterSetEditor {
public:
    ParameterSetEditor(Codec codec, const EditChanges& changes);
    ~ParameterSetEditor();
    ParameterSetEditor(const ParameterSetEditor&) = delete;
    ParameterSetEditor& operator=(const ParameterSetEditor&) = delete;

    // Whether units of this nal_unit_type are rewritten.
    bool edits(uint32_t type) const;
    // The rewritten unit (NAL header first, escaped, no start code). Throws
    // Error naming `where` when the unit does not come back unchanged through
    // the library's record (so that a rewrite would lose what it carries) or
    // a change does not fit it.
    const std::vector<uint8_t>& rewrite(const uint8_t* unit, uint32_t size, const std::string& where);

private:
    struct Records;
    Codec codec_;
    const EditChanges& changes_;
    std::unique_ptr<Records> records_;
    std::vector<uint8_t> source_, result_;  // the last unit rewritten, and its rewrite
};

// Parses "4.1", "41", "4" or "1b"; throws Error otherwise.
Level parseLevel(const std::string& text);
// Checks that the codec has the level; throws Error otherwise.
void checkLevel(Codec codec, const Level& level);

// ---- Delimiters and SEI (edit_units.cpp) ----------------------------------

// The slice types a picture's slices have, gathered unit by unit, and the
// access unit delimiter that announces them (H.264 primary_pic_type of
// Table 7-5, HEVC pic_type of Table 7-2).
class PictureTypes {
public:
    explicit PictureTypes(Codec codec);
    ~PictureTypes();
    PictureTypes(const PictureTypes&) = delete;
    PictureTypes& operator=(const PictureTypes&) = delete;

    // Notes a parameter set (HEVC slice headers are read with the PPS and
    // SPS they name).
    void noteParameterSet(const uint8_t* unit, uint32_t size);
    // Notes one VCL unit of the picture.
    void noteSlice(const uint8_t* unit, uint32_t size);
    // The delimiter unit (NAL header first, no start code) for the slices
    // noted since the last call; a picture whose slice types could not be
    // read gets the value allowing every type.
    std::vector<uint8_t> takeDelimiter();

private:
    struct HevcSets;
    Codec codec_;
    uint32_t seen_ = 0;     // bit per slice type
    bool unknown_ = false;  // a slice whose type could not be read
    bool slices_ = false;   // a slice noted since the last delimiter
    uint8_t temporalIdPlus1_ = 1;
    std::unique_ptr<HevcSets> hevc_;  // HEVC: the parameter sets by id
};

// Removes SEI messages with the given payloadType values from one SEI unit
// (NAL header first, escaped). Returns the number removed; `out` is the
// rebuilt unit (escaped again), empty when no message is left. A unit whose
// messages cannot be delimited throws Error naming `where`.
uint32_t removeSeiMessages(Codec codec, const uint8_t* unit, uint32_t size, const std::vector<uint32_t>& types,
                           std::vector<uint8_t>& out, const std::string& where);

}  // namespace qnvtool

#endif

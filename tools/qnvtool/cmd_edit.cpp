// qnvtool edit IN OUT [--primaries N] [--transfer N] [--matrix N] [--range tv|pc]
//                     [--sar W:H] [--level N] [--fps N/D] [--crop L,R,T,B]
//                     [--aud insert|remove] [--remove-sei TYPE[,TYPE]] [--codec h264|hevc]
//                     [--mastering-display G(x,y)B(x,y)R(x,y)WP(x,y)L(max,min)] [--max-cll CLL,FALL]
//                     [--atc N] [--remove-hdr] [--every-au]
//
// Rewrites the parameter sets of an H.264 or HEVC Annex B stream through the
// library's records, inserts or removes access unit delimiters and removes
// SEI messages; slice units are copied as they stand. Every other unit keeps
// its bytes and its start code, except that the first unit of an access unit
// gets the four-byte form the standards ask of it.
//
// Access units begin where H.264 7.4.1.2.3 and H.265 7.4.2.4.4 put them: at
// a delimiter, parameter set or (prefix) SEI after a picture's slices, or at
// the first slice of the next picture. An inserted delimiter's picture type
// is the narrowest one that allows the slice types of its picture.
//
// Colour SEI (mastering display, content light level, alternative transfer)
// goes as one prefix SEI unit in front of the first slice of every IRAP
// access unit (H.264: IDR), or of every access unit with --every-au; earlier
// messages of the types written are taken out of every access unit first.
//
// The stream is read and written in chunks; IN and OUT may be "-" for
// standard input and output. The output is written to a temporary file
// beside OUT and renamed into place; on any failure OUT is left as it was.
#include <algorithm>
#include <cstdio>
#include <sstream>

#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/edit.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"
#include "vidformat/ratetext.h"

namespace qnvtool {
namespace {

struct EditOptions {
    std::string in, out, codec;
    std::optional<uint32_t> primaries, transfer, matrix;
    std::string range, sar, level, fps, crop, aud, removeSei, masteringDisplay, maxCll;
    std::optional<uint32_t> atc;
    bool removeHdr = false, everyAu = false;
};

// Splits "a<sep>b<sep>..." into unsigned numbers, each at most `limit`.
std::vector<uint32_t> numbers(const std::string& option, const std::string& text, char separator, size_t count,
                              uint32_t limit) {
    std::vector<uint32_t> values;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, separator)) {
        const bool digits = !item.empty() && item.size() <= 10 && item.find_first_not_of("0123456789") == item.npos;
        const uint64_t v = digits ? std::stoull(item) : 0;
        if (!digits || v > limit)
            throw Error(option + ": '" + item + "' is not a number from 0 to " + std::to_string(limit));
        values.push_back(static_cast<uint32_t>(v));
    }
    if ((count != 0 && values.size() != count) || values.empty() || text.back() == separator)
        throw Error(option + ": '" + text + "' is not " +
                    (count == 4 ? "L,R,T,B" : count == 2 ? "W:H" : "a list of numbers"));
    return values;
}

EditChanges parseChanges(const EditOptions& o) {
    EditChanges c;
    c.primaries = o.primaries;
    c.transfer = o.transfer;
    c.matrix = o.matrix;
    if (!o.range.empty()) c.fullRange = o.range == "pc";
    if (!o.sar.empty()) {
        const std::vector<uint32_t> v = numbers("--sar", o.sar, ':', 2, 0xFFFF);
        if (v[0] == 0 || v[1] == 0) throw Error("--sar: '" + o.sar + "' is not a sample aspect ratio");
        c.sar = Ratio{v[0], v[1]};
    }
    if (!o.level.empty()) c.level = parseLevel(o.level);
    if (!o.fps.empty()) {
        Ratio fps{};
        if (!qnv::RateFromText(o.fps.c_str(), &fps.num, &fps.den))
            throw Error("--fps: '" + o.fps + "' is not a frame rate (30000/1001, 25 or 29.97)");
        c.fps = fps;
    }
    if (!o.crop.empty()) {
        const std::vector<uint32_t> v = numbers("--crop", o.crop, ',', 4, 0xFFFF);
        c.crop = Crop{v[0], v[1], v[2], v[3]};
    }
    if (o.aud == "insert") c.aud = AudEdit::kInsert;
    if (o.aud == "remove") c.aud = AudEdit::kRemove;
    if (!o.removeSei.empty()) c.removeSei = numbers("--remove-sei", o.removeSei, ',', 0, 0xFFFF);
    if (!o.masteringDisplay.empty()) parseMasteringDisplay(o.masteringDisplay, c.hdr);
    if (!o.maxCll.empty()) parseMaxCll(o.maxCll, c.hdr);
    if (o.atc) {
        c.hdr.alternative_transfer_present = 1;
        c.hdr.preferred_transfer_characteristics = *o.atc;
    }
    c.removeHdr = o.removeHdr;
    c.everyAu = o.everyAu;
    if (c.everyAu && !c.hdrInsert()) throw Error("--every-au: no colour SEI to write");
    if (!c.sequence() && c.aud == AudEdit::kKeep && c.seiToRemove().empty())
        throw Error("edit: no change given (see qnvtool edit --help)");
    return c;
}

Codec streamCodec(const std::vector<uint8_t>& head, const std::string& name, const EditOptions& o) {
    if (!o.codec.empty()) return parseCodec(o.codec);
    if (!startsWithStartCode(head)) throw Error(name + ": not an Annex B stream (no start code at the beginning)");
    const Codec codec = detectCodec(head, listUnits(head));
    if (codec == Codec::kUnknown) throw Error(name + ": no H.264 or HEVC NAL units found");
    return codec;
}

struct Counts {
    size_t rewritten = 0, inserted = 0, removedAud = 0, removedSei = 0, colourSei = 0;
    uint64_t accessUnits = 0, units = 0;
};

void runEdit(const EditOptions& o) {
    const EditChanges changes = parseChanges(o);
    InputStream in(o.in);
    UnitReader reader(in);
    const Codec codec = streamCodec(streamHead(reader), in.name(), o);
    ParameterSetEditor parameterSets(codec, changes);
    const bool hevc = codec == Codec::kHevc;
    AccessUnitReader aus(reader, hevc ? VideoCodec::kHevc : VideoCodec::kH264);
    OutputStream out(o.out);

    namespace nal = qnv::nal;
    const nal::Codec layer = nalCodec(codec);
    auto isAud = [&](uint32_t t) { return t == (hevc ? nal::hevc::kAud : nal::h264::kAud); };
    auto isSei = [&](uint32_t t) {
        return hevc ? t == nal::hevc::kPrefixSei || t == nal::hevc::kSuffixSei : t == nal::h264::kSei;
    };

    std::vector<uint8_t> au, rebuilt;
    std::vector<nal::Unit> units;
    uint64_t auOffset = 0;
    PictureTypes pictureTypes(codec);
    Counts counts;
    const std::vector<uint32_t> seiToRemove = changes.seiToRemove();
    uint8_t colourSei[64];
    int32_t colourSeiSize = 0;
    if (changes.hdrInsert()) {
        colourSeiSize = qnvutilWrite_HDR_WCG_SEI_Packet(&changes.hdr, hevc ? QNV_HDR_HEVC : QNV_HDR_H264, colourSei,
                                                        sizeof colourSei, 0);
        if (colourSeiSize <= 0) throw Error("edit: the colour SEI could not be written");
    }
    static const uint8_t kZero = 0, kStartCode[4] = {0, 0, 0, 1};
    while (aus.next(au, auOffset)) {
        ++counts.accessUnits;
        const uint8_t* data = au.data();
        units.clear();
        nal::UnitWalk walk(data, static_cast<uint32_t>(au.size()), nal::Framing::kAnnexB);
        for (nal::Unit u; walk.next(u);) units.push_back(u);
        counts.units += units.size();
        // Bytes in front of the stream's first unit pass as they are.
        const uint32_t lead = units.empty() ? static_cast<uint32_t>(au.size()) : units[0].offset;
        out.write(data, lead);

        auto typeOf = [&](const nal::Unit& u) { return nal::unitType(layer, data[u.header()]); };
        auto where = [&](const nal::Unit& u, uint32_t type) {
            return in.name() + ": " + nal::typeName(layer, type) + " at offset " + std::to_string(auOffset + u.offset);
        };
        bool hasAud = false, hasVcl = false, irap = false;
        size_t firstVcl = units.size();
        for (size_t i = 0; i < units.size(); ++i) {
            const nal::Unit& u = units[i];
            if (u.size == 0) continue;
            const uint32_t type = typeOf(u);
            hasAud |= isAud(type);
            if (nal::isVcl(layer, type) && !hasVcl) {
                firstVcl = i;
                irap = hevc ? type >= nal::hevc::kBlaWLp && type <= nal::hevc::kIrapLast : type == nal::h264::kIdrSlice;
            }
            hasVcl |= nal::isVcl(layer, type);
            if (changes.aud != AudEdit::kInsert) continue;
            if (nal::isVcl(layer, type)) pictureTypes.noteSlice(data + u.header(), u.size);
            else pictureTypes.noteParameterSet(data + u.header(), u.size);
        }
        bool first = true;
        if (changes.aud == AudEdit::kInsert) {
            const std::vector<uint8_t> delimiter = pictureTypes.takeDelimiter();
            if (!hasAud && hasVcl) {
                out.write(kStartCode, 4);
                out.write(delimiter);
                ++counts.inserted;
                first = false;
            }
        }
        for (size_t i = 0; i < units.size(); ++i) {
            const nal::Unit& u = units[i];
            const size_t following = i + 1 < units.size() ? units[i + 1].offset : au.size();
            const uint8_t* body = data + u.header();
            size_t bodySize = u.size;
            const uint32_t type = u.size == 0 ? 0xFFFFFFFFu : typeOf(u);
            if (i == firstVcl && colourSeiSize > 0 && (irap || changes.everyAu)) {
                // The SEI takes the picture's TemporalId (HEVC 7.4.2.2).
                if (hevc && u.size >= 2) colourSei[5] = static_cast<uint8_t>(std::max(data[u.header() + 1] & 7, 1));
                out.write(colourSei, static_cast<size_t>(colourSeiSize));
                ++counts.colourSei;
                first = false;
            }
            if (u.size != 0 && changes.aud == AudEdit::kRemove && isAud(type)) {
                ++counts.removedAud;
                continue;
            }
            if (u.size != 0 && parameterSets.edits(type)) {
                const std::vector<uint8_t>& unit = parameterSets.rewrite(body, u.size, where(u, type));
                body = unit.data();
                bodySize = unit.size();
                ++counts.rewritten;
            } else if (u.size != 0 && !seiToRemove.empty() && isSei(type)) {
                const uint32_t removed =
                    removeSeiMessages(codec, body, u.size, seiToRemove, rebuilt, where(u, type));
                counts.removedSei += removed;
                if (removed != 0 && rebuilt.empty()) continue;  // no message left
                if (removed != 0) {
                    body = rebuilt.data();
                    bodySize = rebuilt.size();
                }
            }
            // The first unit of an access unit has the zero_byte in front.
            if (first && u.prefix == 3) out.write(&kZero, 1);
            out.write(data + u.offset, u.prefix);
            out.write(body, bodySize);
            out.write(data + u.end(), following - u.end());
            first = false;
        }
    }
    if (counts.units == 0) throw Error(in.name() + ": no NAL units");
    if (changes.sequence() && counts.rewritten == 0)
        throw Error(in.name() + ": no SPS to carry the parameter set changes");
    if (colourSeiSize > 0 && counts.colourSei == 0)
        throw Error(in.name() + ": no IRAP access unit to carry the colour SEI (see --every-au)");
    out.commit();
    std::fprintf(summaryFile(out),
                 "%llu access units, %s: %zu parameter sets rewritten, %zu delimiters inserted, %zu removed, "
                 "%zu SEI messages removed, %zu colour SEI units written\n",
                 static_cast<unsigned long long>(counts.accessUnits), codecName(codec), counts.rewritten,
                 counts.inserted, counts.removedAud, counts.removedSei, counts.colourSei);
}

const Registration kEdit([](CLI::App& app) {
    auto o = std::make_shared<EditOptions>();
    CLI::App* sub = app.add_subcommand(
        "edit", "Change colour, aspect, level, timing and cropping in the parameter sets of an H.264 or HEVC stream, "
                "insert or remove access unit delimiters, remove SEI messages, write or remove HDR colour SEI");
    sub->add_option("IN", o->in, "H.264 or HEVC Annex B elementary stream")->required();
    sub->add_option("OUT", o->out, "output stream (replaced whole, or left alone on failure)")->required();
    sub->add_option("--codec", o->codec, "h264 or hevc (detected from the first units when not given)")
        ->check(CLI::IsMember({"h264", "hevc"}));
    sub->add_option("--primaries", o->primaries, "colour_primaries, an ITU-T H.273 code point")
        ->check(CLI::Range(0, 255));
    sub->add_option("--transfer", o->transfer, "transfer_characteristics, an ITU-T H.273 code point")
        ->check(CLI::Range(0, 255));
    sub->add_option("--matrix", o->matrix, "matrix_coefficients, an ITU-T H.273 code point")
        ->check(CLI::Range(0, 255));
    sub->add_option("--range", o->range, "video_full_range_flag: tv (0) or pc (1)")
        ->check(CLI::IsMember({"tv", "pc"}));
    sub->add_option("--sar", o->sar, "sample aspect ratio W:H (a Table E-1 aspect_ratio_idc where one matches)");
    sub->add_option("--level", o->level, "level, as 4.1, 41, 4 or (H.264) 1b");
    sub->add_option("--fps", o->fps, "VUI timing for N/D frames per second (30000/1001, 25, 29.97)");
    sub->add_option("--crop", o->crop, "cropping window L,R,T,B in luma samples, multiples of the crop unit");
    sub->add_option("--aud", o->aud, "insert a delimiter into every access unit that lacks one, or remove all")
        ->check(CLI::IsMember({"insert", "remove"}));
    sub->add_option("--remove-sei", o->removeSei, "remove SEI messages of these payloadType values, e.g. 5 or 5,6");
    sub->add_option("--mastering-display", o->masteringDisplay,
                    "mastering display colour volume SEI, as x265 takes it: G(x,y)B(x,y)R(x,y)WP(x,y)L(max,min)");
    sub->add_option("--max-cll", o->maxCll, "content light level SEI: MaxCLL,MaxFALL in cd/m2");
    sub->add_option("--atc", o->atc, "alternative transfer characteristics SEI: an ITU-T H.273 code point")
        ->check(CLI::Range(0, 255));
    sub->add_flag("--remove-hdr", o->removeHdr,
                  "remove mastering display, content light level and alternative transfer SEI messages");
    sub->add_flag("--every-au", o->everyAu, "write the colour SEI into every access unit, not only IRAP ones");
    sub->callback([o] { runEdit(*o); });
});

}  // namespace
}  // namespace qnvtool

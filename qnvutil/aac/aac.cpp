// AudioSpecificConfig and ADTS headers. Each syntax is written down once, as
// a function template over a field mover: the reader instantiates it with a
// mover that fills the record from the stream, the writer with one that puts
// the record's fields into the stream, so the two directions cannot disagree
// on field order, widths or conditions.
#include "qnvutil/aac.h"

#include "qnvutil/aac/aac_internal.h"

namespace qnv {
namespace {

// Moves fields from the stream into the record.
struct FieldReader {
    BitBuffer* bits;
    // Reads `width` bits into `field`; returns the value read.
    uint32_t operator()(uint32_t width, uint32_t& field) const {
        field = ReadBits(bits, width);
        return field;
    }
    // A field the stream does not carry but the record derives.
    void derive(uint32_t& field, uint32_t value) const { field = value; }
};

// Moves the record's fields into the stream.
struct FieldWriter {
    BitBuffer* bits;
    // Writes the low `width` bits of `field`; returns them, the value the
    // stream now carries.
    uint32_t operator()(uint32_t width, uint32_t field) const {
        uint32_t coded = field & ((1u << width) - 1u);  // widths are 1..24
        WriteBits(bits, width, static_cast<int32_t>(coded));
        return coded;
    }
    void derive(uint32_t, uint32_t) const {}
};

constexpr uint32_t kExplicitFrequency = 15;

// The CRC word follows when protection_absent is set. This is the reverse of
// the standard's rule, kept for compatibility with the streams and records of
// existing callers; reader and writer apply it alike.
constexpr bool crcWordFollows(uint32_t protectionAbsent) { return protectionAbsent != 0; }

template <typename Mover, typename Config>
void audioSpecificConfig(const Mover& io, Config& c) {
    io(5, c.audioObjectType);  // no escape: 31 stays 31
    uint32_t index = io(4, c.samplingFrequencyIndex);
    if (index == kExplicitFrequency)
        io(24, c.samplingFrequency);
    else
        io.derive(c.samplingFrequency, aacFrequencyFromIndex(index));
    io(4, c.channelConfiguration);
    // The GASpecificConfig flags follow whatever the object type is, and the
    // config ends there: no coreCoderDelay, extension or program config.
    io(1, c.frameLengthFlag);
    io(1, c.dependsOnCoreCoder);
    io(1, c.extensionFlag);
}

template <typename Mover, typename Header>
void adtsHeader(const Mover& io, Header& h) {
    io(12, h.syncword);  // neither checked nor forced to 0xFFF
    io(1, h.ID);
    io(2, h.layer);
    uint32_t protectionAbsent = io(1, h.protection_absent);
    io(2, h.profile);
    io(4, h.sampling_frequency_index);
    io(1, h.private_bit);
    io(3, h.channel_configuration);
    io(1, h.original_copy);
    io(1, h.home);
    io(1, h.copyright_identification_bit);
    io(1, h.copyright_identification_start);
    io(13, h.aac_frame_length);
    io(11, h.adts_buffer_fullness);
    io(2, h.number_of_raw_data_blocks_in_frame);
    if (crcWordFollows(protectionAbsent)) io(16, h.crc_check);
}

}  // namespace

uint32_t aacFrequencyFromIndex(uint32_t index) {
    static const uint32_t kFrequency[15] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                            16000, 12000, 11025, 8000,  7350,  0,     0};
    // guard: an index read past the end of the data has bits above the four
    // of the field set; it has no table entry
    return index < 15 ? kFrequency[index] : 0;
}

}  // namespace qnv

extern "C" {

uint32_t qnvutilReadAAC(BitBuffer* bits, AACConfig* config) {
    if (bits == nullptr || config == nullptr) return 0;
    qnv::audioSpecificConfig(qnv::FieldReader{bits}, *config);
    return 0;
}

uint32_t qnvutilWriteAAC(BitBuffer* bits, const AACConfig* config) {
    if (bits == nullptr || config == nullptr) return 0;
    qnv::audioSpecificConfig(qnv::FieldWriter{bits}, *config);
    return 0;
}

uint32_t qnvutilReadADTS(BitBuffer* bits, ADTSHeader* header) {
    if (bits == nullptr || header == nullptr) return 0;
    qnv::adtsHeader(qnv::FieldReader{bits}, *header);
    return 0;
}

uint32_t qnvutilWriteADTS(BitBuffer* bits, const ADTSHeader* header) {
    if (bits == nullptr || header == nullptr) return 0;
    qnv::adtsHeader(qnv::FieldWriter{bits}, *header);
    return 0;
}

}  // extern "C"

// AudioSpecificConfig and ADTS headers, each described once over the
// library's syntax coders (foundation/syntax/coder.h): the reading coder
// fills the record from the stream, the writing coder puts the record's
// fields into the stream, so the two directions cannot disagree on field
// order, widths or conditions.
#include "qnvutil/aac.h"

#include "foundation/syntax/coder.h"
#include "qnvutil/aac/aac_internal.h"

namespace qnv {
namespace {

using syntax::ReadCoder;
using syntax::WriteCoder;


constexpr uint32_t kExplicitFrequency = 15;

// The CRC word follows when protection_absent is set. This is the reverse of
// the standard's rule, kept for compatibility with the streams and records of
// existing callers; reader and writer apply it alike.
constexpr bool crcWordFollows(uint32_t protectionAbsent) { return protectionAbsent != 0; }

template <class C, class S>
void audioSpecificConfig(C& c, S& s) {
    QNV_U(5, audioObjectType);  // no escape: 31 stays 31
    const uint32_t index = QNV_U(4, samplingFrequencyIndex);
    if (index == kExplicitFrequency)
        QNV_U(24, samplingFrequency);
    else
        c.derive(s.samplingFrequency, aacFrequencyFromIndex(index));
    QNV_U(4, channelConfiguration);
    // The GASpecificConfig flags follow whatever the object type is, and the
    // config ends there: no coreCoderDelay, extension or program config.
    QNV_FLAG(frameLengthFlag);
    QNV_FLAG(dependsOnCoreCoder);
    QNV_FLAG(extensionFlag);
}

template <class C, class S>
void adtsHeader(C& c, S& s) {
    QNV_U(12, syncword);  // neither checked nor forced to 0xFFF
    QNV_FLAG(ID);
    QNV_U(2, layer);
    const uint32_t protectionAbsent = QNV_FLAG(protection_absent);
    QNV_U(2, profile);
    QNV_U(4, sampling_frequency_index);
    QNV_FLAG(private_bit);
    QNV_U(3, channel_configuration);
    QNV_FLAG(original_copy);
    QNV_FLAG(home);
    QNV_FLAG(copyright_identification_bit);
    QNV_FLAG(copyright_identification_start);
    QNV_U(13, aac_frame_length);
    QNV_U(11, adts_buffer_fullness);
    QNV_U(2, number_of_raw_data_blocks_in_frame);
    if (crcWordFollows(protectionAbsent)) QNV_U(16, crc_check);
}

}  // namespace

void readAdtsHeader(BitBuffer* bits, ADTSHeader* header, syntax::FieldSink* sink) {
    ReadCoder c(bits, sink, bits->bitPos);
    adtsHeader(c, *header);
}

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
    qnv::ReadCoder c(bits);
    qnv::audioSpecificConfig(c, *config);
    return 0;
}

uint32_t qnvutilWriteAAC(BitBuffer* bits, const AACConfig* config) {
    if (bits == nullptr || config == nullptr) return 0;
    qnv::WriteCoder c(bits);
    qnv::audioSpecificConfig(c, *config);
    return 0;
}

uint32_t qnvutilReadADTS(BitBuffer* bits, ADTSHeader* header) {
    if (bits == nullptr || header == nullptr) return 0;
    qnv::readAdtsHeader(bits, header, nullptr);
    return 0;
}

uint32_t qnvutilWriteADTS(BitBuffer* bits, const ADTSHeader* header) {
    if (bits == nullptr || header == nullptr) return 0;
    qnv::WriteCoder c(bits);
    qnv::adtsHeader(c, *header);
    return 0;
}

}  // extern "C"

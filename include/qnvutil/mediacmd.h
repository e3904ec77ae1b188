/*
 * MediaCmd: the fixed-layout command record that controllers and device
 * channels pass to each other, its flag and value names, channel-mask and
 * speed helpers, its XML text form and a one-line debug summary.
 *
 * The record is copied byte for byte between processes: its layout, offsets
 * included, is fixed (little-endian, 4-byte packing, 4188 bytes in full).
 * The bytes from offset 76 up to StructSize form the data area: clip ID and
 * file name, or the payload of a get/set value command.
 *
 * Record sizes the functions need:
 *  - initMediaCmd and MediaCmdFromXMLString (which starts with initMediaCmd)
 *    need a full 4188-byte record, whatever its StructSize says;
 *  - every other function that takes a record needs its first 76 bytes (the
 *    fixed part) and reads or writes the data area only below StructSize;
 *    MediaCmdFromXML bounds it by the StructSize the record has on entry.
 * A StructSize that the XML readers take from the text stays between 76 and
 * the StructSize on entry.
 */
#ifndef QNVUTIL_MEDIACMD_H
#define QNVUTIL_MEDIACMD_H

#include <stddef.h>
#include <stdint.h>

#include "qnvutil/export.h"

#ifdef __cplusplus
namespace tinyxml2 {
class XMLDocument;
}
#endif

QNV_BEGIN_C

/* ---- The record ----------------------------------------------------------- */

#define MEDIACMD_ID 0xFA250200u      /* CmdID of every record */
#define MEDIACMD_SIZE 4188u          /* StructSize of a full record */
#define MEDIACMD_DATA_OFFSET 76u     /* start of the data area (ClipID) */
#define MEDIACMD_FILENAME_OFFSET 85u /* FileName */
#define MEDIACMD_NORMAL_SPEED 65520  /* Speed of normal forward play */
#define MEDIACMD_NO_SPEED 0x7FFFFFFF /* Speed when none is given */

#pragma pack(push, 4)
typedef struct MediaCmd {
    struct MediaCmd* prev;  /* caller's chain links; never followed here */
    struct MediaCmd* next;
    void* list;
    uint32_t CmdID;         /* always MEDIACMD_ID */
    uint32_t StructSize;    /* bytes allocated for this record */
    uint32_t Channel;       /* target channel; 0xFFFFFFFF: none chosen */
    int32_t Cmd;            /* ctStop ... ctSwitch */
    uint32_t Flags;         /* cf... bits */
    int32_t Speed;          /* 65520 = normal play, negative = reverse */
    uint32_t VideoChannels; /* channel masks, valid with cfUsePresets */
    uint32_t AudioChannels;
    uint32_t InfoChannels;
    int32_t CmdAlt;         /* value code of get/set commands, or a time */
    int32_t Position;
    int32_t Start;
    int32_t End;
    char ClipID[9];         /* 8 characters and a terminator byte; when the
                               terminator byte is not 0 the text at ClipID is
                               one long name running on into FileName */
    char FileName[4103];    /* StructSize - 85 bytes in a smaller or larger record */
} MediaCmd;
#pragma pack(pop)

QNV_STATIC_ASSERT(sizeof(MediaCmd) == 4188, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, prev) == 0, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, next) == 8, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, list) == 16, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, CmdID) == 24, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, StructSize) == 28, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Channel) == 32, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Cmd) == 36, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Flags) == 40, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Speed) == 44, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, VideoChannels) == 48, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, AudioChannels) == 52, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, InfoChannels) == 56, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, CmdAlt) == 60, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Position) == 64, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, Start) == 68, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, End) == 72, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, ClipID) == 76, "MediaCmd layout");
QNV_STATIC_ASSERT(offsetof(MediaCmd, FileName) == 85, "MediaCmd layout");

/* Command codes (Cmd). */
enum MediaCmdCommand {
    ctStop = 0,
    ctPause = 1,
    ctPlay = 2,
    ctRecord = 3,
    ctRecStop = 4,
    ctEject = 5,
    ctTransfer = 6,
    ctInsert = 7,
    ctBlank = 8,
    ctDelete = 9,
    ctTrim = 10,
    ctChanSelect = 11,
    ctGetState = 12,
    ctSetState = 13,
    ctGetValue = 14,
    ctSetValue = 15,
    ctValueSupported = 16,
    ctError = 17,
    ctTerminate = 18,
    ctAbort = 19,
    ctEdit = 20,
    ctSwitch = 21
};

/* Flag bits (Flags). Some bits carry two names with meanings by command. */
#define cfDeferred 0x00000001u         /* execute later, not at once */
#define cfTimeMs 0x00000002u           /* CmdAlt is a time in milliseconds */
#define cfTimeTarget 0x00000004u       /* CmdAlt is a target time */
#define cfTimeHouseClock 0x00000008u   /* CmdAlt is a house-clock time */
#define cfUseSpeed 0x00000010u         /* Speed is valid */
#define cfUsePresets 0x00000020u       /* the three channel masks are valid */
#define cfUsePosition 0x00000040u      /* Position is valid */
#define cfUsePositionOffset 0x00000080u /* Position is an offset */
#define cfUseStart 0x00000100u
#define cfUseStartOffset 0x00000200u
#define cfUseEnd 0x00000400u
#define cfUseEndOffset 0x00000800u
#define cfUseAllIDs 0x00001000u
#define cfUseClipID 0x00002000u        /* the data area is in use */
#define cfCopy 0x00004000u
#define cfNoClipFiles 0x00004000u
#define cfConvert 0x00008000u
#define cfNoTCSpaces 0x00008000u
#define cfUseCmdAlt 0x00010000u        /* CmdAlt is valid */
#define cfIsShuttle 0x00020000u
#define cfUsingCurrent 0x00040000u     /* positions relative to the current one */
#define cfUseFrameCount 0x00080000u    /* positions are frame counts */
#define cfFields 0x00100000u           /* positions count fields */
#define cfRipple 0x00200000u
#define cfLoop 0x00400000u
#define cfTrigger 0x00800000u
#define cfPreview 0x01000000u
#define cfRemoteCommand 0x02000000u
#define cfOver24Hours 0x04000000u
#define cfSecondField 0x08000000u
#define cfUseNextField 0x08000000u
#define cfInvert 0x10000000u
#define cfTest 0x20000000u
#define cfOverrideDeferred 0x40000000u
#define cfIgnore 0x40000000u
#define cfNoReturn 0x80000000u

/* Get/set value codes (CmdAlt of ctGetValue, ctSetValue, ctValueSupported)
   with their names, in the order gsFromString and gsToString search them:
   X(constant, code, name). Some codes carry two names. */
#define QNV_MEDIACMD_VALUE_NAMES(X) \
    X(gsTc, 1, "tc") \
    X(gsUb, 2, "ub") \
    X(gsLtctc, 3, "ltctc") \
    X(gsLtcub, 4, "ltcub") \
    X(gsVitctc, 5, "vitctc") \
    X(gsVitcub, 6, "vitcub") \
    X(gsTcsource, 7, "tcsource") \
    X(gsTctype, 8, "tctype") \
    X(gsStart, 9, "start") \
    X(gsEnd, 10, "end") \
    X(gsIn, 11, "in") \
    X(gsLastin, 12, "lastin") \
    X(gsOut, 13, "out") \
    X(gsLastout, 14, "lastout") \
    X(gsEditon, 15, "editon") \
    X(gsEditoff, 16, "editoff") \
    X(gsPreroll, 17, "preroll") \
    X(gsPostroll, 18, "postroll") \
    X(gsAutomode, 19, "automode") \
    X(gsPlaydelay, 20, "playdelay") \
    X(gsLtctcpreset, 21, "ltctcpreset") \
    X(gsLtcubpreset, 22, "ltcubpreset") \
    X(gsVitctcpreset, 23, "vitctcpreset") \
    X(gsVitcubpreset, 24, "vitcubpreset") \
    X(gsFramedata, 25, "framedata") \
    X(gsKeycode, 26, "keycode") \
    X(gsInkcode, 27, "inkcode") \
    X(gs215code, 28, "215code") \
    X(gsHeadsandtails, 29, "headsandtails") \
    X(gsTimecodesources, 30, "timecodesources") \
    X(gsCcsetup, 31, "ccsetup") \
    X(gsDisabletimecode, 32, "disabletimecode") \
    X(gsVitcsourceprecedence, 33, "vitcsourceprecedence") \
    X(gsLtcsourceprecedence, 34, "ltcsourceprecedence") \
    X(gsGetfileextents, 35, "getfileextents") \
    X(gsGetnextclip, 90, "getnextclip") \
    X(gsFirstclip, 91, "firstclip") \
    X(gsNextclip, 92, "nextclip") \
    X(gsTcsgettlclipstate, 93, "tcsgettlclipstate") \
    X(gsTcsgettlclipinfo, 94, "tcsgettlclipinfo") \
    X(gsClipinfo, 95, "clipinfo") \
    X(gsClipcopy, 96, "clipcopy") \
    X(gsTcclipinfo, 97, "tcclipinfo") \
    X(gsAudchan, 100, "audchan") \
    X(gsVidchan, 101, "vidchan") \
    X(gsInfchan, 102, "infchan") \
    X(gsAudselect, 103, "audselect") \
    X(gsVidselect, 104, "vidselect") \
    X(gsInfselect, 105, "infselect") \
    X(gsAudedit, 106, "audedit") \
    X(gsVidedit, 107, "videdit") \
    X(gsInfedit, 108, "infedit") \
    X(gsEditmode, 109, "editmode") \
    X(gsMetadata, 150, "metadata") \
    X(gsMetadatadirectory, 151, "metadatadirectory") \
    X(gsMetadatavolume, 152, "metadatavolume") \
    X(gsMetadatacurrentuser, 153, "metadatacurrentuser") \
    X(gsMetadatalocalmachine, 154, "metadatalocalmachine") \
    X(gsMetadataglobal, 155, "metadataglobal") \
    X(gsMetadatareadwrite, 156, "metadatareadwrite") \
    X(gsMetadataxmltype, 157, "metadataxmltype") \
    X(gsMetabaseopen, 158, "metabaseopen") \
    X(gsMetabasecreate, 159, "metabasecreate") \
    X(gsMetabaseclose, 160, "metabaseclose") \
    X(gsMetabasefilecount, 161, "metabasefilecount") \
    X(gsMetabasefilename, 162, "metabasefilename") \
    X(gsMetabasefileremove, 163, "metabasefileremove") \
    X(gsMetabasefileadd, 164, "metabasefileadd") \
    X(gsMetabasetagindex, 165, "metabasetagindex") \
    X(gsMetabasegettag, 166, "metabasegettag") \
    X(gsMetabasesettag, 167, "metabasesettag") \
    X(gsMetabasedefaulttags, 168, "metabasedefaulttags") \
    X(gsMetabasefilerename, 169, "metabasefilerename") \
    X(gsMetabasereplaymark, 170, "metabasereplaymark") \
    X(gsMetabasegetname, 171, "metabasegetname") \
    X(gsMetabasegettable, 172, "metabasegettable") \
    X(gsMetabaseresetandrecord, 173, "metabaseresetandrecord") \
    X(gsAudinselect, 200, "audinselect") \
    X(gsAudoutselect, 201, "audoutselect") \
    X(gsAudinputlevel, 202, "audinputlevel") \
    X(gsAudoutputlevel, 203, "audoutputlevel") \
    X(gsAudadvancedlevel, 204, "audadvancedlevel") \
    X(gsAudoutphase, 205, "audoutphase") \
    X(gsAudoutadvancedphase, 206, "audoutadvancedphase") \
    X(gsAudcrossfadetime, 207, "audcrossfadetime") \
    X(gsAudltcenable, 208, "audltcenable") \
    X(gsAudinltcchannel, 209, "audinltcchannel") \
    X(gsAudoutltcchannel, 210, "audoutltcchannel") \
    X(gsAuddtmfenable, 211, "auddtmfenable") \
    X(gsAudindtmfchannel, 212, "audindtmfchannel") \
    X(gsAudoutdtmfchannel, 213, "audoutdtmfchannel") \
    X(gsAudwavepeakrms, 214, "audwavepeakrms") \
    X(gsAudinputbitrate, 215, "audinputbitrate") \
    X(gsAudinputsamplerate, 216, "audinputsamplerate") \
    X(gsAudinputmode, 217, "audinputmode") \
    X(gsAudinputheadroom, 218, "audinputheadroom") \
    X(gsAudinputoriginal, 219, "audinputoriginal") \
    X(gsAudinputerrorprotect, 220, "audinputerrorprotect") \
    X(gsAudinputcopyright, 221, "audinputcopyright") \
    X(gsAudinputslave, 222, "audinputslave") \
    X(gsAudinputbass, 223, "audinputbass") \
    X(gsAudinputtreble, 224, "audinputtreble") \
    X(gsAudinputstatus, 225, "audinputstatus") \
    X(gsAudiomappinginput, 226, "audiomappinginput") \
    X(gsAudiomappingoutput, 227, "audiomappingoutput") \
    X(gsAudmonitorselect, 228, "audmonitorselect") \
    X(gsAudchannelsencoded, 229, "audchannelsencoded") \
    X(gsAudaudioscrub, 230, "audaudioscrub") \
    X(gsAudplaybackfile, 231, "audplaybackfile") \
    X(gsAudlevelselect, 232, "audlevelselect") \
    X(gsGetsetmediafile, 233, "getsetmediafile") \
    X(gsAudiosurroundoutput, 234, "audiosurroundoutput") \
    X(gsAudindialog, 235, "audindialog") \
    X(gsAudoutsync, 236, "audoutsync") \
    X(gsVidfreeze, 300, "vidfreeze") \
    X(gsVidprereadmode, 301, "vidprereadmode") \
    X(gsVideditfield, 302, "videditfield") \
    X(gsVidrecframe, 303, "vidrecframe") \
    X(gsVidplayframe, 304, "vidplayframe") \
    X(gsVidnoee, 305, "vidnoee") \
    X(gsVidsuperimpose, 306, "vidsuperimpose") \
    X(gsVidanalogmonitorsdtype, 307, "vidanalogmonitorsdtype") \
    X(gsVidanalogmonitorhdtype, 308, "vidanalogmonitorhdtype") \
    X(gsVidanalogmonitormethod, 309, "vidanalogmonitormethod") \
    X(gsVidanalogmonitorupmode, 310, "vidanalogmonitorupmode") \
    X(gsVidanalogmonitordownmode, 311, "vidanalogmonitordownmode") \
    X(gsVidpanscanzoom, 312, "vidpanscanzoom") \
    X(gsVidslowmotionmode, 313, "vidslowmotionmode") \
    X(gsVidvaricammode, 314, "vidvaricammode") \
    X(gsVidcustomsuperimpose, 315, "vidcustomsuperimpose") \
    X(gsEnablesdanamorphic, 316, "enablesdanamorphic") \
    X(gsVidsignallineinfo, 317, "vidsignallineinfo") \
    X(gsVidsignalvancinfo, 318, "vidsignalvancinfo") \
    X(gsVidinselect, 400, "vidinselect") \
    X(gsVidinlocktype, 401, "vidinlocktype") \
    X(gsVidinsetup, 402, "vidinsetup") \
    X(gsVidinvideo, 403, "vidinvideo") \
    X(gsVidinhue, 404, "vidinhue") \
    X(gsVidinchroma, 405, "vidinchroma") \
    X(gsVidinuchroma, 406, "vidinuchroma") \
    X(gsVidinvchroma, 407, "vidinvchroma") \
    X(gsVidincolorkiller, 408, "vidincolorkiller") \
    X(gsVidinagc, 409, "vidinagc") \
    X(gsVidinbandwidth, 410, "vidinbandwidth") \
    X(gsVidinblack, 411, "vidinblack") \
    X(gsVidinwhite, 412, "vidinwhite") \
    X(gsVidincoring, 413, "vidincoring") \
    X(gsVidinpeaking, 414, "vidinpeaking") \
    X(gsVidinsharpness, 415, "vidinsharpness") \
    X(gsVidingamma, 416, "vidingamma") \
    X(gsVidinsignalformat, 417, "vidinsignalformat") \
    X(gsVidinquality, 418, "vidinquality") \
    X(gsVidinstatus, 419, "vidinstatus") \
    X(gsVidindialog, 420, "vidindialog") \
    X(gsVidsetup, 500, "vidsetup") \
    X(gsVidvideo, 501, "vidvideo") \
    X(gsVidhue, 502, "vidhue") \
    X(gsVidchroma, 503, "vidchroma") \
    X(gsViduchroma, 504, "viduchroma") \
    X(gsVidvchroma, 505, "vidvchroma") \
    X(gsVidbandwidth, 506, "vidbandwidth") \
    X(gsVidblacksetup, 507, "vidblacksetup") \
    X(gsVidcolor, 508, "vidcolor") \
    X(gsVideoinputrouting, 509, "videoinputrouting") \
    X(gsVidoutselect, 600, "vidoutselect") \
    X(gsVidoutgenlock, 601, "vidoutgenlock") \
    X(gsVidoutgenlocksource, 602, "vidoutgenlocksource") \
    X(gsVidoutlocktype, 603, "vidoutlocktype") \
    X(gsVidouthphase, 604, "vidouthphase") \
    X(gsVidoutsubcarrier, 605, "vidoutsubcarrier") \
    X(gsVidoutcoring, 606, "vidoutcoring") \
    X(gsVidoutpeaking, 607, "vidoutpeaking") \
    X(gsVidoutadjust1, 608, "vidoutadjust1") \
    X(gsVidoutadjust2, 609, "vidoutadjust2") \
    X(gsVidoutgenlockdelay, 610, "vidoutgenlockdelay") \
    X(gsVidoutlocksignalformat, 611, "vidoutlocksignalformat") \
    X(gsDisableduallink, 612, "disableduallink") \
    X(gsReferencewipemix, 613, "referencewipemix") \
    X(gsDisablegenlockforinfiniteloop, 614, "disablegenlockforinfiniteloop") \
    X(gsCompchverticalres, 700, "compchverticalres") \
    X(gsCompchhorizontalres, 701, "compchhorizontalres") \
    X(gsCompchchromaformat, 702, "compchchromaformat") \
    X(gsCompchdcprecision, 703, "compchdcprecision") \
    X(gsCompchaspectratio, 704, "compchaspectratio") \
    X(gsCompchstandard, 705, "compchstandard") \
    X(gsCompchlanguagecode, 706, "compchlanguagecode") \
    X(gsCompchccformat, 707, "compchccformat") \
    X(gsCompchconcealmentvector, 708, "compchconcealmentvector") \
    X(gsCompchclosedgop, 709, "compchclosedgop") \
    X(gsCompchadjustgoptc, 710, "compchadjustgoptc") \
    X(gsCompchaltcoefftable, 711, "compchaltcoefftable") \
    X(gsCompchnonlinearquant, 712, "compchnonlinearquant") \
    X(gsCompchmuxrate, 713, "compchmuxrate") \
    X(gsCompchaudpacketsize, 714, "compchaudpacketsize") \
    X(gsCompchvidpacketsize, 715, "compchvidpacketsize") \
    X(gsCompchaudiostreamid, 716, "compchaudiostreamid") \
    X(gsCompchvideostreamid, 717, "compchvideostreamid") \
    X(gsCompchaudiostreampid, 718, "compchaudiostreampid") \
    X(gsCompchvideostreampid, 719, "compchvideostreampid") \
    X(gsCompchallowsettings, 720, "compchallowsettings") \
    X(gsCompchfourcc, 721, "compchfourcc") \
    X(gsCompchbitcount, 722, "compchbitcount") \
    X(gsCompchsizeimage, 723, "compchsizeimage") \
    X(gsCompchrate, 724, "compchrate") \
    X(gsCompchscale, 725, "compchscale") \
    X(gsCompchpitch, 726, "compchpitch") \
    X(gsVideoencodeformat, 727, "videoencodeformat") \
    X(gsAudioencodeformat, 728, "audioencodeformat") \
    X(gsCompchannelchangems, 729, "compchannelchangems") \
    X(gsAlphachromasource, 730, "alphachromasource") \
    X(gsCompressiontype, 731, "compressiontype") \
    X(gsVideostandard, 732, "videostandard") \
    X(gsResetchannel, 733, "resetchannel") \
    X(gsEnablehdsdformat, 734, "enablehdsdformat") \
    X(gsVblankenable, 735, "vblankenable") \
    X(gsLutenable, 736, "lutenable") \
    X(gsAudiofiletype, 737, "audiofiletype") \
    X(gsAudiobitsize, 738, "audiobitsize") \
    X(gsAudiofrequency, 739, "audiofrequency") \
    X(gsEnableoverlappedwrites, 740, "enableoverlappedwrites") \
    X(gsMatchoutputtoclip, 741, "matchoutputtoclip") \
    X(gsAllowindependentchanconfig, 742, "allowindependentchanconfig") \
    X(gsStreamsizebytes, 743, "streamsizebytes") \
    X(gsVideolinkmethod, 744, "videolinkmethod") \
    X(gsIpvideotype, 800, "ipvideotype") \
    X(gsIpvideosettings, 801, "ipvideosettings") \
    X(gsIpvideoclock, 802, "ipvideoclock") \
    X(gsSignalformat, 900, "signalformat") \
    X(gsComptype, 901, "comptype") \
    X(gsCompratesize, 902, "compratesize") \
    X(gsComprateratio, 903, "comprateratio") \
    X(gsCompratepercent, 904, "compratepercent") \
    X(gsCompgopsize, 905, "compgopsize") \
    X(gsCompifactor, 906, "compifactor") \
    X(gsCompbfactor, 907, "compbfactor") \
    X(gsComppfactor, 908, "comppfactor") \
    X(gsComprefperiod, 909, "comprefperiod") \
    X(gsTotalstorageavail, 910, "totalstorageavail") \
    X(gsTotalstoragefree, 911, "totalstoragefree") \
    X(gsTotaltimeavail, 912, "totaltimeavail") \
    X(gsTotaltimefree, 913, "totaltimefree") \
    X(gsVtrtype, 914, "vtrtype") \
    X(gsHdsditransfertype, 915, "hdsditransfertype") \
    X(gsSortorder, 916, "sortorder") \
    X(gsBayertype, 917, "bayertype") \
    X(gsSignalchange, 918, "signalchange") \
    X(gsLocal, 1000, "local") \
    X(gsSupportedfiletype, 1001, "supportedfiletype") \
    X(gsIgnorefiletype, 1002, "ignorefiletype") \
    X(gsRecinhibit, 1003, "recinhibit") \
    X(gsRecdrive, 1004, "recdrive") \
    X(gsRecfilename, 1005, "recfilename") \
    X(gsRecrate, 1006, "recrate") \
    X(gsRecfileformat, 1007, "recfileformat") \
    X(gsRecaudfileformat, 1008, "recaudfileformat") \
    X(gsDelinhibit, 1009, "delinhibit") \
    X(gsInsinhibit, 1010, "insinhibit") \
    X(gsConvertfileformat, 1011, "convertfileformat") \
    X(gsConvertaudfileformat, 1012, "convertaudfileformat") \
    X(gsDefstilllen, 1013, "defstilllen") \
    X(gsSystime, 1014, "systime") \
    X(gsDsyncms, 1015, "dsyncms") \
    X(gsHwport, 1016, "hwport") \
    X(gsPbee, 1017, "pbee") \
    X(gsServorefselect, 1018, "servorefselect") \
    X(gsHeadselect, 1019, "headselect") \
    X(gsColorframe, 1020, "colorframe") \
    X(gsVidrefdisable, 1021, "vidrefdisable") \
    X(gsPlaycountdelay, 1022, "playcountdelay") \
    X(gsEmulateeditbumping, 1023, "emulateeditbumping") \
    X(gsChannelname, 1054, "channelname") \
    X(gsRecordnameflags, 1055, "recordnameflags") \
    X(gsVidinputvalid, 1028, "vidinputvalid") \
    X(gsVidgenlockvalid, 1029, "vidgenlockvalid") \
    X(gsSerialeditmode, 1030, "serialeditmode") \
    X(gsSerialprotocols, 1031, "serialprotocols") \
    X(gsPausebeforestop, 1032, "pausebeforestop") \
    X(gsPausedelay, 1033, "pausedelay") \
    X(gsFrontpanel, 1034, "frontpanel") \
    X(gsFrontpanelcomport, 1035, "frontpanelcomport") \
    X(gsVdcppreroll, 1036, "vdcppreroll") \
    X(gsGettcltc, 1037, "gettcltc") \
    X(gsGettcvitc, 1038, "gettcvitc") \
    X(gsGettcrp188, 1039, "gettcrp188") \
    X(gsGettcrp215, 1040, "gettcrp215") \
    X(gsGettcrp215ink, 1041, "gettcrp215ink") \
    X(gsGettcirig, 1042, "gettcirig") \
    X(gsGettcflags, 1043, "gettcflags") \
    X(gsRecordstarttype, 1044, "recordstarttype") \
    X(gsGetafdstatus, 1045, "getafdstatus") \
    X(gsGetccstatus, 1046, "getccstatus") \
    X(gsGetaudiostatus, 1047, "getaudiostatus") \
    X(gsVideoinputprefferedscantype, 1048, "videoinputprefferedscantype") \
    X(gsUserdata0, 3000, "userdata0") \
    X(gsUserdata1, 3001, "userdata1") \
    X(gsUserdata2, 3002, "userdata2") \
    X(gsUserdata3, 3003, "userdata3") \
    X(gsUserdata4, 3004, "userdata4") \
    X(gsUserdata5, 3005, "userdata5") \
    X(gsUserdata6, 3006, "userdata6") \
    X(gsUserdata7, 3007, "userdata7") \
    X(gsUserdata8, 3008, "userdata8") \
    X(gsUserdata9, 3009, "userdata9") \
    X(gsErrorlog, 10000, "errorlog") \
    X(gsErrorlogname, 10001, "errorlogname") \
    X(gsErrorlogstartms, 10002, "errorlogstartms") \
    X(gsErrorlogcurrentms, 10003, "errorlogcurrentms") \
    X(gsErrorloglastchange, 10004, "errorloglastchange") \
    X(gsErrormessage, 10005, "errormessage") \
    X(gsEventlog, 10100, "eventlog") \
    X(gsSysbufferlevel, 20000, "sysbufferlevel") \
    X(gsSysmemoryusage, 20001, "sysmemoryusage") \
    X(gsSyscpuusage, 20002, "syscpuusage") \
    X(gsSysdroppedframes, 20003, "sysdroppedframes") \
    X(gsDroppedframes, 20003, "droppedframes") \
    X(gsProxymode, 50000, "proxymode") \
    X(gsProxystatus, 50001, "proxystatus") \
    X(gsGetnextproxy, 50002, "getnextproxy") \
    X(gsAddproxy, 50003, "addproxy") \
    X(gsPromoteproxy, 50004, "promoteproxy") \
    X(gsRemoveproxy, 50005, "removeproxy") \
    X(gsProxycpuusage, 50006, "proxycpuusage") \
    X(gsTransfertoarchive, 50007, "transfertoarchive") \
    X(gsTransferfromarchive, 50008, "transferfromarchive") \
    X(gsGetnextarchiveclip, 50009, "getnextarchiveclip") \
    X(gsGetnexttransfertoarchiveclip, 50010, "getnexttransfertoarchiveclip") \
    X(gsGetnexttransferfromarchiveclip, 50011, "getnexttransferfromarchiveclip") \
    X(gsAddproxyandoutputname, 50012, "addproxyandoutputname") \
    X(gsWritertindex, 50013, "writertindex") \
    X(gsProxyfiletype, 50014, "proxyfiletype") \
    X(gsProxyfilesize, 50021, "proxyfilesize") \
    X(gsProxyfilecompressiontype, 50015, "proxyfilecompressiontype") \
    X(gsProxycompressiontype, 50015, "proxycompressiontype") \
    X(gsProxyfiledatarate, 50016, "proxyfiledatarate") \
    X(gsProxydatarate, 50016, "proxydatarate") \
    X(gsAddfiletarget, 50018, "addfiletarget") \
    X(gsProxymultiratestreams, 50019, "proxymultiratestreams") \
    X(gsProxyfiledirectory, 50017, "proxyfiledirectory") \
    X(gsMaximumclipnumber, 50020, "maximumclipnumber") \
    X(gsQnvversion, 60000, "qnvversion") \
    X(gsMeversion, 60001, "meversion") \
    X(gsQnvtype, 60002, "qnvtype") \
    X(gsQnvchanneltype, 60003, "qnvchanneltype") \
    X(gsQnvchannelname, 60004, "qnvchannelname") \
    X(gsMonitor, 64000, "monitor") \
    X(gsMonitorhwnds, 64001, "monitorhwnds") \
    X(gsMonitordisplay, 64002, "monitordisplay") \
    X(gsMonitorgrab, 64003, "monitorgrab") \
    X(gsUtilitymonitordraw, 64004, "utilitymonitordraw") \
    X(gsUtilitymonitordrawsetup, 64005, "utilitymonitordrawsetup") \
    X(gsWavevectorsetup, 64006, "wavevectorsetup") \
    X(gsWavevectortype, 64007, "wavevectortype") \
    X(gsWavevectorarea, 64008, "wavevectorarea") \
    X(gsWavevectorlastchangems, 64009, "wavevectorlastchangems") \
    X(gsMonitorloadbuffers, 64010, "monitorloadbuffers") \
    X(gsWavevectorquality, 64011, "wavevectorquality") \
    X(gsWavevectorgetdata, 64012, "wavevectorgetdata") \
    X(gsWavevectorpreview, 64013, "wavevectorpreview") \
    X(gsVgasyncmode, 64015, "vgasyncmode") \
    X(gsVideocolourspace, 64016, "videocolourspace") \
    X(gsWavevectorscopevblank, 64017, "wavevectorscopevblank") \
    X(gsMonitormodifier, 64018, "monitormodifier") \
    X(gsWavevectorgraticule, 64019, "wavevectorgraticule") \
    X(gsWavevectorhsscope, 64020, "wavevectorhsscope") \
    X(gsMonitordeinterlacetype, 64021, "monitordeinterlacetype") \
    X(gsWavevectoreventlimits, 64022, "wavevectoreventlimits") \
    X(gsDirgetlist, 64250, "dirgetlist") \
    X(gsDirgetinfo, 64251, "dirgetinfo") \
    X(gsDirgetfileinfo, 64252, "dirgetfileinfo") \
    X(gsDirgetfilegrab, 64253, "dirgetfilegrab") \
    X(gsVgadisplayenable, 64254, "vgadisplayenable") \
    X(gsVgadirectxconfig, 64255, "vgadirectxconfig") \
    X(gsVga3dconfig, 64256, "vga3dconfig") \
    X(gsVga3dwipetype, 64257, "vga3dwipetype") \
    X(gsVga3dmix, 64258, "vga3dmix") \
    X(gsVga3dthreshold, 64259, "vga3dthreshold") \
    X(gsVga3dsplithorizontal, 64260, "vga3dsplithorizontal") \
    X(gsVga3dsplitvertical, 64261, "vga3dsplitvertical") \
    X(gsVga3dgridsize, 64262, "vga3dgridsize") \
    X(gsVga3dgridtype, 64263, "vga3dgridtype") \
    X(gsVgafullscreenenable, 64264, "vgafullscreenenable") \
    X(gsLimitavailablechannels, 64265, "limitavailablechannels") \
    X(gsVgazoompan, 64266, "vgazoompan") \
    X(gsVefxi3d, 64267, "vefxi3d") \
    X(gsChannelsexist, 65536, "channelsexist") \
    X(gsClipmode, 65537, "clipmode") \
    X(gsRecoffset, 65538, "recoffset") \
    X(gsChancapabilities, 65539, "chancapabilities") \
    X(gsLastchangems, 65540, "lastchangems") \
    X(gsGpiin, 65541, "gpiin") \
    X(gsGpiout, 65542, "gpiout") \
    X(gsCurrentms, 65543, "currentms") \
    X(gsClipmodepreroll, 65544, "clipmodepreroll") \
    X(gsClipmodebackup, 65545, "clipmodebackup") \
    X(gsLastdrawms, 65546, "lastdrawms") \
    X(gsSavecurrent, 100000, "savecurrent") \
    X(gsLoadclipspace, 100001, "loadclipspace") \
    X(gsLoadtcspace, 100002, "loadtcspace") \
    X(gsLoadfilmspace, 100003, "loadfilmspace") \
    X(gsLoadeditspace, 100004, "loadeditspace") \
    X(gsSaveclipspacetodisk, 100005, "saveclipspacetodisk") \
    X(gsSavetcspacedisk, 100006, "savetcspacedisk") \
    X(gsUserlogin, 900000, "userlogin") \
    X(gsUserlastchangems, 900001, "userlastchangems") \
    X(gsUserlist, 900002, "userlist") \
    X(gsUseradd, 900003, "useradd") \
    X(gsUserdel, 900004, "userdel") \
    X(gsUserrights, 900005, "userrights") \
    X(gsUserpasswd, 900006, "userpasswd") \
    X(gsPiconframe, 1000000, "piconframe") \
    X(gsJpegframe, 1000001, "jpegframe") \
    X(gsImagedirectory, 1000002, "imagedirectory") \
    X(gsFrameinfo, 1000003, "frameinfo") \
    X(gsRawframe, 1000004, "rawframe") \
    X(gsPreallocateeditfile, 1000005, "preallocateeditfile") \
    X(gsCreateeditfile, 1000006, "createeditfile") \
    X(gsPreviewframe, 1000007, "previewframe") \
    X(gsCurrentframe, 1000008, "currentframe") \
    X(gsRecordavhal, 1000009, "recordavhal") \
    X(gsQnvservice, 1100000, "qnvservice") \
    X(gsInsertqueue, 1100001, "insertqueue") \
    X(gsXlatqueue, 1100002, "xlatqueue") \
    X(gsXmlratescale, 1100003, "xmlratescale") \
    X(gsXmlfileproperties, 1100004, "xmlfileproperties") \
    X(gsQxprojecttoxml, 1100005, "qxprojecttoxml") \
    X(gsApplicationid, 1100006, "applicationid") \
    X(gsInlay, 1100007, "inlay") \
    X(gsInlayfile, 1100008, "inlayfile") \
    X(gsInlaysourcearea, 1100009, "inlaysourcearea") \
    X(gsInlaydestinationarea, 1100010, "inlaydestinationarea") \
    X(gsInlayoffset, 1100011, "inlayoffset") \
    X(gsInlaytctype, 1100012, "inlaytctype") \
    X(gsExportclip, 1100013, "exportclip") \
    X(gsExportclipdirectory, 1100014, "exportclipdirectory") \
    X(gsExportaudiofilesourcename, 1100015, "exportaudiofilesourcename") \
    X(gsExportfilename, 1100016, "exportfilename") \
    X(gsExportprofilename, 1100017, "exportprofilename") \
    X(gsExportthresholdlimits, 1100018, "exportthresholdlimits") \
    X(gsImportclipdirectory, 1100019, "importclipdirectory") \
    X(gsFilesegmentsize, 1100020, "filesegmentsize") \
    X(gsRecordfileupdateframes, 1100021, "recordfileupdateframes") \
    X(gsCheckframetimestamp, 1100022, "checkframetimestamp") \
    X(gsAbortmediafileload, 1100023, "abortmediafileload") \
    X(gsMaxfilethreads, 1100024, "maxfilethreads") \
    X(gsMaxcodecthreads, 1100025, "maxcodecthreads") \
    X(gsOverlayenable, 111000, "overlayenable") \
    X(gsOverlayaudiometers, 111001, "overlayaudiometers") \
    X(gsOverlayvchipenable, 111002, "overlayvchipenable") \
    X(gsOverlaycc, 111003, "overlaycc") \
    X(gsOverlaytimecode, 111004, "overlaytimecode") \
    X(gsOverlaywatermark, 111005, "overlaywatermark") \
    X(gsOverlaysourceformat, 111006, "overlaysourceformat") \
    X(gsOverlaycustomtext, 111007, "overlaycustomtext") \
    X(gsOverlayvectorscope, 111008, "overlayvectorscope") \
    X(gsOverlaywaveform, 111009, "overlaywaveform") \
    X(gsOverlayhistogram, 111010, "overlayhistogram") \
    X(gsShutdownapplication, 2147418112, "shutdownapplication") \
    X(gsShutdownsystem, 2147418113, "shutdownsystem") \
    X(gsCleanrecordwipedrive, 2147418114, "cleanrecordwipedrive") \
    X(gsInstallsystem, 2147418115, "installsystem")

enum MediaCmdValueCode {
#define QNV_MEDIACMD_VALUE_CONSTANT(constant, code, name) constant = code,
    QNV_MEDIACMD_VALUE_NAMES(QNV_MEDIACMD_VALUE_CONSTANT)
#undef QNV_MEDIACMD_VALUE_CONSTANT
};

/* ---- Record helpers --------------------------------------------------------- */

/* Makes a full 4188-byte record valid: all zero, then CmdID, StructSize 4188,
   Channel 0xFFFFFFFF, Cmd = command, Speed MEDIACMD_NO_SPEED, the channel
   masks, CmdAlt, Position, Start and End all -1. A null cmd is ignored. */
QNV_API void initMediaCmd(MediaCmd* cmd, uint32_t command);
/* Merges src into an initialised dst: channel, command, positions always;
   the flags in flagMask; implied speeds; clip ID and file name with
   cfUseClipID. dst keeps its StructSize. */
QNV_API void copyMediaCmd(MediaCmd* dst, const MediaCmd* src, uint32_t flagMask);
/* Fills in implied defaults (channel masks without cfUsePresets, the speed of
   play, record and stop-like commands without cfUseSpeed), looking only at the
   flags in flagMask (0: all). Returns Flags. */
QNV_API uint32_t fixMediaCmd(MediaCmd* cmd, uint32_t flagMask);

/* Flag and value names. The FromString lookups take the first name equal to
   `name` ignoring ASCII case; the ToString lookups the first name of exactly
   that code (a combination of flags has none) and copy it to `text` (31 bytes
   suffice). Null outputs are skipped. Result 0, or 0xFFFFFFFF when unknown. */
QNV_API uint32_t cfFromString(const char* name, uint32_t* flag);
QNV_API uint32_t cfToString(uint32_t flag, char* text);
QNV_API uint32_t gsFromString(const char* name, uint32_t* code);
QNV_API uint32_t gsToString(uint32_t code, char* text);

/* Channel masks: bit n is channel n. findChannel returns the channel number
   of the index-th set bit (from 0) and stores the mask without it in *rest;
   0xFFFFFFFF (and the mask unchanged) when there are not that many. */
QNV_API uint32_t findChannel(uint32_t mask, uint32_t* rest, uint32_t index);
/* The single-bit mask of that channel, or 0. */
QNV_API uint32_t isolateChannel(uint32_t mask, uint32_t index);
QNV_API uint32_t totalChannels(uint32_t mask);

/* |speed| / 65520 as an unsigned 16.16 multiple of normal speed. */
QNV_API uint32_t speedRate(int32_t speed);
/* Repetitions of the current frame at `speed`, advancing *frame (when not
   null). Keeps its rate and fractional accumulator between calls in one
   process-wide state (serialised, but shared by every caller); speed
   MEDIACMD_NO_SPEED reuses the last speed. */
QNV_API uint32_t speedReps(uint32_t* frame, int32_t speed);

/* Each byte of a fourcc through ASCII tolower/toupper. */
QNV_API uint32_t fourccToLower(uint32_t fourcc);
QNV_API uint32_t fourccToUpper(uint32_t fourcc);

/* ---- XML text --------------------------------------------------------------- */

/* Results of the readers. */
#define MEDIACMD_XML_OK 0u
#define MEDIACMD_XML_NO_RECORD 0xFFFFFFFFu   /* cmd is null */
#define MEDIACMD_XML_NO_ROOT 0xFFFFFFFEu     /* no "MediaCmd" or "ClipInfo" node */
#define MEDIACMD_XML_NOT_ELEMENT 0xFFFFFFFDu /* that node is not an element */

/* Writes the record as XML text into *text (release with
   MediaCmdFreeXMLString); *text is not touched when nothing was written.
   Positions are written in timecode type tcType (its low 8 bits: 0 frames,
   1 film, 2 non-drop-frame, 4 drop-frame, 8 pal, 16 50, 32 59.94, 64 60,
   128 film-drop, 132 23.98; 255 counts as 0). The record is not const: a
   "$" in the file name of a metabasefilename command is cut off in it.
   Always returns 0. */
QNV_API uint32_t MediaCmdToXMLString(char** text, MediaCmd* cmd, uint32_t tcType);
/* Releases *text (when not null) and sets it to null; returns 0. */
QNV_API uint32_t MediaCmdFreeXMLString(char** text);
/* Resets cmd (initMediaCmd with ctStop), then reads the XML text into it;
   cmd must be a full 4188-byte record.
   tcType (null: drop-frame) is the timecode type of position texts that name
   no numeric type. Returns MEDIACMD_XML_OK or one of the codes above. */
QNV_API uint32_t MediaCmdFromXMLString(MediaCmd* cmd, uint32_t* tcType, const char* xml);

#ifdef __cplusplus
/* Appends the declaration and the "MediaCmd" element to `document`. */
QNV_API uint32_t MediaCmdToXML(tinyxml2::XMLDocument* document, MediaCmd* cmd, uint8_t tcType);
/* Reads `document` into a prepared record (flags are added to Flags) and
   deletes the document on every path. Whatever sizes the text claims, writes
   into the data area stay below the StructSize the record has on entry, and
   StructSize stays between 76 and that value. */
QNV_API uint32_t MediaCmdFromXML(MediaCmd* cmd, uint32_t* tcType, tinyxml2::XMLDocument* document);
#endif

/* ---- Debug text ------------------------------------------------------------- */

/* One summary line of the record to the debugger output
   (qxOutputDebugString); nothing for ctGetState and ctSetState. */
QNV_API void __dbgout_mediacmd(const MediaCmd* cmd);
/* The timecode text of `frames` in type tcType (0: 30 fps non-drop) to the
   debugger output. */
QNV_API void __dbgout_tc(int32_t frames, uint8_t tcType);

QNV_END_C

#endif

// Rate/scale pairs, frame durations, aspect ratios and the colour matrix.
#include <cmath>
#include <cstdlib>
#include <mutex>

#include "qnvutil/qxutil.h"
#include "qnvutil/vidformat.h"

namespace {

struct RateEntry {
    uint32_t code;
    uint32_t rate;
    uint32_t scale;
};

// Rate codes whose rate is not code/1.
constexpr RateEntry kFractionalRates[] = {
    {14, 15000, 1001}, {23, 24000, 1001}, {29, 30000, 1001}, {47, 48000, 1001},
    {59, 60000, 1001}, {71, 72000, 1001}, {119, 120000, 1001},
};

constexpr double kNtscFps = 30000.0 / 1001.0;

// |v| of a signed 32-bit field, -2^31 included.
uint32_t magnitude(int32_t v) { return v < 0 ? 0u - uint32_t(v) : uint32_t(v); }

}  // namespace

uint32_t vidRateScale(uint32_t signalFormat, uint32_t* rate, uint32_t* scale) {
    // guard: null outputs are refused like the missing format.
    if (signalFormat == VID_NO_FORMAT || !rate || !scale) return VID_ERROR;
    const uint32_t code = signalFormat & VID_RATE_MASK;
    *rate = code;
    *scale = 1;
    for (const RateEntry& e : kFractionalRates) {
        if (e.code == code) {
            *rate = e.rate;
            *scale = e.scale;
        }
    }
    return code == VID_RATE_UNKNOWN ? VID_ERROR : 0;
}

uint32_t vidRateScaleFromSize(uint32_t width, uint32_t height, uint32_t* rate, uint32_t* scale) {
    if (!rate || !scale) return VID_ERROR;
    uint32_t r = 0, s = 1;
    if (width <= 720) {
        r = height <= 512 ? 30000 : 25;
    } else if (width <= 1080) {
        r = 30000;
    } else if (width <= 1828) {
        r = 25;
    } else if (width <= 1920) {
        r = 30000;
    } else if (width <= 2048) {
        r = height < 1236 ? 25 : 24;
    } else if (width <= 4096) {
        r = 24;
    } else {
        return 0;
    }
    if (r == 30000) s = 1001;
    *rate = r;
    *scale = s;
    return 0;
}

uint32_t vidNormalizeRateScale(uint32_t* rate, uint32_t* scale) {
    // guard: without both values, or with a zero scale, there is no quotient;
    // the pair is left as it is.
    if (!rate || !scale || *scale == 0) return 0;
    const uint32_t r = *rate;
    const uint32_t q = r / *scale;
    auto set = [&](uint32_t newRate, uint32_t newScale) {
        *rate = newRate;
        *scale = newScale;
    };
    switch (r) {
    case 10: case 15: case 23: case 24: case 25: case 29: case 30: case 59: case 60:
        // Whole numbers written by hand are taken literally.
        *scale = 1;
        break;
    case 2397: case 2398:
        if (q == 23) set(23976, 1000);
        break;
    case 2400:
        if (q == 24) set(24, 1);
        else if (q == 23) set(24000, 1001);
        break;
    case 2996: case 2997: case 2998:
        if (q == 29) set(30000, 1001);
        else if (q == 23) set(24000, 1001);
        break;
    case 3000:
        if (q == 30) set(30, 1);
        else if (q == 29) set(30000, 1001);
        break;
    case 23976: case 23977:
        if (q == 23) set(23976, 1000);
        break;
    default:
        switch (q) {
        case 23: set(24000, 1001); break;
        case 29: set(30000, 1001); break;
        case 59: set(60000, 1001); break;
        case 24: case 25: case 30: case 48: case 50: case 60: set(q, 1); break;
        default:
            if (r % *scale == 0) set(q, 1);
            break;
        }
        break;
    }
    return 0;
}

double vidFramesPerSecD(uint32_t signalFormat, uint32_t rate, uint32_t scale) {
    if (rate != 0 && scale != 0) return double(rate) / double(scale);
    uint32_t r = 0, s = 0;
    if (vidRateScale(signalFormat, &r, &s) != 0) return kNtscFps;
    return double(r) / double(s);
}

double vidMsPerFrameD(uint32_t signalFormat, uint32_t rate, uint32_t scale) {
    return 1000.0 / vidFramesPerSecD(signalFormat, rate, scale);
}

int64_t vidMsPerFrame(uint32_t signalFormat, uint32_t rate, uint32_t scale) {
    const double ms = vidMsPerFrameD(signalFormat, rate, scale) + 0.5;
    // guard: rate code 0 gives 0 frames per second and an infinite duration,
    // which no integer holds; it is reported as 0.
    if (!(ms < 9.2e18)) return 0;
    return static_cast<int64_t>(ms);
}

double vidTCFramesPerSecD(uint8_t tcType) {
    switch (tcType) {
    case VID_TC_24: return 24.0;
    case VID_TC_30: return 30.0;
    case VID_TC_25: return 25.0;
    case VID_TC_50: return 50.0;
    case VID_TC_5994: return 59.94005994005994;
    case VID_TC_60: return 60.0;
    case VID_TC_23976: case VID_TC_23976_DROP: return 23.976023976023978;
    default: return 29.97002997002997;
    }
}

double vidTCMsPerFrameD(uint8_t tcType) {
    // The values are the table's own decimal forms; those of 59.94 and 60
    // differ from 1001/60 and 1000/60 in the last place.
    switch (tcType) {
    case VID_TC_24: return 41.666666666666664;
    case VID_TC_25: return 40.0;
    case VID_TC_50: return 20.0;
    case VID_TC_5994: return 16.68333333333333;
    case VID_TC_60: return 16.66666666666667;
    case VID_TC_23976: case VID_TC_23976_DROP: return 41.708333333333336;
    default: return 33.36666666666667;  // 29.97, also for 30 non-drop
    }
}

int64_t vidTCMsPerFrame(uint8_t tcType) { return static_cast<int64_t>(vidTCMsPerFrameD(tcType) + 0.5); }

uint32_t vidGetAspectRatio(const uint32_t* imageDescription) {
    if (!imageDescription) return 0;
    const uint32_t w = imageDescription[1];
    const uint32_t h = magnitude(static_cast<int32_t>(imageDescription[2]));
    if (h < 480) return 0;
    if (h < 526) return VID_ASPECT(4, 3);
    if (h < 626) return (w >= 640 && w <= 800) ? VID_ASPECT(4, 3) : 0;
    switch (h) {
    case 720:
        return (w == 960 || w == 1280) ? VID_ASPECT(16, 9) : 0;
    case 858:
        return w == 2048 ? VID_ASPECT(239, 100) : 0;
    case 1080:
        if (w == 1280 || w == 1440 || w == 1920) return VID_ASPECT(16, 9);
        if (w == 1998) return VID_ASPECT(185, 100);
        if (w == 2048) return VID_ASPECT(256, 135);
        return 0;
    case 2160:
        if (w == 3840) return VID_ASPECT(16, 9);
        if (w == 4096) return VID_ASPECT(256, 135);
        return 0;
    default:
        return 0;
    }
}

namespace {

// "ForceVideoRangeMatrix", read from the default store on first use and kept
// for the life of the process.
uint32_t forcedMatrixSetting() {
    static std::once_flag once;
    static uint32_t setting = 0xFFFFFFFFu;
    std::call_once(once, [] {
        const char* key = "Quellbox\\Advanced";
        const char* name = "ForceVideoRangeMatrix";
        uint32_t v = 0;
        if (qxCFGValueDword(QXCFG_DEFAULT, key, name, &v, 0) != 0) {
            v = 0;
            qxCFGValueDword(QXCFG_DEFAULT, key, name, &v, 1);
        }
        setting = v;
    });
    return setting;
}

}  // namespace

int32_t GetMatrixBySize(int32_t width, int32_t height, int32_t flags) {
    const uint32_t h = magnitude(height);
    if (forcedMatrixSetting() != 1 && (flags & VID_MATRIX_VIDEO_RANGE)) {
        if (h < 1126) return width < 721 ? 1 : 5;
        return 7;
    }
    if (h > 1125) return 6;
    return width < 721 ? 0 : 4;
}

// sensorinfo <device>: a description of one sensor from its properties.
//
// The common properties are all read before anything is printed; the range,
// full-scale and bandwidth lines of the gyroscope and the accelerometer come
// after and show a failed read in place of the value.
#include "talvexctl.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr IOReturn kUnsupported = static_cast<IOReturn>(0xe00002c7);
constexpr uint32_t kTextSize = 32;
constexpr uint32_t kListSize = 128;

int32_t word_at(const uint8_t *bytes, uint32_t index) { return static_cast<int32_t>(load_le32(bytes + 4 * index)); }

// "LABEL" then the value, or "LABEL" then "error CODE".
void print_value(TalvexHandle *talvex, uint8_t device, uint32_t property, const char *label) {
    uint8_t value[4] = {};
    uint32_t size = sizeof value;
    IOReturn result = TalvexReadProperty(talvex, device, property, value, &size);
    if (result == 0)
        std::printf("%s: %d\n", label, word_at(value, 0));
    else
        std::printf("%s: error %x\n", label, static_cast<uint32_t>(result));
}

// "LABEL" then the listed values; nothing after the label when the read fails.
void print_list(TalvexHandle *talvex, uint8_t device, uint32_t property, const char *label) {
    uint8_t list[kListSize] = {};
    uint32_t size = sizeof list;
    std::printf("%s", label);
    if (TalvexReadProperty(talvex, device, property, list, &size) == 0)
        for (uint32_t i = 0; i < size / 4; ++i) std::printf("%d ", word_at(list, i));
    std::printf("\n");
}

struct Common {
    uint8_t interval[4], decimation[4], raw[4], factory[4];
    uint8_t part[kTextSize], vendor[kTextSize];
    uint8_t matrix[36], offset[12];
    uint8_t orientation[9];
    uint8_t rates[kListSize];
    uint32_t rates_size;
    uint8_t startup[4];
    uint8_t internal_cal[12];
    uint32_t internal_cal_size;
};

// Reads the twelve common properties; a failure is reported here.
IOReturn read_common(TalvexHandle *talvex, uint8_t device, Common &c) {
    struct Read {
        uint32_t property;
        void *value;
        uint32_t size;
    };
    const Read reads[] = {
        {kTalvexPropertySampleInterval, c.interval, 4}, {kTalvexPropertyDecimation, c.decimation, 4},
        {kTalvexPropertyRawMode, c.raw, 4},             {kTalvexPropertyFactoryMode, c.factory, 4},
        {kTalvexPropertyPartName, c.part, kTextSize},   {kTalvexPropertyVendor, c.vendor, kTextSize},
        {kTalvexPropertyCalMatrix, c.matrix, 36},       {kTalvexPropertyCalOffset, c.offset, 12},
        {kTalvexPropertyOrientation, c.orientation, 9}, {kTalvexPropertySampleRates, c.rates, kListSize},
    };
    for (const Read &r : reads) {
        uint32_t size = r.size;
        IOReturn result = TalvexGetProperty(talvex, device, r.property, r.value, &size);
        if (!TALVEX_CALL_OK_TEXT(result)) return result;
        if (r.property == kTalvexPropertySampleRates) c.rates_size = size;
    }
    uint32_t size = sizeof c.startup;
    IOReturn result = TalvexReadProperty(talvex, device, kTalvexPropertyStartupTime, c.startup, &size);
    // Parts without a start-up time say so with any code whose low 29 bits are unsupported's.
    if ((static_cast<uint32_t>(result) | 0xe0000000u) == static_cast<uint32_t>(kUnsupported)) {
        std::memset(c.startup, 0, sizeof c.startup);
        result = 0;
    }
    if (result == 0) {
        c.internal_cal_size = sizeof c.internal_cal;
        result = TalvexReadProperty(talvex, device, kTalvexPropertyInternalCal, c.internal_cal, &c.internal_cal_size);
    }
    TALVEX_CALL_OK_TEXT(result);
    return result;
}

void print_common(const Common &c) {
    std::printf("Device      : %.32s %.32s\n", reinterpret_cast<const char *>(c.part),
                reinterpret_cast<const char *>(c.vendor));
    std::printf("Sample intvl: %d us, decimation=%d\n", word_at(c.interval, 0), word_at(c.decimation, 0));
    std::printf("Sensor mode : %s\n", word_at(c.raw, 0) ? "raw" : word_at(c.factory, 0) ? "factory" : "normal");
    double m[9];
    for (uint32_t i = 0; i < 9; ++i) m[i] = static_cast<double>(word_at(c.matrix, i)) * 1.52587890625e-05;
    std::printf("Cal matrix  : %f %f %f | %f %f %f | %f %f %f\n", m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8]);
    std::printf("Cal offset  : %d %d %d\n", word_at(c.offset, 0), word_at(c.offset, 1), word_at(c.offset, 2));
    int o[9];
    for (int i = 0; i < 9; ++i) o[i] = static_cast<int8_t>(c.orientation[i]);
    std::printf("Orient. m.  : %d %d %d, %d %d %d, %d %d %d\n", o[0], o[1], o[2], o[3], o[4], o[5], o[6], o[7], o[8]);
    std::printf("SampleRates : ");
    for (uint32_t i = 0; i < c.rates_size / 4; ++i) std::printf("%d ", word_at(c.rates, i));
    std::printf("\n");
    std::printf("StartupTime : %d\n", word_at(c.startup, 0));
    if (c.internal_cal_size / 4 * 4 == 4)
        std::printf("Int.Calib.  : %d [at 100Hz]\n", word_at(c.internal_cal, 0));
    else
        std::printf("Int.Calib.  : %d (combo=%d, accel-only=%d) [at 100Hz]\n", word_at(c.internal_cal, 0),
                    word_at(c.internal_cal, 1), word_at(c.internal_cal, 2));
}

}  // namespace

int TalvexCmdSensorInfo(int argc, char *argv[]) {
    if (!TALVEX_CHECK(argc == 2, "argc == 2")) return 1;
    uint8_t device = TalvexDeviceLookup(argv[1]);
    if (!TALVEX_CHECK(device != kTalvexNoDevice, "device != 0xff")) return 1;
    TalvexHandle *talvex = TALVEX_OPEN();
    if (!talvex) return 1;
    Common common{};
    if (read_common(talvex, device, common) != 0) {
        TalvexClose(talvex);
        return 1;
    }
    print_common(common);
    if (device == kTalvexDeviceAccel) {
        print_value(talvex, device, kTalvexPropertyRange, "fsr         ");
        print_list(talvex, device, kTalvexPropertyRanges, "SupportedFSR: ");
        print_value(talvex, device, kTalvexPropertyBandwidth, "bw          ");
        print_list(talvex, device, kTalvexPropertyBandwidths, "SupportedBW : ");
    } else if (device == kTalvexDeviceGyro) {
        print_value(talvex, device, kTalvexPropertyRange, "range       ");
        print_list(talvex, device, kTalvexPropertyRanges, "SupportedRanges: ");
    }
    TalvexClose(talvex);
    return 0;
}

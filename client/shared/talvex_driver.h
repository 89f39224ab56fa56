// The driver interfaces that the client and the simulator both speak: the
// coprocessor driver's external methods and device properties, the report
// hub's methods, the driver's interest messages, the coprocessor states and
// the device numbers.
// One catalogue, used by the tool, the client, the report library, the
// simulator and the tests; it depends on nothing but the C++ library.
#pragma once

#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------------------
// External methods of the coprocessor driver (ZantraTalvexProcessor), by
// selector. The argument shapes are the simulator's (sim/coprocessor.cpp) and
// the callers' own.
enum TalvexMethod : uint32_t {
    kTalvexMethodSelectFirmware = 0,     // scalar: the firmware number
    kTalvexMethodReset = 1,
    kTalvexMethodLoadFirmware = 2,       // boots the firmware: number, flags; image dictionary
    kTalvexMethodStop = 3,
    kTalvexMethodPing = 4,
    kTalvexMethodSpiTransfer = 5,
    kTalvexMethodRegisterRead = 6,
    kTalvexMethodRegisterWrite = 7,
    kTalvexMethodSetContextLimit = 8,    // scalar: the context limit
    kTalvexMethodRawBytes = 9,           // a byte string passed on as given
    kTalvexMethodTimeSync = 10,          // synchronises time with the coprocessor
    kTalvexMethodGpioSet = 11,
    kTalvexMethodGpioRead = 12,
    kTalvexMethodGetProperty = 13,       // a device property
    kTalvexMethodSetProperty = 14,
    kTalvexMethodConnect = 15,
    kTalvexMethodPowerRails = 16,        // scalar: the rail mask
    kTalvexMethodPowerAssertion = 17,    // sets or releases a power-state assertion
    kTalvexMethodWake = 18,
    kTalvexMethodProfileStart = 19,
    kTalvexMethodProfileStop = 20,
    kTalvexMethodProfileReset = 21,
    kTalvexMethodProfileSummary = 22,
    kTalvexMethodProfileEntry = 23,
    kTalvexMethodPowerLogStart = 24,
    kTalvexMethodPowerLogStop = 25,
    kTalvexMethodPowerLogReset = 26,
    kTalvexMethodPowerLogRead = 27,
    kTalvexMethodClockRedirect = 28,
    kTalvexMethodSetBaudRate = 29,
    kTalvexMethodClientList = 30,
    kTalvexMethodPanic = 31,             // makes the firmware panic, with an optional text
    kTalvexMethodClockMeasure = 32,
    kTalvexMethodTestReport = 33,        // asks the firmware for a test report
    kTalvexMethodI2CRead = 34,
    kTalvexMethodI2CWrite = 35,
    kTalvexMethodUartTest = 36,          // sends one UART test frame
    kTalvexMethodMemoryRead = 37,
    kTalvexMethodMemoryWrite = 38,
    kTalvexMethodPerfMonitor = 39,       // the per-device performance monitor
    kTalvexMethodHalt = 40,
};

inline constexpr uint32_t kTalvexMethodCount = 41;

// Device properties, read and written with kTalvexMethodGetProperty and
// kTalvexMethodSetProperty, by number.
enum TalvexProperty : uint32_t {
    kTalvexPropertySampleInterval = 0,
    kTalvexPropertyBandwidth = 4,
    kTalvexPropertyRange = 6,
    kTalvexPropertyRawMode = 10,
    kTalvexPropertyCalMatrix = 11,
    kTalvexPropertyFactoryMode = 13,
    kTalvexPropertyPartName = 15,
    kTalvexPropertyVendor = 16,
    kTalvexPropertyReportRate = 22,    // of the talvex device
    kTalvexPropertyOrientation = 24,
    kTalvexPropertyInternalCal = 25,
    kTalvexPropertyCalOffset = 26,
    kTalvexPropertySampleRates = 33,
    kTalvexPropertyDecimation = 36,
    kTalvexPropertyPerfmonMode = 38,   // the performance monitor's mode item
    kTalvexPropertyStartupTime = 45,
    kTalvexPropertyRanges = 56,
    kTalvexPropertyBandwidths = 57,
    kTalvexPropertyIrcStartup = 240,   // of the talvex device: the IRC's start-up timing
};

// Items of the performance monitor (kTalvexMethodPerfMonitor, second scalar).
inline constexpr uint32_t kTalvexPerfmonItemMode = kTalvexPropertyPerfmonMode;
inline constexpr uint32_t kTalvexPerfmonItemReport = 47;

// ---------------------------------------------------------------------------
// Fixed layouts of the structure methods that the tool and the simulator
// both size. Fields are little-endian.

// kTalvexMethodProfileEntry. Request: kind (0 hitpoint, 1 function), index;
// for index kByName, the name (NUL-terminated) at 8. Reply: index, the name
// at 4, max, min, hits, then saves or total time.
struct TalvexProfileEntryLayout {
    static constexpr size_t kRequestSize = 72, kReplySize = 82, kNameSize = 64;
    static constexpr uint32_t kByName = 0xffffffff;
};

// kTalvexMethodClientList. Request: device, slot (kSummary for the device's
// summary). Reply: slot count, the name at 4, polling, report, threshold,
// time limit.
struct TalvexClientListLayout {
    static constexpr size_t kRequestSize = 5, kReplySize = 89, kNameSize = 69;
    static constexpr uint32_t kSummary = 0xffffffff;
};

// kTalvexMethodI2CRead and kTalvexMethodI2CWrite. Request: port, address,
// register (16 bits; kNoRegister for none), count, then a write's data.
struct TalvexI2CLayout {
    static constexpr size_t kReadRequestSize = 5, kWriteRequestSize = 21, kMaxData = 16;
    static constexpr uint16_t kNoRegister = 0xffff;
};

// kTalvexMethodUartTest. Request: port, container, length, retries, preamble
// flag, preamble (32 bits), then the payload.
struct TalvexUartTestLayout {
    static constexpr size_t kRequestSize = 109, kPayloadOffset = 9;
    static constexpr uint32_t kMaxRetries = 100, kMaxPreamble = 4096;
};

// ---------------------------------------------------------------------------
// External methods of the report hub (IOReportHub).
enum TalvexHubMethod : uint32_t {
    kIOReportUserClientOpen = 0,
    kIOReportUserClientConfigureInterests = 2,   // the interest list in, the buffer token out
    kIOReportUserClientUpdateKernelBuffer = 3,   // the buffer token in
};

// ---------------------------------------------------------------------------
// Interest messages of the coprocessor driver.
inline constexpr uint32_t kTalvexMessageStateChanged = 0xe0000130;   // common message 0x130; argument: the new state
inline constexpr uint32_t kTalvexMessageTimeSync = 0xe3ff8100;       // driver message 0x100; argument: two u64 times

// ---------------------------------------------------------------------------
// Coprocessor states, as the driver's "talvex-state" property holds them.
enum TalvexState : uint32_t {
    kTalvexStateOff = 0x0,
    kTalvexStateStopped = 0x10000,
    kTalvexStateBooting,
    kTalvexStateBooted,
    kTalvexStateNotResponding,
    kTalvexStatePanic,
};

// ---------------------------------------------------------------------------
// Device numbers: the devices the coprocessor serves, as its methods and
// properties address them.
enum TalvexDeviceId : uint8_t {
    kTalvexDeviceGyro = 0,
    kTalvexDeviceAccel = 1,
    kTalvexDeviceCompass = 2,
    kTalvexDeviceTalvex = 3,   // the coprocessor itself
    kTalvexDevicePressure = 4,
    kTalvexDeviceCorvel = 5,
    kTalvexDeviceProx = 6,
};

inline constexpr uint32_t kTalvexDeviceCount = 7;

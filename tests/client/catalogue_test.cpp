// The driver catalogue's numbers are the wire's. They are written out here
// once, so that the other tests can name selectors, properties, messages,
// states and devices and still catch a number that moved.
#include "talvex_driver.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <utility>

TEST(DriverCatalogue, EveryNameKeepsItsNumber) {
    // The coprocessor driver's methods, in selector order from 0.
    const uint32_t methods[] = {
        kTalvexMethodSelectFirmware, kTalvexMethodReset,          kTalvexMethodLoadFirmware,  kTalvexMethodStop,
        kTalvexMethodPing,           kTalvexMethodSpiTransfer,    kTalvexMethodRegisterRead,  kTalvexMethodRegisterWrite,
        kTalvexMethodSetContextLimit, kTalvexMethodRawBytes,      kTalvexMethodTimeSync,      kTalvexMethodGpioSet,
        kTalvexMethodGpioRead,       kTalvexMethodGetProperty,    kTalvexMethodSetProperty,   kTalvexMethodConnect,
        kTalvexMethodPowerRails,     kTalvexMethodPowerAssertion, kTalvexMethodWake,          kTalvexMethodProfileStart,
        kTalvexMethodProfileStop,    kTalvexMethodProfileReset,   kTalvexMethodProfileSummary, kTalvexMethodProfileEntry,
        kTalvexMethodPowerLogStart,  kTalvexMethodPowerLogStop,   kTalvexMethodPowerLogReset, kTalvexMethodPowerLogRead,
        kTalvexMethodClockRedirect,  kTalvexMethodSetBaudRate,    kTalvexMethodClientList,    kTalvexMethodPanic,
        kTalvexMethodClockMeasure,   kTalvexMethodTestReport,     kTalvexMethodI2CRead,       kTalvexMethodI2CWrite,
        kTalvexMethodUartTest,       kTalvexMethodMemoryRead,     kTalvexMethodMemoryWrite,   kTalvexMethodPerfMonitor,
        kTalvexMethodHalt,
    };
    ASSERT_EQ(std::size(methods), 41u);
    for (uint32_t i = 0; i < std::size(methods); ++i) EXPECT_EQ(methods[i], i);
    EXPECT_EQ(kTalvexMethodCount, 41u);

    const std::pair<uint32_t, uint32_t> properties[] = {
        {kTalvexPropertySampleInterval, 0}, {kTalvexPropertyBandwidth, 4},     {kTalvexPropertyRange, 6},
        {kTalvexPropertyRawMode, 10},       {kTalvexPropertyCalMatrix, 11},    {kTalvexPropertyFactoryMode, 13},
        {kTalvexPropertyPartName, 15},      {kTalvexPropertyVendor, 16},       {kTalvexPropertyReportRate, 22},
        {kTalvexPropertyOrientation, 24},   {kTalvexPropertyInternalCal, 25},  {kTalvexPropertyCalOffset, 26},
        {kTalvexPropertySampleRates, 33},   {kTalvexPropertyDecimation, 36},   {kTalvexPropertyPerfmonMode, 38},
        {kTalvexPropertyStartupTime, 45},   {kTalvexPropertyRanges, 56},       {kTalvexPropertyBandwidths, 57},
        {kTalvexPropertyIrcStartup, 240},   {kTalvexPerfmonItemMode, 38},      {kTalvexPerfmonItemReport, 47},
    };
    for (const auto &[name, number] : properties) EXPECT_EQ(name, number);

    EXPECT_EQ(kIOReportUserClientOpen, 0u);
    EXPECT_EQ(kIOReportUserClientConfigureInterests, 2u);
    EXPECT_EQ(kIOReportUserClientUpdateKernelBuffer, 3u);

    EXPECT_EQ(kTalvexMessageStateChanged, 0xe0000130u);
    EXPECT_EQ(kTalvexMessageTimeSync, 0xe3ff8100u);

    const uint32_t states[] = {kTalvexStateOff,    kTalvexStateStopped,       kTalvexStateBooting,
                               kTalvexStateBooted, kTalvexStateNotResponding, kTalvexStatePanic};
    const uint32_t state_values[] = {0x0, 0x10000, 0x10001, 0x10002, 0x10003, 0x10004};
    for (size_t i = 0; i < std::size(states); ++i) EXPECT_EQ(states[i], state_values[i]) << i;

    // Device numbers, from 0.
    const uint8_t devices[] = {kTalvexDeviceGyro,     kTalvexDeviceAccel,  kTalvexDeviceCompass, kTalvexDeviceTalvex,
                               kTalvexDevicePressure, kTalvexDeviceCorvel, kTalvexDeviceProx};
    for (uint8_t i = 0; i < std::size(devices); ++i) EXPECT_EQ(devices[i], i);
    EXPECT_EQ(kTalvexDeviceCount, 7u);
}

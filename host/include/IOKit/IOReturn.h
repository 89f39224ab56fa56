// I/O return codes (system 0x38, subsystem 0: iokit/common).
#pragma once

#include <mach/mach.h>

typedef kern_return_t IOReturn;

#define iokit_common_err(code) ((IOReturn)(0xe0000000u | (code)))
#define iokit_vendor_specific_msg(message) ((uint32_t)(0xe3ff8000u | (message)))
#define iokit_common_msg(message) ((uint32_t)(0xe0000000u | (message)))

enum : IOReturn {
    kIOReturnSuccess = 0,
    kIOReturnError = iokit_common_err(0x2bc),
    kIOReturnNoMemory = iokit_common_err(0x2bd),
    kIOReturnNoResources = iokit_common_err(0x2be),
    kIOReturnIPCError = iokit_common_err(0x2bf),
    kIOReturnNoDevice = iokit_common_err(0x2c0),
    kIOReturnNotPrivileged = iokit_common_err(0x2c1),
    kIOReturnBadArgument = iokit_common_err(0x2c2),
    kIOReturnLockedRead = iokit_common_err(0x2c3),
    kIOReturnLockedWrite = iokit_common_err(0x2c4),
    kIOReturnExclusiveAccess = iokit_common_err(0x2c5),
    kIOReturnBadMessageID = iokit_common_err(0x2c6),
    kIOReturnUnsupported = iokit_common_err(0x2c7),
    kIOReturnVMError = iokit_common_err(0x2c8),
    kIOReturnInternalError = iokit_common_err(0x2c9),
    kIOReturnIOError = iokit_common_err(0x2ca),
    kIOReturnCannotLock = iokit_common_err(0x2cc),
    kIOReturnNotOpen = iokit_common_err(0x2cd),
    kIOReturnNotReadable = iokit_common_err(0x2ce),
    kIOReturnNotWritable = iokit_common_err(0x2cf),
    kIOReturnNotAligned = iokit_common_err(0x2d0),
    kIOReturnBadMedia = iokit_common_err(0x2d1),
    kIOReturnStillOpen = iokit_common_err(0x2d2),
    kIOReturnRLDError = iokit_common_err(0x2d3),
    kIOReturnDMAError = iokit_common_err(0x2d4),
    kIOReturnBusy = iokit_common_err(0x2d5),
    kIOReturnTimeout = iokit_common_err(0x2d6),
    kIOReturnOffline = iokit_common_err(0x2d7),
    kIOReturnNotReady = iokit_common_err(0x2d8),
    kIOReturnNotAttached = iokit_common_err(0x2d9),
    kIOReturnNoChannels = iokit_common_err(0x2da),
    kIOReturnNoSpace = iokit_common_err(0x2db),
    kIOReturnPortExists = iokit_common_err(0x2dd),
    kIOReturnCannotWire = iokit_common_err(0x2de),
    kIOReturnNoInterrupt = iokit_common_err(0x2df),
    kIOReturnNoFrames = iokit_common_err(0x2e0),
    kIOReturnMessageTooLarge = iokit_common_err(0x2e1),
    kIOReturnNotPermitted = iokit_common_err(0x2e2),
    kIOReturnNoPower = iokit_common_err(0x2e3),
    kIOReturnNoMedia = iokit_common_err(0x2e4),
    kIOReturnUnformattedMedia = iokit_common_err(0x2e5),
    kIOReturnUnsupportedMode = iokit_common_err(0x2e6),
    kIOReturnUnderrun = iokit_common_err(0x2e7),
    kIOReturnOverrun = iokit_common_err(0x2e8),
    kIOReturnDeviceError = iokit_common_err(0x2e9),
    kIOReturnNoCompletion = iokit_common_err(0x2ea),
    kIOReturnAborted = iokit_common_err(0x2eb),
    kIOReturnNoBandwidth = iokit_common_err(0x2ec),
    kIOReturnNotResponding = iokit_common_err(0x2ed),
    kIOReturnIsoTooOld = iokit_common_err(0x2ee),
    kIOReturnIsoTooNew = iokit_common_err(0x2ef),
    kIOReturnNotFound = iokit_common_err(0x2f0),
    kIOReturnInvalid = iokit_common_err(0x1),
};

enum : uint32_t {
    kIOMessageServiceIsTerminated = iokit_common_msg(0x010),
    kIOMessageServiceStateChanged = iokit_common_msg(0x130),
};

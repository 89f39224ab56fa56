// Client of the Talvex coprocessor driver (ZantraTalvexProcessor): the
// connection handle, the operations that wrap single external methods, the
// coprocessor state read and the event monitor.
#pragma once

#include "talvex_assert.h"
#include "talvex_driver.h"

#include <IOKit/IOKitLib.h>
#include <little_endian.h>

#include <cstddef>
#include <cstdint>
#include <functional>

// Driver structures are little-endian; their fields are read and written
// with the platform layer's loads and stores.
using talvex::wire::load_le16;
using talvex::wire::load_le32;
using talvex::wire::load_le64;
using talvex::wire::store_le16;
using talvex::wire::store_le32;
using talvex::wire::store_le64;

// The monitor's event callable: (message type, message argument).
using TalvexEventBlock = std::function<void(uint32_t message_type, void *message_argument)>;

// One command's connection to the driver. Zero-filled when made; owns one
// reference to every non-zero field. Only the monitor sets the last three.
struct TalvexHandle {
    io_service_t service;                        // the matched driver service
    io_connect_t connection;                     // user client of type 0
    IONotificationPortRef notifyPort;            // interest notifications (monitor)
    io_object_t notification;                    // the registered interest notification (monitor)
    TalvexEventBlock *notification_handler;      // heap copy of the event callable (monitor)
};

inline constexpr const char *kTalvexServiceClass = "ZantraTalvexProcessor";

// Opens the driver. Returns null after printing a diagnostic when the driver
// is not there, refuses the open, or memory runs out.
TalvexHandle *TalvexOpen(void);

// Releases everything the handle owns, in a fixed order, and frees it.
void TalvexClose(TalvexHandle *talvex);

// ---------------------------------------------------------------------------
// A command's own steps around the handle. Each macro passes the file and line
// where the command writes it, so its diagnostic names the command's check:
//
//   TalvexHandle *talvex = TALVEX_OPEN();
//   if (!talvex) return 1;
//   IOReturn result = TalvexCallScalar(talvex, ...);   // reports a failure itself
//   return TALVEX_REPORT_AND_CLOSE(talvex, result);     // ... and the command once more

// Opens the driver for a command. When the open fails (TalvexOpen has said
// why), reports "talvex" here and gives null.
#define TALVEX_OPEN() TalvexOpenAt(__FILE__, static_cast<long>(__LINE__))

// Reports a failed call at the calling site: "result == 0 " with the code and
// no message (TALVEX_CALL_OK) or the code's text as message
// (TALVEX_CALL_OK_TEXT). Gives true when `result` is 0.
#define TALVEX_CALL_OK(result) TalvexCallOkAt((result), false, __FILE__, static_cast<long>(__LINE__))
#define TALVEX_CALL_OK_TEXT(result) TalvexCallOkAt((result), true, __FILE__, static_cast<long>(__LINE__))

// The end of a command that made a call: reports a failed `result` as
// TALVEX_CALL_OK does, closes the handle, and gives the exit status (1 after a
// failure, else 0).
#define TALVEX_REPORT_AND_CLOSE(talvex, result) \
    TalvexReportAndCloseAt((talvex), (result), __FILE__, static_cast<long>(__LINE__))

inline TalvexHandle *TalvexOpenAt(const char *file, long line) {
    TalvexHandle *talvex = TalvexOpen();
    if (!talvex) TalvexAssertReport("talvex", "", file, line, 0);
    return talvex;
}

inline bool TalvexCallOkAt(IOReturn result, bool with_text, const char *file, long line) {
    if (result == 0) return true;
    // A null message, or a code without text, prints as an empty message.
    const char *message = with_text ? mach_error_string(result) : nullptr;
    TalvexAssertReport("result == 0 ", message, file, line, static_cast<uint32_t>(result));
    return false;
}

inline int TalvexReportAndCloseAt(TalvexHandle *talvex, IOReturn result, const char *file, long line) {
    bool ok = TalvexCallOkAt(result, false, file, line);
    TalvexClose(talvex);
    return ok ? 0 : 1;
}

// ---------------------------------------------------------------------------
// Driver methods (selectors in talvex_driver.h). Each operation calls exactly
// one method and returns its code; a non-zero code is reported ("result == 0 ")
// by the operation itself.

// Direct calls, for requests no operation below makes: one call of method
// `selector` in its scalar or its structure form, the code returned. A
// non-zero code is reported ("result == 0 ") here, as an operation reports
// its own; the command reports it once more where its rules say so.
IOReturn TalvexCallScalar(TalvexHandle *talvex, uint32_t selector, const uint64_t *input, uint32_t input_count,
                          uint64_t *output, uint32_t *output_count);
IOReturn TalvexCallStruct(TalvexHandle *talvex, uint32_t selector, const void *input, size_t input_size,
                          void *output, size_t *output_size);

// Method 0: one scalar, the firmware number.
IOReturn TalvexSelectFirmware(TalvexHandle *talvex, uint64_t firmware);

// Method 2: boots the firmware, with the image at `path` (null for the
// driver's own), the start number and the boot flags.
IOReturn TalvexLoadFirmware(TalvexHandle *talvex, const char *path, uint32_t number, uint32_t flags);

// Method 13: reads property `property` (low 32 bits sent) of `device` into
// `reply`, offering *size bytes. On success *size becomes the driver's size;
// on failure it is left alone and a line describing the call goes to stdout.
IOReturn TalvexGetProperty(TalvexHandle *talvex, uint8_t device, uint64_t property, void *reply,
                           uint32_t *size);

// Method 14: writes `value` (low 32 bits) to property `property` (low 32 bits)
// of `device`. On failure a line describing the call goes to stdout.
IOReturn TalvexSetProperty(TalvexHandle *talvex, uint8_t device, uint64_t property, uint64_t value);

// Method 23: 72-byte request (first, second, 64 zero bytes), 82-byte reply.
IOReturn TalvexProfileQuery(TalvexHandle *talvex, uint32_t first, uint32_t second, void *reply);

// Method 28: one scalar.
IOReturn TalvexClockRedirect(TalvexHandle *talvex, uint64_t value);

// Method 30: 5-byte request (byte, unaligned 32-bit), 89-byte reply.
IOReturn TalvexClientList(TalvexHandle *talvex, uint8_t first, uint32_t second, void *reply);

// Method 34: reads `length` bytes (low 8 bits sent) from I2C target `address`
// on `port`, at register *reg, or with no register when reg is null.
IOReturn TalvexI2CRead(TalvexHandle *talvex, uint8_t port, uint8_t address, const uint8_t *reg, void *reply,
                       uint32_t length);

// Method 35: writes `length` bytes of `data`. length must not exceed 16; a
// larger one stops the process rather than overrun the request.
IOReturn TalvexI2CWrite(TalvexHandle *talvex, uint8_t port, uint8_t address, const uint8_t *reg,
                        const void *data, uint32_t length);

// Method 39: two scalars, the input structure, the output structure (its size
// in and out).
IOReturn TalvexPerfmonCall(TalvexHandle *talvex, uint32_t first, uint32_t second, const void *input,
                           size_t input_size, void *output, size_t *output_size);

// ---------------------------------------------------------------------------
// Coprocessor state.

struct TalvexStateName {
    const char *name;
    uint32_t value;
};

// "off" .. "panic", ended by a row with a null name.
extern const TalvexStateName kTalvexStateNames[];

// The name of a state value; "unknown" when no row has that value.
const char *TalvexStateNameFor(uint64_t value);

// Reads the driver's "talvex-state" property into *state (when state is not
// null). A missing or non-numeric property is reported and *state is left
// untouched; callers preset it to -1.
void TalvexReadState(TalvexHandle *talvex, int64_t *state);

// ---------------------------------------------------------------------------
// `monitor`: prints the current state, then one line per state change and
// time synchronisation, until the process is killed. Never returns unless the
// driver cannot be opened (then 1).
int TalvexMonitor(int argc, char *argv[]);

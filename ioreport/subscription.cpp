// Subscriptions through the report hub and sampling: the subscription object,
// the interest list, the hub connection, the buffer walk that cuts a hub
// buffer image into per-channel samples, and raw element access.
#include "internal.h"
#include "talvex_driver.h"

#include <dispatch/dispatch.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace ioreport;

namespace {

// A subscription: the object header, then the three fields.
struct SubscriptionObject {
    CFRuntimeBase base;
    uint64_t token;     // the hub's buffer token; the mapping's memory type
    uint64_t address;   // the mapped hub buffer
    uint64_t size;
};
constexpr CFIndex kSubscriptionFields = sizeof(SubscriptionObject) - sizeof(CFRuntimeBase);
static_assert(kSubscriptionFields == 24);

SubscriptionObject *fieldsOf(IOReportSubscriptionRef s) { return reinterpret_cast<SubscriptionObject *>(s); }

// The mapping lives until the process ends, so releasing a subscription has
// nothing to undo.
void finalizeSubscription(CFTypeRef) {}

const CFRuntimeClass kSubscriptionClass = {
    0, "IOReportSubscription", nullptr, nullptr, finalizeSubscription, nullptr, nullptr, nullptr, nullptr,
};

dispatch_once_t gClassOnce = 0;
CFTypeID gClassID = _kCFRuntimeNotATypeID;

// The process's hub connection: opened by the first subscription, never closed.
dispatch_once_t gHubOnce = 0;
io_connect_t gHub = 0;

IOReturn openHub(CFErrorRef *error) {
    if (gHub) return kIOReturnStillOpen;
    io_service_t hub = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("IOReportHub"));
    if (!hub) return kIOReturnNotFound;
    io_connect_t conn = 0;
    IOReturn rc = IOServiceOpen(hub, mach_task_self(), 0, &conn);
    if (rc != kIOReturnSuccess) {
        setError(error, rc, "Could not open IOReportHub");
    } else {
        rc = IOConnectCallScalarMethod(conn, kIOReportUserClientOpen, nullptr, 0, nullptr, nullptr);
        if (rc != kIOReturnSuccess) {
            setError(error, rc, "kIOReportUserClientOpen failed");
            IOServiceClose(conn);
        } else {
            gHub = conn;
        }
    }
    IOObjectRelease(hub);
    return rc;
}

// Interest list: u32 N, 4 unwritten bytes, then N entries of driver ID,
// channel ID and channel type.
constexpr int kMaxInterests = 89478478;   // 24 * N + 8 must fit in a signed 32-bit length

bool createInterestList(CFDictionaryRef channels, int count, std::vector<uint8_t> &list) {
    if (count < 0 || count >= kMaxInterests) return false;
    list.assign(24 * static_cast<size_t>(count) + 8, 0);
    wire::store_le32(list.data(), static_cast<uint32_t>(count));
    int written = 0;
    int r = IOReportIterate(channels, [&](CFMutableDictionaryRef channel) {
        uint64_t driver = IOReportChannelGetDriverID(channel);
        uint64_t id = IOReportChannelGetChannelID(channel);
        uint64_t type = 0;
        if (driver == kSentinel || id == kSentinel || getChannelType(channel, &type) != kIOReturnSuccess) return 1;
        if (written >= count) return 1;
        uint8_t *entry = list.data() + 8 + 24 * static_cast<size_t>(written);
        wire::store_le64(entry, driver);
        wire::store_le64(entry + 8, id);
        wire::store_le64(entry + 16, type);
        ++written;
        return 0;
    });
    return r == 0 && written == count;
}

}  // namespace

IOReportSubscriptionRef IOReportCreateSubscription(CFAllocatorRef allocator, CFMutableDictionaryRef desired,
                                                   CFMutableDictionaryRef *subscribed, uint64_t, CFErrorRef *error) {
    if (!desired || !subscribed) return nullptr;
    int count = IOReportGetChannelCount(desired);
    if (count < 0) {
        setError(error, kIOReturnBadArgument, "iteration error");
        return nullptr;
    }
    if (count == 0) {
        setError(error, kIOReturnBadArgument, "no channels");
        return nullptr;
    }
    std::vector<uint8_t> interests;
    if (!createInterestList(desired, count, interests)) {
        setError(error, kIOReturnNoMemory, "createInterestList() failed");
        return nullptr;
    }

    dispatch_once(&gClassOnce, [] { gClassID = _CFRuntimeRegisterClass(&kSubscriptionClass); });
    if (gClassID == _kCFRuntimeNotATypeID) return nullptr;
    CFRef<IOReportSubscriptionRef> sub(static_cast<IOReportSubscriptionRef>(
        const_cast<void *>(_CFRuntimeCreateInstance(allocator, gClassID, kSubscriptionFields, nullptr))));
    if (!sub) return nullptr;

    bool opened_now = false;
    IOReturn rc = kIOReturnSuccess;
    dispatch_once(&gHubOnce, [&] {
        opened_now = true;
        rc = openHub(error);
    });
    if (!opened_now && !gHub) rc = kIOReturnNotOpen;
    if (rc != kIOReturnSuccess) return nullptr;

    uint64_t token = 0;
    uint32_t outputs = 1;
    rc = IOConnectCallMethod(gHub, kIOReportUserClientConfigureInterests, nullptr, 0, interests.data(),
                             interests.size(), &token, &outputs, nullptr, nullptr);
    if (rc != kIOReturnSuccess) {
        setError(error, rc, "kIOReportUserClientConfigureInterests failed");
        return nullptr;
    }
    SubscriptionObject *f = fieldsOf(sub.get());
    f->token = token;
    mach_vm_address_t address = 0;
    mach_vm_size_t size = 0;
    rc = IOConnectMapMemory(gHub, static_cast<uint32_t>(token), mach_task_self(), &address, &size, kIOMapAnywhere);
    if (rc != kIOReturnSuccess) {
        setError(error, rc, "IOConnectMapMemory() failed");
        return nullptr;
    }
    f->address = address;
    f->size = size;

    *subscribed = cloneAggregate(desired, [](CFMutableDictionaryRef, CFMutableDictionaryRef) { return 0; });
    return sub.release();
}

IOReturn updateKernelBuffer(IOReportSubscriptionRef subscription, CFErrorRef *error) {
    if (!gHub) return kIOReturnNotOpen;
    if (!subscription) return kIOReturnBadArgument;
    uint64_t token = fieldsOf(subscription)->token;
    IOReturn rc = IOConnectCallMethod(gHub, kIOReportUserClientUpdateKernelBuffer, &token, 1, nullptr, 0, nullptr,
                                      nullptr, nullptr, nullptr);
    if (rc != kIOReturnSuccess) setError(error, rc, nullptr);
    return rc;
}

CFMutableDictionaryRef IOReportCreateSamples(IOReportSubscriptionRef subscription, CFMutableDictionaryRef subscribed,
                                             CFErrorRef *error) {
    if (!subscription || !subscribed) return nullptr;
    if (updateKernelBuffer(subscription, error) != kIOReturnSuccess) return nullptr;
    const SubscriptionObject *f = fieldsOf(subscription);
    CFRef<CFDataRef> wrapper(CFDataCreateWithBytesNoCopy(nullptr, reinterpret_cast<const uint8_t *>(f->address),
                                                           static_cast<CFIndex>(f->size), kCFAllocatorNull));
    if (!wrapper) return nullptr;
    return IOReportCreateSamplesRaw(subscribed, wrapper.get(), error);
}

// ---------------------------------------------------------------- the buffer walk

namespace {

// Where each channel's run starts in a hub buffer image, found in one pass.
//
// A channel is looked for by walking the buffer from its start one run at a
// time, taking the first run whose driver and channel IDs match. A run whose
// element count is 0 ends every walk that reaches it as a failure. A walk
// that finds nothing ends either exactly on the end of the buffer (the
// channel is left out of the sample) or past it because the last run claims
// more elements than remain (the copy is kept without elements). Every walk
// follows the same run boundaries, so one pass over the runs gives each
// walk's outcome: a key's first run before any zero-count run is found, and
// any other key ends the way the pass ended.
//
// The hub writes the runs in the order the channels were subscribed, and a
// sample asks for them in that order, so each lookup first tries the run
// after the previous match; only a key that is not there (or that repeats
// an earlier run's key) goes through the hash table. With 100,000 channels
// the lookups then read the buffer front to back instead of jumping around
// a table of several megabytes.
class RunIndex {
public:
    enum class End { Exact, Overshoot, ZeroCount };

    RunIndex(const uint8_t *bytes, size_t elements) : bytes_(bytes), elements_(elements) {
        size_t pos = 0;
        end_ = End::Exact;
        while (pos < elements) {
            uint16_t count = wire::load_le16(bytes + pos * kElementSize + kElemCount);
            if (count == 0) {
                end_ = End::ZeroCount;
                break;
            }
            runs_.push_back(pos);
            pos += count;
        }
        if (end_ == End::Exact && pos > elements) end_ = End::Overshoot;
        if (runs_.size() >= kMaxRuns) return;   // looked up by walking instead
        size_t capacity = 16;
        while (capacity < runs_.size() * 2) capacity *= 2;
        slots_.assign(capacity, 0);
        mask_ = capacity - 1;
        for (size_t r = 0; r < runs_.size(); ++r) {
            const uint8_t *e = element(runs_[r]);
            if (!insert(wire::load_le64(e + kElemDriverID), wire::load_le64(e + kElemChannelID), r)) runs_[r] |= kRepeat;
        }
    }

    // The start of the channel's run (in elements), or -1 when no walk finds it.
    long find(uint64_t driver, uint64_t channel) {
        size_t r = next_;
        if (r < runs_.size() && !(runs_[r] & kRepeat) && matches(runs_[r], driver, channel)) {
            next_ = r + 1;
            return static_cast<long>(runs_[r]);
        }
        r = slots_.empty() ? walk(driver, channel) : lookup(driver, channel);
        if (r == kNone) return -1;
        next_ = r + 1;
        return static_cast<long>(runs_[r] & ~kRepeat);
    }
    End end() const { return end_; }
    const uint8_t *element(size_t pos) const { return bytes_ + pos * kElementSize; }
    size_t elements() const { return elements_; }

private:
    // Run starts carry this bit when an earlier run has the same IDs.
    static constexpr size_t kRepeat = size_t{1} << (sizeof(size_t) * 8 - 1);
    static constexpr size_t kNone = ~size_t{0};
    // A slot holds a 32-bit tag of the IDs' hash and the run's number plus
    // one (0: empty), so the table stays at 8 bytes a run; runs beyond what
    // 32 bits can number are found by walking.
    static constexpr size_t kMaxRuns = UINT32_MAX;

    bool matches(size_t run_start, uint64_t driver, uint64_t channel) const {
        const uint8_t *e = element(run_start & ~kRepeat);
        return wire::load_le64(e + kElemDriverID) == driver && wire::load_le64(e + kElemChannelID) == channel;
    }
    static uint64_t hash(uint64_t driver, uint64_t channel) {
        uint64_t h = driver * 0x9E3779B97F4A7C15ull ^ (channel + 0x632BE59BD9B4E019ull + (driver << 6));
        h ^= h >> 29;
        h *= 0xBF58476D1CE4E5B9ull;
        h ^= h >> 32;
        return h;
    }
    // Adds run `r` unless an earlier run has the same IDs (false then).
    bool insert(uint64_t driver, uint64_t channel, size_t r) {
        uint64_t h = hash(driver, channel);
        uint64_t tag = h >> 32 << 32;
        for (size_t i = static_cast<size_t>(h) & mask_;; i = (i + 1) & mask_) {
            uint64_t s = slots_[i];
            if (s == 0) {
                slots_[i] = tag | (r + 1);
                return true;
            }
            if ((s & ~0xFFFFFFFFull) == tag && matches(runs_[(s & 0xFFFFFFFFull) - 1], driver, channel)) return false;
        }
    }
    size_t lookup(uint64_t driver, uint64_t channel) const {
        uint64_t h = hash(driver, channel);
        uint64_t tag = h >> 32 << 32;
        for (size_t i = static_cast<size_t>(h) & mask_;; i = (i + 1) & mask_) {
            uint64_t s = slots_[i];
            if (s == 0) return kNone;
            size_t r = (s & 0xFFFFFFFFull) - 1;
            if ((s & ~0xFFFFFFFFull) == tag && matches(runs_[r], driver, channel)) return r;
        }
    }
    size_t walk(uint64_t driver, uint64_t channel) const {
        for (size_t r = 0; r < runs_.size(); ++r)
            if (matches(runs_[r], driver, channel)) return r;
        return kNone;
    }

    const uint8_t *bytes_;
    size_t elements_;
    End end_;
    std::vector<size_t> runs_;
    std::vector<uint64_t> slots_;
    size_t mask_ = 0;
    size_t next_ = 0;
};

}  // namespace

CFMutableDictionaryRef IOReportCreateSamplesRaw(CFMutableDictionaryRef subscribed, CFDataRef buffer,
                                                CFErrorRef *error) {
    if (!subscribed || !isData(buffer) || CFDataGetLength(buffer) < static_cast<CFIndex>(kElementSize)) {
        setError(error, kIOReturnBadArgument, "couldn't create samples");
        return nullptr;
    }
    const uint8_t *bytes = CFDataGetBytePtr(buffer);
    RunIndex index(bytes, static_cast<size_t>(CFDataGetLength(buffer)) / kElementSize);
    IOReturn code = kIOReturnError;

    CFMutableDictionaryRef sample =
        cloneAggregate(subscribed, [&](CFMutableDictionaryRef channel, CFMutableDictionaryRef copy) {
            uint64_t id = 0, type = 0;
            const bool typed = getChannelIDAndType(channel, &id, &type);
            long pos = index.find(IOReportChannelGetDriverID(channel), id);
            if (pos < 0) {
                switch (index.end()) {
                case RunIndex::End::ZeroCount:
                    return 1;
                case RunIndex::End::Exact:
                    code = kIOReturnNotFound;
                    return kIOReportIterSkipped;
                case RunIndex::End::Overshoot:
                    return 0;
                }
            }
            const uint8_t *run = index.element(static_cast<size_t>(pos));
            size_t count = wire::load_le16(run + kElemCount);
            // A matching run that claims more elements than the buffer holds
            // has nothing trustworthy to copy: keep the copy without elements.
            if (static_cast<size_t>(pos) + count > index.elements()) return 0;
            if (!typed || typeFormat(type) == kIOReportInvalidFormat) {
                uint64_t found = wire::load_le64(run + kElemType);
                setChannelType(channel, &found);
            }
            // Room for the whole run up front: the bytes then sit in the data
            // object's own allocation.
            CFRef<CFMutableDataRef> elements(CFDataCreateMutable(nullptr, static_cast<CFIndex>(count * kElementSize)));
            if (!elements) return 1;
            CFDataAppendBytes(elements.get(), run, static_cast<CFIndex>(count * kElementSize));
            CFDictionarySetValue(copy, kRawElements(), elements.get());
            return 0;
        });
    if (!sample) setError(error, code, "couldn't create samples");
    return sample;
}

// ---------------------------------------------------------------- raw elements

uint8_t *getRawElements(CFDictionaryRef channel, uint16_t *count, uint8_t format) {
    if (!channel || !count) return nullptr;
    CFTypeRef v = CFDictionaryGetValue(channel, kRawElements());
    if (!isData(v)) return nullptr;
    CFDataRef data = static_cast<CFDataRef>(v);
    CFIndex length = CFDataGetLength(data);
    if (length < static_cast<CFIndex>(kElementSize)) return nullptr;
    // Element data that the library makes is always mutable, so the bytes
    // may be written (the deltas do); they are reached through the plain
    // byte pointer so a caller's immutable data can still be read.
    uint8_t *bytes = const_cast<uint8_t *>(CFDataGetBytePtr(data));
    if (!bytes || bytes[kElemType] != format) return nullptr;
    *count = static_cast<uint16_t>(static_cast<size_t>(length) / kElementSize);
    return bytes;
}

IOReturn cloneElements(CFMutableDictionaryRef destination, CFDictionaryRef source, uint32_t flags) {
    // The format is needed only to zero the value area.
    return cloneElements(destination, source, flags,
                         destination && (flags & 1) ? IOReportChannelGetFormat(destination) : 0);
}

IOReturn cloneElements(CFMutableDictionaryRef destination, CFDictionaryRef source, uint32_t flags, uint8_t format) {
    if (!destination || !source) return kIOReturnError;
    CFTypeRef v = CFDictionaryGetValue(source, kRawElements());
    if (!isData(v)) return kIOReturnError;
    CFRef<CFMutableDataRef> copy(CFDataCreateMutableCopy(nullptr, 0, static_cast<CFDataRef>(v)));
    if (!copy) return kIOReturnError;
    CFDictionarySetValue(destination, kRawElements(), copy.get());
    if (flags & 1) {
        // The elements just stored, checked as getRawElements checks them.
        size_t length = static_cast<size_t>(CFDataGetLength(copy.get()));
        uint8_t *bytes = CFDataGetMutableBytePtr(copy.get());
        if (length < kElementSize || bytes[kElemType] != format) return kIOReturnError;
        size_t count = static_cast<uint16_t>(length / kElementSize);
        for (size_t i = 0; i < count; ++i) std::memset(bytes + i * kElementSize + kElemValues, 0, 32);
    }
    return kIOReturnSuccess;
}

// TalvexLoadFirmware: method 2, the firmware boot request. With an image, the
// request carries the image's absolute path in a one-entry dictionary
// ("firmware-image-path"), serialised in the registry's XML form; the driver
// does the loading.
#include "talvex_client.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFSerialize.h>

#include <cstddef>

IOReturn TalvexLoadFirmware(TalvexHandle *talvex, const char *path, uint32_t number, uint32_t flags) {
    CFStringRef string = nullptr;
    CFURLRef url = nullptr;
    CFURLRef absUrl = nullptr;
    CFStringRef absPath = nullptr;
    CFDictionaryRef dictionary = nullptr;
    CFDataRef data = nullptr;
    const void *input = nullptr;
    size_t input_size = 0;
    uint64_t scalars[2] = {number, flags};
    IOReturn result = kIOReturnBadArgument;

    if (path) {
        string = CFStringCreateWithCString(kCFAllocatorDefault, path, kCFStringEncodingUTF8);
        if (string) url = CFURLCreateWithFileSystemPath(kCFAllocatorDefault, string, kCFURLPOSIXPathStyle, false);
        if (!url) {
            TALVEX_ASSERT_REPORT("url", "", 0);
            goto done;
        }
        // A relative path is taken relative to the current directory.
        absUrl = CFURLCopyAbsoluteURL(url);
        if (!absUrl) {
            TALVEX_ASSERT_REPORT("absUrl", "", 0);
            goto done;
        }
        absPath = CFURLCopyFileSystemPath(absUrl, kCFURLPOSIXPathStyle);
        if (absPath) {
            const void *keys[1] = {CFSTR("firmware-image-path")};
            const void *values[1] = {absPath};
            dictionary = CFDictionaryCreate(kCFAllocatorDefault, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                                            &kCFTypeDictionaryValueCallBacks);
        }
        if (dictionary) data = IOCFSerialize(dictionary, 0);
        if (!data) {
            TALVEX_ASSERT_REPORT("data", "", 0);
            goto done;
        }
        input = CFDataGetBytePtr(data);
        input_size = static_cast<size_t>(CFDataGetLength(data));
    }

    result = IOConnectCallMethod(talvex->connection, kTalvexMethodLoadFirmware, scalars, 2, input, input_size, nullptr,
                                 nullptr, nullptr, nullptr);
    TALVEX_CALL_OK(result);

done:
    if (data) CFRelease(data);
    if (dictionary) CFRelease(dictionary);
    if (absPath) CFRelease(absPath);
    if (absUrl) CFRelease(absUrl);
    if (url) CFRelease(url);
    if (string) CFRelease(string);
    return result;
}

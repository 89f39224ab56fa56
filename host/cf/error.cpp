// CFError: a domain, a code and a user-info dictionary.
#include "cf_internal.h"

#include <string>

struct __CFError {
    CFRuntimeBase base;
    CFStringRef domain;
    CFIndex code;
    CFDictionaryRef user_info;   // null when none was given
};

namespace cf {
namespace {

__CFString g_domain_mach = constant_string("NSMachErrorDomain");
__CFString g_domain_posix = constant_string("NSPOSIXErrorDomain");
__CFString g_description_key = constant_string("NSLocalizedDescription");

const __CFError *as_error(CFTypeRef cf, const char *function) { return cast<__CFError>(cf, kErrorTypeID, function); }

void error_finalize(CFTypeRef cf) {
    auto e = static_cast<const __CFError *>(cf);
    CFRelease(e->domain);
    if (e->user_info != nullptr) CFRelease(e->user_info);
}

Boolean error_equal(CFTypeRef x, CFTypeRef y) {
    auto a = static_cast<const __CFError *>(x);
    auto b = static_cast<const __CFError *>(y);
    if (a->code != b->code || !CFEqual(a->domain, b->domain)) return false;
    if (a->user_info == nullptr || b->user_info == nullptr) {
        CFIndex na = a->user_info == nullptr ? 0 : CFDictionaryGetCount(a->user_info);
        CFIndex nb = b->user_info == nullptr ? 0 : CFDictionaryGetCount(b->user_info);
        return na == 0 && nb == 0;
    }
    return CFEqual(a->user_info, b->user_info);
}

CFHashCode error_hash(CFTypeRef cf) {
    auto e = static_cast<const __CFError *>(cf);
    return static_cast<CFHashCode>(e->code) ^ CFHash(e->domain);
}

CFStringRef error_description(CFTypeRef cf) {
    auto e = static_cast<const __CFError *>(cf);
    CFStringRef text = CFErrorCopyDescription(const_cast<CFErrorRef>(static_cast<const __CFError *>(e)));
    if (text == nullptr) return nullptr;
    CFStringRef desc = CFStringCreateWithFormat(nullptr, nullptr, CFSTR("Error Domain=%@ Code=%ld \"%@\""), e->domain,
                                                e->code, text);
    CFRelease(text);
    return desc;
}

}  // namespace

const CFRuntimeClass kErrorClass = {0, "CFError", nullptr, nullptr, error_finalize, error_equal, error_hash, nullptr,
                                    error_description};

}  // namespace cf

using namespace cf;

const CFErrorDomain kCFErrorDomainMach = &cf::g_domain_mach;
const CFErrorDomain kCFErrorDomainPOSIX = &cf::g_domain_posix;
const CFStringRef kCFErrorDescriptionKey = &cf::g_description_key;

CFTypeID CFErrorGetTypeID(void) { return kErrorTypeID; }

// The user-info dictionary is copied, so later changes by the caller do not show.
CFErrorRef CFErrorCreate(CFAllocatorRef, CFErrorDomain domain, CFIndex code, CFDictionaryRef user_info) {
    if (cast<__CFString>(domain, kStringTypeID, "CFErrorCreate") == nullptr) return nullptr;
    cast<__CFDictionary>(user_info, kDictionaryTypeID, "CFErrorCreate");
    CFStringRef domain_copy = CFStringCreateCopy(nullptr, domain);
    if (domain_copy == nullptr) return nullptr;
    CFDictionaryRef info_copy = nullptr;
    if (user_info != nullptr && (info_copy = CFDictionaryCreateCopy(nullptr, user_info)) == nullptr) {
        CFRelease(domain_copy);
        return nullptr;
    }
    __CFError *e = make_object<__CFError>(kErrorTypeID);
    if (e == nullptr) {
        CFRelease(domain_copy);
        if (info_copy != nullptr) CFRelease(info_copy);
        return nullptr;
    }
    e->domain = domain_copy;
    e->code = code;
    e->user_info = info_copy;
    return e;
}

CFErrorDomain CFErrorGetDomain(CFErrorRef err) {
    const __CFError *e = as_error(err, "CFErrorGetDomain");
    return e == nullptr ? nullptr : e->domain;
}

CFIndex CFErrorGetCode(CFErrorRef err) {
    const __CFError *e = as_error(err, "CFErrorGetCode");
    return e == nullptr ? 0 : e->code;
}

CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err) {
    const __CFError *e = as_error(err, "CFErrorCopyUserInfo");
    if (e == nullptr) return nullptr;
    if (e->user_info != nullptr) return static_cast<CFDictionaryRef>(CFRetain(e->user_info));
    return CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                              &kCFTypeDictionaryValueCallBacks);
}

CFStringRef CFErrorCopyDescription(CFErrorRef err) {
    const __CFError *e = as_error(err, "CFErrorCopyDescription");
    if (e == nullptr) return nullptr;
    if (e->user_info != nullptr) {
        CFTypeRef text = CFDictionaryGetValue(e->user_info, kCFErrorDescriptionKey);
        if (text != nullptr && CFGetTypeID(text) == kStringTypeID) return static_cast<CFStringRef>(CFRetain(text));
    }
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("The operation couldn\u2019t be completed. (%@ error %ld.)"),
                                    e->domain, e->code);
}

// CoreFoundation subset: reference-counted property-list objects, errors, file
// URLs and runtime class registration, under the platform's own names.
//
// Ownership follows the platform rule: functions with Create or Copy in their
// name return an object the caller owns (release it with CFRelease); Get
// functions return a borrowed reference. Nothing here throws; allocation
// failure yields a null result.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>



// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

typedef unsigned char Boolean;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFHashCode;
typedef unsigned long CFOptionFlags;
typedef const void *CFTypeRef;

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;
inline CFRange CFRangeMake(CFIndex loc, CFIndex len) { return CFRange{loc, len}; }

typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFNumber *CFNumberRef;
typedef const struct __CFBoolean *CFBooleanRef;
typedef const struct __CFData *CFDataRef;
typedef struct __CFData *CFMutableDataRef;
typedef const struct __CFArray *CFArrayRef;
typedef struct __CFArray *CFMutableArrayRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;
typedef struct __CFError *CFErrorRef;
typedef const struct __CFURL *CFURLRef;

// ---------------------------------------------------------------- base
// kCFAllocatorDefault (null) allocates from the heap. kCFAllocatorNull, as the
// deallocator of a no-copy CFData, means "never free the bytes".
// kCFAllocatorMalloc as a deallocator frees the bytes with free().
extern const CFAllocatorRef kCFAllocatorDefault;
extern const CFAllocatorRef kCFAllocatorNull;
extern const CFAllocatorRef kCFAllocatorMalloc;

CFTypeRef CFRetain(CFTypeRef cf);                 // null is a fatal misuse, as on the platform
void CFRelease(CFTypeRef cf);                     // null is a fatal misuse, as on the platform
CFIndex CFGetRetainCount(CFTypeRef cf);
CFTypeID CFGetTypeID(CFTypeRef cf);
Boolean CFEqual(CFTypeRef a, CFTypeRef b);        // value equality for property-list types
CFHashCode CFHash(CFTypeRef cf);                  // equal objects hash equally
CFStringRef CFCopyDescription(CFTypeRef cf);      // a string's description is its text
CFStringRef CFCopyTypeIDDescription(CFTypeID type_id);
void CFShow(CFTypeRef obj);                       // description to standard error

// ---------------------------------------------------------------- CFString
typedef uint32_t CFStringEncoding;
enum : CFStringEncoding {
    kCFStringEncodingASCII = 0x0600,
    kCFStringEncodingUTF8 = 0x08000100,
};
enum { kCFNotFound = -1 };
typedef CFIndex CFComparisonResult;
enum : CFIndex { kCFCompareLessThan = -1, kCFCompareEqualTo = 0, kCFCompareGreaterThan = 1 };

CFTypeID CFStringGetTypeID(void);
// Constant strings: an immortal, interned string (CFRetain/CFRelease are no-ops).
CFStringRef __CFStringMakeConstantString(const char *cstr);
#define CFSTR(cstr) __CFStringMakeConstantString("" cstr "")

// Null when the bytes are not valid in the encoding (ASCII accepts 0x00-0x7f).
CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char *cstr, CFStringEncoding encoding);
CFStringRef CFStringCreateWithBytes(CFAllocatorRef alloc, const uint8_t *bytes, CFIndex num_bytes,
                                    CFStringEncoding encoding, Boolean is_external_representation);
CFStringRef CFStringCreateCopy(CFAllocatorRef alloc, CFStringRef str);
// printf conversions (flags, width, precision, length modifiers h hh l ll z j t L,
// conversions d i u o x X c s p f F e E g G a A %) plus %@: the description of a
// CF object argument, "(null)" for a null argument.
CFStringRef CFStringCreateWithFormat(CFAllocatorRef alloc, CFDictionaryRef format_options,
                                     CFStringRef format, ...);
CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef alloc, CFDictionaryRef format_options,
                                                 CFStringRef format, va_list arguments);
CFMutableStringRef CFStringCreateMutable(CFAllocatorRef alloc, CFIndex max_length);  // 0: unbounded
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef alloc, CFIndex max_length, CFStringRef str);
void CFStringAppend(CFMutableStringRef str, CFStringRef appended);
void CFStringAppendCString(CFMutableStringRef str, const char *cstr, CFStringEncoding encoding);
void CFStringAppendFormat(CFMutableStringRef str, CFDictionaryRef format_options, CFStringRef format, ...);
void CFStringAppendFormatAndArguments(CFMutableStringRef str, CFDictionaryRef format_options,
                                      CFStringRef format, va_list arguments);
// Length in UTF-16 code units, as on the platform.
CFIndex CFStringGetLength(CFStringRef str);
// The internal NUL-terminated bytes when they are valid in the encoding
// (UTF-8 always; ASCII only for pure-ASCII text), else null.
const char *CFStringGetCStringPtr(CFStringRef str, CFStringEncoding encoding);
// Copies the text with its NUL; false when it does not fit or cannot be encoded.
Boolean CFStringGetCString(CFStringRef str, char *buffer, CFIndex buffer_size, CFStringEncoding encoding);
// Worst-case bytes for `length` UTF-16 units: 3 per unit for UTF-8, 1 for ASCII.
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
CFComparisonResult CFStringCompare(CFStringRef a, CFStringRef b, CFOptionFlags options);
Boolean CFStringHasPrefix(CFStringRef str, CFStringRef prefix);

// ---------------------------------------------------------------- CFNumber
typedef CFIndex CFNumberType;
enum : CFIndex {
    kCFNumberSInt8Type = 1,
    kCFNumberSInt16Type,
    kCFNumberSInt32Type,
    kCFNumberSInt64Type,
    kCFNumberFloat32Type,
    kCFNumberFloat64Type,
    kCFNumberCharType,
    kCFNumberShortType,
    kCFNumberIntType,
    kCFNumberLongType,
    kCFNumberLongLongType,
    kCFNumberFloatType,
    kCFNumberDoubleType,
    kCFNumberCFIndexType,
    kCFNumberNSIntegerType,
    kCFNumberCGFloatType,
    kCFNumberMaxType = kCFNumberCGFloatType
};
CFTypeID CFNumberGetTypeID(void);
CFNumberRef CFNumberCreate(CFAllocatorRef alloc, CFNumberType type, const void *value_ptr);
CFNumberType CFNumberGetType(CFNumberRef number);   // the type it was created with
CFIndex CFNumberGetByteSize(CFNumberRef number);
Boolean CFNumberIsFloatType(CFNumberRef number);
// Converts to the asked type; false when the conversion lost information.
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value_ptr);
CFComparisonResult CFNumberCompare(CFNumberRef a, CFNumberRef b, void *context);

// ---------------------------------------------------------------- CFBoolean
CFTypeID CFBooleanGetTypeID(void);
extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
Boolean CFBooleanGetValue(CFBooleanRef boolean);

// ---------------------------------------------------------------- CFData
CFTypeID CFDataGetTypeID(void);
CFDataRef CFDataCreate(CFAllocatorRef alloc, const uint8_t *bytes, CFIndex length);
// Wraps the bytes without copying them; bytes_deallocator decides who frees
// them: kCFAllocatorNull never, kCFAllocatorMalloc/kCFAllocatorDefault free().
CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef alloc, const uint8_t *bytes, CFIndex length,
                                      CFAllocatorRef bytes_deallocator);
CFDataRef CFDataCreateCopy(CFAllocatorRef alloc, CFDataRef data);
CFMutableDataRef CFDataCreateMutable(CFAllocatorRef alloc, CFIndex capacity);   // 0: unbounded
CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef alloc, CFIndex capacity, CFDataRef data);
CFIndex CFDataGetLength(CFDataRef data);
const uint8_t *CFDataGetBytePtr(CFDataRef data);
uint8_t *CFDataGetMutableBytePtr(CFMutableDataRef data);
void CFDataGetBytes(CFDataRef data, CFRange range, uint8_t *buffer);
void CFDataSetLength(CFMutableDataRef data, CFIndex length);        // new bytes are zero
void CFDataIncreaseLength(CFMutableDataRef data, CFIndex extra_length);
void CFDataAppendBytes(CFMutableDataRef data, const uint8_t *bytes, CFIndex length);
void CFDataReplaceBytes(CFMutableDataRef data, CFRange range, const uint8_t *new_bytes, CFIndex new_length);

// ---------------------------------------------------------------- CFArray
// Only two kinds of callbacks exist here: &kCFTypeArrayCallBacks (values are CF
// objects, retained and released, compared with CFEqual) and null (values are
// plain pointers, neither retained nor released, compared by identity).
typedef const void *(*CFArrayRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFArrayReleaseCallBack)(CFAllocatorRef allocator, const void *value);
typedef CFStringRef (*CFArrayCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFArrayEqualCallBack)(const void *value1, const void *value2);
typedef struct {
    CFIndex version;
    CFArrayRetainCallBack retain;
    CFArrayReleaseCallBack release;
    CFArrayCopyDescriptionCallBack copyDescription;
    CFArrayEqualCallBack equal;
} CFArrayCallBacks;
extern const CFArrayCallBacks kCFTypeArrayCallBacks;
typedef void (*CFArrayApplierFunction)(const void *value, void *context);

CFTypeID CFArrayGetTypeID(void);
CFArrayRef CFArrayCreate(CFAllocatorRef alloc, const void **values, CFIndex num_values,
                         const CFArrayCallBacks *callbacks);
CFArrayRef CFArrayCreateCopy(CFAllocatorRef alloc, CFArrayRef array);
CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef alloc, CFIndex capacity, const CFArrayCallBacks *callbacks);
CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef alloc, CFIndex capacity, CFArrayRef array);
CFIndex CFArrayGetCount(CFArrayRef array);
const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);   // index out of range: fatal misuse
void CFArrayGetValues(CFArrayRef array, CFRange range, const void **values);
Boolean CFArrayContainsValue(CFArrayRef array, CFRange range, const void *value);
CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef array, CFRange range, const void *value);
void CFArrayAppendValue(CFMutableArrayRef array, const void *value);
void CFArrayInsertValueAtIndex(CFMutableArrayRef array, CFIndex index, const void *value);
void CFArraySetValueAtIndex(CFMutableArrayRef array, CFIndex index, const void *value);
void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index);
void CFArrayRemoveAllValues(CFMutableArrayRef array);
void CFArrayAppendArray(CFMutableArrayRef array, CFArrayRef other, CFRange other_range);
void CFArrayApplyFunction(CFArrayRef array, CFRange range, CFArrayApplierFunction applier, void *context);

// ---------------------------------------------------------------- CFDictionary
// Keys and values follow the same two kinds of callbacks as CFArray (the
// kCFType callbacks, or null for plain pointers). Dictionaries keep insertion
// order: iteration, apply functions, descriptions and serialisation all visit
// entries in the order they were first added. Lookups are hashed.
typedef const void *(*CFDictionaryRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef allocator, const void *value);
typedef CFStringRef (*CFDictionaryCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void *value1, const void *value2);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void *value);
typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack retain;
    CFDictionaryReleaseCallBack release;
    CFDictionaryCopyDescriptionCallBack copyDescription;
    CFDictionaryEqualCallBack equal;
} CFDictionaryValueCallBacks;
// Keys take the value callbacks and a hash.
struct CFDictionaryKeyCallBacks : CFDictionaryValueCallBacks {
    CFDictionaryHashCallBack hash;
};
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;
typedef void (*CFDictionaryApplierFunction)(const void *key, const void *value, void *context);

CFTypeID CFDictionaryGetTypeID(void);
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef alloc, const void **keys, const void **values, CFIndex num_values,
                                   const CFDictionaryKeyCallBacks *key_callbacks,
                                   const CFDictionaryValueCallBacks *value_callbacks);
CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef alloc, CFDictionaryRef dict);
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef alloc, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *key_callbacks,
                                                 const CFDictionaryValueCallBacks *value_callbacks);
CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef alloc, CFIndex capacity, CFDictionaryRef dict);
CFIndex CFDictionaryGetCount(CFDictionaryRef dict);
const void *CFDictionaryGetValue(CFDictionaryRef dict, const void *key);
Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef dict, const void *key, const void **value);
Boolean CFDictionaryContainsKey(CFDictionaryRef dict, const void *key);
void CFDictionaryGetKeysAndValues(CFDictionaryRef dict, const void **keys, const void **values);
void CFDictionaryAddValue(CFMutableDictionaryRef dict, const void *key, const void *value);     // only if absent
void CFDictionarySetValue(CFMutableDictionaryRef dict, const void *key, const void *value);     // add or replace in place
void CFDictionaryReplaceValue(CFMutableDictionaryRef dict, const void *key, const void *value); // only if present
void CFDictionaryRemoveValue(CFMutableDictionaryRef dict, const void *key);
void CFDictionaryRemoveAllValues(CFMutableDictionaryRef dict);
void CFDictionaryApplyFunction(CFDictionaryRef dict, CFDictionaryApplierFunction applier, void *context);

// ---------------------------------------------------------------- CFError
typedef CFStringRef CFErrorDomain;
extern const CFErrorDomain kCFErrorDomainMach;
extern const CFErrorDomain kCFErrorDomainPOSIX;
extern const CFStringRef kCFErrorDescriptionKey;
CFTypeID CFErrorGetTypeID(void);
CFErrorRef CFErrorCreate(CFAllocatorRef alloc, CFErrorDomain domain, CFIndex code, CFDictionaryRef user_info);
CFErrorDomain CFErrorGetDomain(CFErrorRef err);
CFIndex CFErrorGetCode(CFErrorRef err);
CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err);     // never null: an empty dictionary when none
CFStringRef CFErrorCopyDescription(CFErrorRef err);      // kCFErrorDescriptionKey if present

// ---------------------------------------------------------------- CFURL (POSIX file paths)
typedef CFIndex CFURLPathStyle;
enum : CFIndex { kCFURLPOSIXPathStyle = 0 };
CFTypeID CFURLGetTypeID(void);
// A relative path is kept relative to the current directory at creation time.
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef alloc, CFStringRef file_path, CFURLPathStyle path_style,
                                       Boolean is_directory);
CFURLRef CFURLCopyAbsoluteURL(CFURLRef url);
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle path_style);

// ---------------------------------------------------------------- runtime classes
// Every object starts with this header; a registered class's fields follow it.
typedef struct __CFRuntimeBase {
    uintptr_t _cfisa;
    uint64_t _cfinfoa;
} CFRuntimeBase;

typedef struct __CFRuntimeClass {
    CFIndex version;
    const char *className;
    void (*init)(CFTypeRef cf);
    CFTypeRef (*copy)(CFAllocatorRef allocator, CFTypeRef cf);
    void (*finalize)(CFTypeRef cf);
    Boolean (*equal)(CFTypeRef cf1, CFTypeRef cf2);
    CFHashCode (*hash)(CFTypeRef cf);
    CFStringRef (*copyFormattingDesc)(CFTypeRef cf, CFDictionaryRef format_options);
    CFStringRef (*copyDebugDesc)(CFTypeRef cf);
} CFRuntimeClass;

enum : CFTypeID { _kCFRuntimeNotATypeID = 0 };
// Registers a class; returns its type ID, or _kCFRuntimeNotATypeID on failure.
// The class record must outlive the process.
CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls);
// A zero-filled instance of the class with extra_bytes of fields after the
// header (retain count 1); null on failure. `category` is unused.
CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef allocator, CFTypeID type_id, CFIndex extra_bytes,
                                   unsigned char *category);

#pragma GCC visibility pop

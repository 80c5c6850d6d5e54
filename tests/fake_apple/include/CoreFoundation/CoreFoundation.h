// Linux test build only: the part of CoreFoundation that the macOS collector calls, declared with
// the framework's own names, signatures and type widths. Implemented by ../../fake_machine.cpp.
#pragma once

#include <cstdint>

extern "C" {

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef uint32_t UInt32;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef const void* CFTypeRef;
typedef UInt32 CFStringEncoding;

typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;
typedef const struct __CFNumber* CFNumberRef;
typedef const struct __CFData* CFDataRef;

// What CF_ENUM(type, name) declares in C++: an enumeration with that underlying type.
typedef enum CFStringBuiltInEncodings : CFStringEncoding {
    kCFStringEncodingUTF8 = 0x08000100
} CFStringBuiltInEncodings;
typedef enum CFNumberType : CFIndex { kCFNumberSInt32Type = 3, kCFNumberSInt64Type = 4 } CFNumberType;

extern const CFAllocatorRef kCFAllocatorDefault;

// As with the real framework, CFSTR yields a constant string that must never be released.
CFStringRef __CFStringMakeConstantString(const char* cStr);
#define CFSTR(cStr) __CFStringMakeConstantString("" cStr "")

CFTypeID CFGetTypeID(CFTypeRef cf);
void CFRelease(CFTypeRef cf);

CFTypeID CFStringGetTypeID(void);
CFIndex CFStringGetLength(CFStringRef theString);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize, CFStringEncoding encoding);

CFIndex CFArrayGetCount(CFArrayRef theArray);
const void* CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx);

CFTypeID CFDictionaryGetTypeID(void);
CFIndex CFDictionaryGetCount(CFDictionaryRef theDict);
const void* CFDictionaryGetValue(CFDictionaryRef theDict, const void* key);
void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void** keys, const void** values);

CFTypeID CFNumberGetTypeID(void);
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr);

CFTypeID CFDataGetTypeID(void);
const UInt8* CFDataGetBytePtr(CFDataRef theData);
CFIndex CFDataGetLength(CFDataRef theData);

CFArrayRef CFLocaleCopyPreferredLanguages(void);

}  // extern "C"

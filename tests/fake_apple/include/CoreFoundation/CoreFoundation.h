// Linux test build only: the part of CoreFoundation that the macOS collector calls, with the framework's own names,
// signatures and type widths, answering from the machine a test installed (fake_machine.h).
#pragma once

#include "fake_machine.h"

#include <QString>

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef const void* CFTypeRef;
typedef uint32_t CFStringEncoding;

typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;
typedef const struct __CFNumber* CFNumberRef;
typedef const struct __CFData* CFDataRef;

// What CF_ENUM(type, name) declares in C++: an enumeration with that underlying type.
enum CFStringBuiltInEncodings : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };
enum CFNumberType : CFIndex { kCFNumberSInt32Type = 3, kCFNumberSInt64Type = 4 };

inline const CFAllocatorRef kCFAllocatorDefault = nullptr;

// As with the real framework, CFSTR yields a constant string that must never be released: one per use and thread.
#define CFSTR(cStr)                                                                                                    \
    ([] {                                                                                                              \
        thread_local fake::value s("" cStr "");                                                                        \
        return reinterpret_cast<CFStringRef>(&s);                                                                      \
    }())

inline CFTypeID CFGetTypeID(CFTypeRef cf) { return fake::as(cf).type; }
inline void CFRelease(CFTypeRef cf) { delete fake::release(fake::as(cf)); }

inline CFTypeID CFStringGetTypeID(void) { return fake::cf_string; }
inline CFIndex CFStringGetLength(CFStringRef s) { return QString::fromStdString(fake::as(s).bytes).size(); }  // UTF-16
inline CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) { return length * 3; }     // UTF-8

inline Boolean CFStringGetCString(CFStringRef s, char* buffer, CFIndex bufferSize, CFStringEncoding)
{
    return CFIndex(fake::as(s).bytes.size()) < bufferSize && std::strcpy(buffer, fake::as(s).bytes.c_str());
}

inline CFIndex CFArrayGetCount(CFArrayRef a) { return CFIndex(fake::as(a).members.size()); }
inline const void* CFArrayGetValueAtIndex(CFArrayRef a, CFIndex i) { return &fake::as(a).members.at(size_t(i)); }

inline CFTypeID CFDictionaryGetTypeID(void) { return fake::cf_dictionary; }
inline CFIndex CFDictionaryGetCount(CFDictionaryRef d) { return CFIndex(fake::as(d).members.size() / 2); }

inline const void* CFDictionaryGetValue(CFDictionaryRef d, const void* key)
{
    auto& items = fake::as(d).members;
    for (size_t i = 0; i < items.size(); i += 2)
        if (items[i].bytes == fake::as(key).bytes)
            return &items[i + 1];
    return nullptr;
}

inline void CFDictionaryGetKeysAndValues(CFDictionaryRef d, const void** keys, const void** values)
{
    auto& items = fake::as(d).members;  // keys and values in turn
    for (size_t i = 0; i < items.size(); ++i)
        *(i % 2 ? values++ : keys++) = &items[i];
}

inline CFTypeID CFNumberGetTypeID(void) { return fake::cf_number; }

inline Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr)
{
    std::memcpy(valuePtr, &fake::as(number).number, theType == kCFNumberSInt64Type ? 8 : 4);  // SInt32: the low half
    return theType == kCFNumberSInt64Type || int32_t(fake::as(number).number) == fake::as(number).number;
}

inline CFTypeID CFDataGetTypeID(void) { return fake::cf_data; }
inline const UInt8* CFDataGetBytePtr(CFDataRef d) { return reinterpret_cast<const UInt8*>(fake::as(d).bytes.data()); }
inline CFIndex CFDataGetLength(CFDataRef d) { return CFIndex(fake::as(d).bytes.size()); }

inline CFArrayRef CFLocaleCopyPreferredLanguages(void)
{
    return fake::installed.preferredLanguages ? fake::create<CFArrayRef>(*fake::installed.preferredLanguages) : nullptr;
}

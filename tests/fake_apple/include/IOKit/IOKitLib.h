// Linux test build only: the IOKit registry calls that the macOS collector uses, with the
// framework's signatures. Implemented by ../../fake_machine.cpp.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <mach/mach.h>

extern "C" {

typedef mach_port_t io_object_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef io_object_t io_service_t;
typedef char io_name_t[128];
typedef UInt32 IOOptionBits;

#define kIOServicePlane "IOService"
enum { kIORegistryIterateRecursively = 0x00000001, kIORegistryIterateParents = 0x00000002 };

// Deprecated from macOS 12 on, for kIOMainPortDefault. Apple's compiler announces the deployment
// target; a build that sets none targets the SDK's own version (14.2).
#if !defined(__ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__) || \
    __ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__ >= 120000
__attribute__((deprecated("use kIOMainPortDefault")))
#endif
extern const mach_port_t kIOMasterPortDefault;

CFMutableDictionaryRef IOServiceMatching(const char* name);
// Consumes one reference of `matching`, whatever the outcome; *existing is 0 when nothing matches.
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching, io_iterator_t* existing);
io_object_t IOIteratorNext(io_iterator_t iterator);
kern_return_t IOObjectRelease(io_object_t object);
kern_return_t IOObjectGetClass(io_object_t object, io_name_t className);
CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key,
                                          CFAllocatorRef allocator, IOOptionBits options);
CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane,
                                          CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits options);

}  // extern "C"

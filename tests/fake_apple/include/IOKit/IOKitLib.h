// Linux test build only: the IOKit registry calls that the macOS collector uses, with the framework's signatures,
// answering from the machine a test installed (fake_machine.h).
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <mach/mach.h>

typedef mach_port_t io_object_t;
typedef io_object_t io_iterator_t, io_registry_entry_t, io_service_t;
typedef char io_name_t[128];
typedef uint32_t IOOptionBits;

#define kIOServicePlane "IOService"
enum { kIORegistryIterateRecursively = 0x00000001, kIORegistryIterateParents = 0x00000002 };

// Deprecated from macOS 12 on, for kIOMainPortDefault. Apple's compiler announces the deployment target; a build that
// sets none targets the SDK's own version (14.2).
#if !defined(__ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__) || __ENVIRONMENT_MAC_OS_X_VERSION_MIN_REQUIRED__ >= 120000
__attribute__((deprecated("use kIOMainPortDefault")))
#endif
inline const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;

inline CFMutableDictionaryRef IOServiceMatching(const char* name)
{
    return fake::create<CFMutableDictionaryRef>({fake::cf_dictionary, 0, {"IOProviderClass", name}});
}

// Consumes one reference of `matching`, whatever the outcome; *existing is the null iterator when nothing matches.
inline kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t* existing)
{
    const std::string name = fake::as(CFDictionaryGetValue(matching, CFSTR("IOProviderClass"))).bytes;
    CFRelease(matching);
    fake::value found(fake::io_object);
    for (const auto& entry : fake::installed.registry)
        if (std::count(entry.classes.begin(), entry.classes.end(), name))
            found.members.push_back({fake::io_object, &entry - fake::installed.registry.data()});
    *existing = found.members.empty() ? MACH_PORT_NULL : fake::createIO(found);
    return KERN_SUCCESS;
}

inline io_object_t IOIteratorNext(io_iterator_t iterator)  // the null iterator is empty
{
    fake::value* it = iterator == MACH_PORT_NULL ? nullptr : &fake::io(iterator);
    return it && size_t(it->number) < it->members.size() ? fake::createIO(it->members[it->number++]) : MACH_PORT_NULL;
}

inline kern_return_t IOObjectRelease(io_object_t object)
{
    if (object != MACH_PORT_NULL)  // releasing the null object is harmless
        fake::release(fake::io(object))->type = 0;
    return KERN_SUCCESS;
}

inline kern_return_t IOObjectGetClass(io_object_t object, io_name_t className)
{
    const std::string& name = fake::installed.registry.at(size_t(fake::io(object).number)).classes[0];
    className[name.copy(className, sizeof(io_name_t) - 1)] = '\0';
    return name.empty() ? kern_return_t(0xe00002bc) : KERN_SUCCESS;  // kIOReturnError
}

// A property of the entry or, searched recursively and upwards (both bits), of its nearest ancestor with one.
inline CFTypeRef IORegistryEntrySearchCFProperty(
    io_registry_entry_t entry, const io_name_t plane, CFStringRef key, CFAllocatorRef, IOOptionBits options)
{
    const auto& registry = fake::installed.registry;
    const IOOptionBits upwards = kIORegistryIterateRecursively | kIORegistryIterateParents;
    for (auto i = size_t(fake::io(entry).number); std::strcmp(plane, kIOServicePlane) == 0 && i < registry.size();
         i = (options & upwards) == upwards ? size_t(registry[i].parent) : SIZE_MAX)
        if (registry[i].properties.count(fake::as(key).bytes))
            return fake::create<CFTypeRef>(registry[i].properties.at(fake::as(key).bytes));
    return nullptr;
}

inline CFTypeRef IORegistryEntryCreateCFProperty(
    io_registry_entry_t entry, CFStringRef key, CFAllocatorRef, IOOptionBits)
{
    return IORegistryEntrySearchCFProperty(entry, kIOServicePlane, key, kCFAllocatorDefault, 0);  // the entry's own
}

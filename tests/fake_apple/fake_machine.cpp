// The fake frameworks behind include/: every call reads the installed machine, and every object
// handed out is tracked until it is released, so that tests can prove the collector's ownership.
#include "fake_machine.h"

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/graphics/IOGraphicsLib.h>
#include <mach/mach.h>
#include <sys/sysctl.h>

#include <QString>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

static_assert(sizeof(CFIndex) == 8 && CFIndex(-1) < 0, "CFIndex is a signed long");
static_assert(sizeof(CGDirectDisplayID) == 4, "CGDirectDisplayID is 32 bits");
static_assert(sizeof(io_object_t) == 4, "io_object_t is a mach port name");
static_assert(sizeof(vm_statistics64_data_t) == 160 && HOST_VM_INFO64_COUNT == 40,
              "vm_statistics64 as in the current SDK");

namespace {

enum : CFTypeID {
    string_type = 7,
    dictionary_type = 18,
    array_type = 19,
    data_type = 20,
    number_type = 22,
    display_mode_type = 268,
};

struct object {
    CFTypeID type;
    long refs = 1;
    std::string text;
    int64_t number = 0;
    QByteArray bytes;
    std::vector<std::unique_ptr<object>> items;  // array elements; dictionary key, value, key, ...
    size_t modeWidth = 0, modePixelWidth = 0;
};

struct io_handle {
    bool iterator = false;
    int entry = -1;            // services
    std::vector<int> matches;  // iterators
    size_t next = 0;
};

constexpr mach_port_t host_port = 0x103;
constexpr io_service_t first_display_port = 0x5000;
constexpr kern_return_t kIOReturnError = kern_return_t(0xe00002bc);
constexpr kern_return_t kIOReturnBadArgument = kern_return_t(0xe00002c2);

std::mutex mutex;
fake_apple::machine current;
fake_apple::ledger_t book;
std::set<const object*> existing;  // every object alive, constants and container members included
std::map<const object*, std::unique_ptr<object>> handed_out;
std::map<std::string, std::unique_ptr<object>> constants;
std::map<io_object_t, io_handle> handles;
io_object_t next_handle = 0x2000;

void fail(const QString& what) { book.errors << what; }

void forget(const object* o)
{
    existing.erase(o);
    for (const auto& item : o->items)
        forget(item.get());
}

std::unique_ptr<object> make(CFTypeID type)
{
    auto o = std::make_unique<object>();
    o->type = type;
    existing.insert(o.get());
    return o;
}

std::unique_ptr<object> make_string(const std::string& text)
{
    auto o = make(string_type);
    o->text = text;
    return o;
}

std::unique_ptr<object> make_property(const fake_apple::property& p)
{
    if (const auto* n = std::get_if<int64_t>(&p)) {
        auto o = make(number_type);
        o->number = *n;
        return o;
    }
    if (const auto* d = std::get_if<fake_apple::cf_data>(&p)) {
        auto o = make(data_type);
        o->bytes = d->bytes;
        return o;
    }
    return make_string(std::get<std::string>(p));
}

enum rule { created, copied };

// Hands an object to the collector, which now owns one reference.
const void* hand_out(std::unique_ptr<object> o, rule how)
{
    const object* raw = o.get();
    handed_out.emplace(raw, std::move(o));
    ++(how == created ? book.cfCreated : book.cfCopied);
    return raw;
}

const object* checked(const void* ref, CFTypeID type, const char* function)
{
    const auto* o = static_cast<const object*>(ref);
    if (!o || !existing.count(o)) {
        fail(QString("%1: null or released object").arg(function));
        return nullptr;
    }
    if (type != 0 && o->type != type) {
        fail(QString("%1: object of type %2").arg(function).arg(o->type));
        return nullptr;
    }
    return o;
}

void release(const void* ref, const char* function)
{
    const auto* o = static_cast<const object*>(ref);
    if (!o) {
        fail(QString("%1(NULL)").arg(function));
        return;
    }
    const auto owned = handed_out.find(o);
    if (owned == handed_out.end()) {
        fail(existing.count(o) ? QString("%1 of an object the caller does not own").arg(function)
                               : QString("%1 of a released object").arg(function));
        return;
    }
    ++book.cfReleased;
    if (--owned->second->refs == 0) {
        forget(o);
        handed_out.erase(owned);
    }
}

const object* dictionary_value(const object* dict, const std::string& key)
{
    for (size_t i = 0; i + 1 < dict->items.size(); i += 2)
        if (dict->items[i]->text == key)
            return dict->items[i + 1].get();
    return nullptr;
}

const fake_apple::display* find_display(CGDirectDisplayID id, const char* function)
{
    for (const auto& d : current.displays)
        if (d.id == id)
            return &d;
    fail(QString("%1: unknown display %2").arg(function).arg(id));
    return nullptr;
}

io_handle* find_handle(io_object_t h, bool iterator, const char* function)
{
    const auto it = handles.find(h);
    if (it == handles.end() || it->second.iterator != iterator) {
        fail(QString("%1: invalid or released %2").arg(function, iterator ? "iterator" : "service"));
        return nullptr;
    }
    return &it->second;
}

io_object_t new_handle(io_handle h)
{
    const io_object_t id = next_handle++;
    handles.emplace(id, std::move(h));
    ++book.ioObtained;
    return id;
}

const fake_apple::property* entry_property(int entry, const std::string& key)
{
    const auto& props = current.registry.at(size_t(entry)).properties;
    const auto it = props.find(key);
    return it == props.end() ? nullptr : &it->second;
}

}  // namespace

namespace fake_apple {

sysctl_entry sysctl_text(const char* text)
{
    return {sysctl_entry::present, QByteArray(text, int(std::strlen(text)) + 1)};
}

sysctl_entry sysctl_u32(uint32_t value)
{
    return {sysctl_entry::present, QByteArray(reinterpret_cast<const char*>(&value), sizeof value)};
}

sysctl_entry sysctl_u64(uint64_t value)
{
    return {sysctl_entry::present, QByteArray(reinterpret_cast<const char*>(&value), sizeof value)};
}

void install(const machine& m)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& o : handed_out)
        forget(o.first);
    handed_out.clear();
    handles.clear();
    current = m;
    book = ledger_t();
}

ledger_t ledger()
{
    std::lock_guard<std::mutex> lock(mutex);
    ledger_t result = book;
    result.cfLive = int(handed_out.size());
    result.ioLive = int(handles.size());
    return result;
}

}  // namespace fake_apple

// ---- CoreFoundation ----

const CFAllocatorRef kCFAllocatorDefault = nullptr;

CFStringRef __CFStringMakeConstantString(const char* cStr)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto& constant = constants[cStr];
    if (!constant)
        constant = make_string(cStr);
    return reinterpret_cast<CFStringRef>(constant.get());
}

CFTypeID CFGetTypeID(CFTypeRef cf)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(cf, 0, "CFGetTypeID");
    return o ? o->type : 0;
}

void CFRelease(CFTypeRef cf)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& constant : constants)
        if (constant.second.get() == cf) {
            fail("CFRelease of a constant string");
            return;
        }
    release(cf, "CFRelease");
}

CFTypeID CFStringGetTypeID(void) { return string_type; }
CFTypeID CFDictionaryGetTypeID(void) { return dictionary_type; }
CFTypeID CFNumberGetTypeID(void) { return number_type; }
CFTypeID CFDataGetTypeID(void) { return data_type; }

CFIndex CFStringGetLength(CFStringRef theString)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theString, string_type, "CFStringGetLength");
    return o ? QString::fromStdString(o->text).size() : 0;  // UTF-16 code units
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding)
{
    if (encoding != kCFStringEncodingUTF8) {
        std::lock_guard<std::mutex> lock(mutex);
        fail("CFStringGetMaximumSizeForEncoding: the fake knows UTF-8 only");
        return -1;
    }
    return length * 3;
}

Boolean CFStringGetCString(CFStringRef theString, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theString, string_type, "CFStringGetCString");
    if (!o || encoding != kCFStringEncodingUTF8 || !buffer)
        return false;
    if (CFIndex(o->text.size()) + 1 > bufferSize)
        return false;
    std::memcpy(buffer, o->text.c_str(), o->text.size() + 1);
    return true;
}

CFIndex CFArrayGetCount(CFArrayRef theArray)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theArray, array_type, "CFArrayGetCount");
    return o ? CFIndex(o->items.size()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theArray, array_type, "CFArrayGetValueAtIndex");
    if (!o || idx < 0 || size_t(idx) >= o->items.size()) {
        fail("CFArrayGetValueAtIndex: index out of range");
        return nullptr;
    }
    return o->items[size_t(idx)].get();
}

CFIndex CFDictionaryGetCount(CFDictionaryRef theDict)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theDict, dictionary_type, "CFDictionaryGetCount");
    return o ? CFIndex(o->items.size() / 2) : 0;
}

const void* CFDictionaryGetValue(CFDictionaryRef theDict, const void* key)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theDict, dictionary_type, "CFDictionaryGetValue");
    const object* k = checked(key, string_type, "CFDictionaryGetValue key");
    return o && k ? dictionary_value(o, k->text) : nullptr;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void** keys, const void** values)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theDict, dictionary_type, "CFDictionaryGetKeysAndValues");
    if (!o)
        return;
    for (size_t i = 0; i + 1 < o->items.size(); i += 2) {
        if (keys)
            keys[i / 2] = o->items[i].get();
        if (values)
            values[i / 2] = o->items[i + 1].get();
    }
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(number, number_type, "CFNumberGetValue");
    if (!o || !valuePtr)
        return false;
    if (theType == kCFNumberSInt64Type) {
        std::memcpy(valuePtr, &o->number, sizeof(int64_t));
        return true;
    }
    if (theType == kCFNumberSInt32Type) {
        const auto narrow = int32_t(o->number);
        std::memcpy(valuePtr, &narrow, sizeof narrow);
        return narrow == o->number;
    }
    fail(QString("CFNumberGetValue: number type %1 not faked").arg(theType));
    return false;
}

const UInt8* CFDataGetBytePtr(CFDataRef theData)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theData, data_type, "CFDataGetBytePtr");
    return o && !o->bytes.isEmpty() ? reinterpret_cast<const UInt8*>(o->bytes.constData()) : nullptr;
}

CFIndex CFDataGetLength(CFDataRef theData)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(theData, data_type, "CFDataGetLength");
    return o ? CFIndex(o->bytes.size()) : 0;
}

CFArrayRef CFLocaleCopyPreferredLanguages(void)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!current.preferredLanguages)
        return nullptr;
    auto array = make(array_type);
    for (const auto& language : *current.preferredLanguages)
        array->items.push_back(make_string(language));
    return static_cast<CFArrayRef>(hand_out(std::move(array), copied));
}

// ---- sysctl and Mach ----

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (newp || !oldlenp) {
        fail(QString("sysctlbyname(%1): writes or no length").arg(name));
        errno = EPERM;
        return -1;
    }
    const auto it = current.sysctls.find(name);
    if (it == current.sysctls.end()) {
        errno = ENOENT;
        return -1;
    }
    const fake_apple::sysctl_entry& entry = it->second;
    if (entry.how == fake_apple::sysctl_entry::failing ||
        (entry.how == fake_apple::sysctl_entry::failing_on_read && oldp)) {
        errno = EIO;
        return -1;
    }
    const size_t size = size_t(entry.bytes.size());
    if (oldp) {
        if (*oldlenp < size) {
            errno = ENOMEM;
            return -1;
        }
        std::memcpy(oldp, entry.bytes.constData(), size);
    }
    *oldlenp = size;
    return 0;
}

mach_port_t mach_host_self(void) { return host_port; }

kern_return_t host_page_size(host_t host, vm_size_t* out_page_size)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (host != host_port || !out_page_size) {
        fail("host_page_size: bad arguments");
        return KERN_INVALID_ARGUMENT;
    }
    if (!current.pageSize)
        return KERN_FAILURE;
    *out_page_size = vm_size_t(*current.pageSize);
    return KERN_SUCCESS;
}

kern_return_t host_statistics64(host_t host_priv, host_flavor_t flavor, host_info64_t host_info64_out,
                                mach_msg_type_number_t* host_info64_outCnt)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (host_priv != host_port || flavor != HOST_VM_INFO64 || !host_info64_out ||
        !host_info64_outCnt || *host_info64_outCnt < HOST_VM_INFO64_COUNT) {
        fail("host_statistics64: bad arguments");
        return KERN_INVALID_ARGUMENT;
    }
    if (!current.freeAndInactivePages)
        return KERN_FAILURE;
    vm_statistics64_data_t statistics = {};
    statistics.free_count = current.freeAndInactivePages->first;
    statistics.inactive_count = current.freeAndInactivePages->second;
    statistics.active_count = 11111;  // pages that must not count as free
    statistics.wire_count = 22222;
    statistics.speculative_count = 33333;
    std::memcpy(host_info64_out, &statistics, sizeof statistics);
    *host_info64_outCnt = HOST_VM_INFO64_COUNT;
    return KERN_SUCCESS;
}

// ---- CoreGraphics ----

CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* activeDisplays,
                               uint32_t* displayCount)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!displayCount) {
        fail("CGGetActiveDisplayList: no count");
        return kCGErrorFailure;
    }
    const bool second = activeDisplays != nullptr;
    if (current.displayListFails || (second && current.displayListFailsOnSecondCall))
        return kCGErrorFailure;
    size_t available = current.displays.size();
    if (second) {
        available -= size_t(std::min<int>(current.displaysGoneBeforeSecondCall, int(available)));
        const uint32_t n = std::min(maxDisplays, uint32_t(available));
        for (uint32_t i = 0; i < n; ++i)
            activeDisplays[i] = current.displays[i].id;
        *displayCount = n;
    } else {
        *displayCount = uint32_t(available);
    }
    return kCGErrorSuccess;
}

CGRect CGDisplayBounds(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayBounds");
    return d ? CGRect{{d->x, d->y}, {d->width, d->height}} : CGRect{{0, 0}, {0, 0}};
}

size_t CGDisplayPixelsWide(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayPixelsWide");
    return d ? d->pixelsWide : 0;
}

size_t CGDisplayPixelsHigh(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayPixelsHigh");
    return d ? d->pixelsHigh : 0;
}

CGSize CGDisplayScreenSize(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayScreenSize");
    return d ? CGSize{d->widthMm, d->heightMm} : CGSize{0, 0};
}

boolean_t CGDisplayIsMain(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayIsMain");
    return d && d->isMain;
}

CGDisplayModeRef CGDisplayCopyDisplayMode(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto* d = find_display(display, "CGDisplayCopyDisplayMode");
    if (!d || !d->hasMode)
        return nullptr;
    auto mode = make(display_mode_type);
    mode->modeWidth = d->modeWidth;
    mode->modePixelWidth = d->modePixelWidth;
    return static_cast<CGDisplayModeRef>(const_cast<void*>(hand_out(std::move(mode), copied)));
}

size_t CGDisplayModeGetWidth(CGDisplayModeRef mode)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(mode, display_mode_type, "CGDisplayModeGetWidth");
    return o ? o->modeWidth : 0;
}

size_t CGDisplayModeGetPixelWidth(CGDisplayModeRef mode)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* o = checked(mode, display_mode_type, "CGDisplayModeGetPixelWidth");
    return o ? o->modePixelWidth : 0;
}

void CGDisplayModeRelease(CGDisplayModeRef mode)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (mode)  // NULL is allowed here, unlike CFRelease
        release(mode, "CGDisplayModeRelease");
}

io_service_t CGDisplayIOServicePort(CGDirectDisplayID display)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < current.displays.size(); ++i)
        if (current.displays[i].id == display)
            return current.displays[i].hasServicePort ? first_display_port + io_service_t(i)
                                                      : MACH_PORT_NULL;
    fail("CGDisplayIOServicePort: unknown display");
    return MACH_PORT_NULL;
}

CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits options)
{
    std::lock_guard<std::mutex> lock(mutex);
    const size_t index = framebuffer - first_display_port;
    if (framebuffer < first_display_port || index >= current.displays.size()) {
        fail("IODisplayCreateInfoDictionary: not a display port");
        return nullptr;
    }
    if (options != kIODisplayOnlyPreferredName)
        fail(QString("IODisplayCreateInfoDictionary: options %1").arg(options));
    const fake_apple::display& d = current.displays[index];
    if (!d.hasInfoDictionary)
        return nullptr;
    auto info = make(dictionary_type);
    info->items.push_back(make_string("DisplayVendorID"));
    info->items.push_back(make_property(int64_t(1552)));
    if (d.hasProductName) {
        auto names = make(dictionary_type);
        for (const auto& name : d.productNames) {
            names->items.push_back(make_string(name.first));
            names->items.push_back(make_string(name.second));
        }
        info->items.push_back(make_string(kDisplayProductName));
        info->items.push_back(std::move(names));
    }
    return static_cast<CFDictionaryRef>(hand_out(std::move(info), created));
}

// ---- IOKit registry ----

const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;

CFMutableDictionaryRef IOServiceMatching(const char* name)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto matching = make(dictionary_type);
    matching->items.push_back(make_string("IOProviderClass"));
    matching->items.push_back(make_string(name));
    return static_cast<CFMutableDictionaryRef>(const_cast<void*>(hand_out(std::move(matching), created)));
}

kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching,
                                           io_iterator_t* existingIterator)
{
    std::lock_guard<std::mutex> lock(mutex);
    const object* dict = checked(matching, dictionary_type, "IOServiceGetMatchingServices");
    if (!dict || mainPort != MACH_PORT_NULL || !existingIterator) {
        fail("IOServiceGetMatchingServices: bad arguments");
        return kIOReturnBadArgument;
    }
    const object* wanted = dictionary_value(dict, "IOProviderClass");
    const std::string className = wanted ? wanted->text : std::string();
    release(matching, "IOServiceGetMatchingServices");  // consumes the caller's reference
    const auto& failing = current.failingMatches;
    if (std::find(failing.begin(), failing.end(), className) != failing.end())
        return kIOReturnError;
    io_handle iterator;
    iterator.iterator = true;
    for (size_t i = 0; i < current.registry.size(); ++i) {
        const auto& entry = current.registry[i];
        const auto& supers = entry.superclasses;
        if (entry.className == className ||
            std::find(supers.begin(), supers.end(), className) != supers.end())
            iterator.matches.push_back(int(i));
    }
    *existingIterator = new_handle(std::move(iterator));
    return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator)
{
    std::lock_guard<std::mutex> lock(mutex);
    io_handle* it = find_handle(iterator, true, "IOIteratorNext");
    if (!it || it->next >= it->matches.size())
        return MACH_PORT_NULL;
    io_handle service;
    service.entry = it->matches[it->next++];
    return new_handle(std::move(service));
}

kern_return_t IOObjectRelease(io_object_t object)
{
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = handles.find(object);
    if (it == handles.end()) {
        fail(object >= first_display_port && object < first_display_port + 0x100
                 ? QString("IOObjectRelease of a borrowed display port")
                 : QString("IOObjectRelease of an invalid or released object"));
        return kIOReturnBadArgument;
    }
    handles.erase(it);
    ++book.ioReleased;
    return KERN_SUCCESS;
}

kern_return_t IOObjectGetClass(io_object_t object, io_name_t className)
{
    std::lock_guard<std::mutex> lock(mutex);
    const io_handle* service = find_handle(object, false, "IOObjectGetClass");
    if (!service)
        return kIOReturnBadArgument;
    const std::string& name = current.registry.at(size_t(service->entry)).className;
    if (name.empty())
        return kIOReturnError;
    std::strncpy(className, name.c_str(), sizeof(io_name_t) - 1);
    return KERN_SUCCESS;
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key,
                                          CFAllocatorRef, IOOptionBits options)
{
    std::lock_guard<std::mutex> lock(mutex);
    const io_handle* service = find_handle(entry, false, "IORegistryEntryCreateCFProperty");
    const object* k = checked(key, string_type, "IORegistryEntryCreateCFProperty key");
    if (!service || !k)
        return nullptr;
    book.calls << QString("create %1 options %2").arg(QString::fromStdString(k->text)).arg(options);
    const fake_apple::property* p = entry_property(service->entry, k->text);
    return p ? hand_out(make_property(*p), created) : nullptr;
}

CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane,
                                          CFStringRef key, CFAllocatorRef, IOOptionBits options)
{
    std::lock_guard<std::mutex> lock(mutex);
    const io_handle* service = find_handle(entry, false, "IORegistryEntrySearchCFProperty");
    const object* k = checked(key, string_type, "IORegistryEntrySearchCFProperty key");
    if (!service || !k || !plane)
        return nullptr;
    book.calls << QString("search %1 in %2 options %3")
                      .arg(QString::fromStdString(k->text), plane)
                      .arg(options);
    if (std::strcmp(plane, kIOServicePlane) != 0)
        return nullptr;
    const bool upwards = (options & kIORegistryIterateRecursively) &&
                         (options & kIORegistryIterateParents);
    for (int e = service->entry; e >= 0; e = current.registry.at(size_t(e)).parent) {
        if (const fake_apple::property* p = entry_property(e, k->text))
            return hand_out(make_property(*p), created);
        if (!upwards)
            break;
    }
    return nullptr;
}

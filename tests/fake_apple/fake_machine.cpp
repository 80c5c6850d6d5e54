// The fake frameworks behind include/. Every call answers from the installed machine. Every
// CoreFoundation object and IOKit handle is an entry of its thread's table, and a CFTypeRef or
// io_object_t is its index + 1: a release of what the caller does not own (a CFSTR constant, a lent
// display port, a dictionary's member), a second release, a use after release or of the wrong kind
// of object throws at once; leaks() lists what was handed out and never released.
#include "fake_machine.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/graphics/IOGraphicsLib.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>

// The one layout written out field by field; the collector hands the kernel its size.
static_assert(sizeof(vm_statistics64_data_t) == 152 && HOST_VM_INFO64_COUNT == 38, "vm_statistics64 as in the SDK");

namespace {

using namespace fake_apple;
constexpr CFTypeID any_cf = 63, any_io = io_iterator | io_service | io_display_port;
constexpr kern_return_t kern_failure = 5;
constexpr host_t host_port = 0x103;

// v.number also holds a mode's or a port's display, a service's registry index, an iterator's
// position; items: an array's members, a dictionary's keys then its values, an iterator's services.
struct entry {
    value v;
    bool owned = false;  // handed out by a Create or Copy function: the caller must release it
    std::vector<size_t> items = {};
    bool alive = true;  // false once released, itself or the container that held it
};

std::mutex mutex;
machine mac;
thread_local std::deque<entry> table;  // the collector's objects never leave the thread they were made on

const machine& now()  // ordered after the install() it answers from, for ThreadSanitizer too
{
    std::lock_guard<std::mutex> lock(mutex);
    return mac;
}

size_t add(value v, bool owned = false, std::vector<size_t> items = {})
{
    table.push_back({std::move(v), owned, std::move(items)});
    return table.size();
}
template <typename Ref = const void*> Ref ref(size_t handle) { return reinterpret_cast<Ref>(handle); }

std::vector<size_t> members(const std::vector<value>& values)
{
    std::vector<size_t> handles;
    for (const value& v : values)
        handles.push_back(add(v));
    return handles;
}

// The live entry of one of `kinds`.
#define TAKE(handle, kinds) use(handle, kinds, __func__)
entry& use(const void* handle, CFTypeID kinds, const char* function)
{
    const auto i = size_t(handle) - 1;
    if (i < table.size() && table[i].alive && (table[i].v.type & kinds))
        return table[i];
    const bool released = i < table.size() && !table[i].alive;
    throw std::logic_error(function + std::string(released ? ": used after its release" : ": not its kind"));
}

void kill(entry& e)
{
    e.alive = false;
    for (const size_t member : e.v.type & (cf_array | cf_dictionary) ? e.items : std::vector<size_t>())
        kill(table[member - 1]);
}

// CFRelease(NULL) crashes; CGDisplayModeRelease and IOObjectRelease take the null handle calmly.
void release(const void* handle, CFTypeID kinds, const char* function, bool nullIsHarmless = false)
{
    if (!handle && nullIsHarmless)
        return;
    entry& e = use(handle, kinds, function);
    if (!e.owned)
        throw std::logic_error(function + std::string(" of an object the caller does not own"));
    kill(e);
}

const display& shown(CGDirectDisplayID id)
{
    for (const display& d : now().displays)
        if (d.id == id)
            return d;
    throw std::logic_error("no display " + std::to_string(id));
}

const display& of(const entry& modeOrPort) { return shown(CGDirectDisplayID(modeOrPort.v.number)); }

}  // namespace

void fake_apple::install(const machine& m)
{
    std::lock_guard<std::mutex> lock(mutex);
    mac = m;
    table.clear();
}

QStringList fake_apple::leaks()
{
    QStringList held;
    for (const entry& e : table)
        if (e.owned && e.alive)
            held << QString("never released: kind %1, %2 %3").arg(e.v.type).arg(e.v.number).arg(e.v.bytes.c_str());
    return held;
}

// ---- CoreFoundation ----

const CFAllocatorRef kCFAllocatorDefault = nullptr;
CFStringRef __CFStringMakeConstantString(const char* cStr) { return ref<CFStringRef>(add(cStr)); }
CFTypeID CFGetTypeID(CFTypeRef cf) { return TAKE(cf, any_cf).v.type; }
void CFRelease(CFTypeRef cf) { release(cf, any_cf, __func__); }
CFTypeID CFStringGetTypeID(void) { return cf_string; }
CFTypeID CFDictionaryGetTypeID(void) { return cf_dictionary; }
CFTypeID CFNumberGetTypeID(void) { return cf_number; }
CFTypeID CFDataGetTypeID(void) { return cf_data; }
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) { return length * 3; }  // UTF-8
CFIndex CFStringGetLength(CFStringRef s) { return QString::fromStdString(TAKE(s, cf_string).v.bytes).size(); }
CFIndex CFArrayGetCount(CFArrayRef a) { return CFIndex(TAKE(a, cf_array).items.size()); }
const void* CFArrayGetValueAtIndex(CFArrayRef a, CFIndex i) { return ref(TAKE(a, cf_array).items.at(i)); }
CFIndex CFDictionaryGetCount(CFDictionaryRef d) { return CFIndex(TAKE(d, cf_dictionary).items.size() / 2); }
CFIndex CFDataGetLength(CFDataRef d) { return CFIndex(TAKE(d, cf_data).v.bytes.size()); }
const UInt8* CFDataGetBytePtr(CFDataRef d) { return (const UInt8*)(TAKE(d, cf_data).v.bytes.data()); }

Boolean CFStringGetCString(CFStringRef s, char* buffer, CFIndex bufferSize, CFStringEncoding)
{
    const std::string& text = TAKE(s, cf_string).v.bytes;
    return CFIndex(text.size()) < bufferSize && std::strcpy(buffer, text.c_str());
}

const void* CFDictionaryGetValue(CFDictionaryRef d, const void* key)
{
    const std::string& name = TAKE(key, cf_string).v.bytes;
    const auto& items = TAKE(d, cf_dictionary).items;
    for (size_t i = 0; i < items.size() / 2; ++i)
        if (TAKE(ref(items[i]), cf_string).v.bytes == name)
            return ref(items[items.size() / 2 + i]);
    return nullptr;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef d, const void** keys, const void** values)
{
    const auto& items = TAKE(d, cf_dictionary).items;
    std::transform(items.begin(), items.begin() + items.size() / 2, keys, ref<const void*>);
    std::transform(items.begin() + items.size() / 2, items.end(), values, ref<const void*>);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* valuePtr)
{
    const int64_t n = TAKE(number, cf_number).v.number;
    std::memcpy(valuePtr, &n, type == kCFNumberSInt64Type ? 8 : 4);  // kCFNumberSInt32Type: the low half
    return type == kCFNumberSInt64Type || int32_t(n) == n;         // a lossy conversion answers false
}

CFArrayRef CFLocaleCopyPreferredLanguages(void)
{
    const auto& languages = now().preferredLanguages;
    return languages ? ref<CFArrayRef>(add(cf_array, true, members(*languages))) : nullptr;
}

// ---- sysctl and Mach ----

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void*, size_t)
{
    const auto& sysctls = now().sysctls;
    if (!sysctls.count(name))
        return errno = ENOENT, -1;
    const std::string bytes = sysctls.at(name).bytes + std::string(sysctls.at(name).type == cf_string, '\0');
    if (oldp && *oldlenp < bytes.size())
        return errno = ENOMEM, -1;
    *oldlenp = bytes.size();
    std::copy_n(bytes.data(), oldp ? bytes.size() : 0, static_cast<char*>(oldp));
    return 0;
}

mach_port_t mach_host_self(void) { return host_port; }

kern_return_t host_page_size(host_t host, vm_size_t* size)
{
    *size = now().pageSize;
    return host == host_port && *size ? KERN_SUCCESS : kern_failure;
}

// Fills as much of the newest layout as the caller's count holds, from the oldest layout's 24
// numbers (up to speculative_count) on, and says how much that was.
kern_return_t host_statistics64(host_t host, host_flavor_t flavor, host_info64_t info,
                                mach_msg_type_number_t* count)
{
    const auto& pages = now().freeAndInactivePages;
    if (host != host_port || flavor != HOST_VM_INFO64 || *count < 24 || !pages)
        return kern_failure;
    vm_statistics64_data_t statistics = {};
    statistics.free_count = pages->first;
    statistics.inactive_count = pages->second;
    statistics.active_count = statistics.wire_count = statistics.speculative_count = 11111;  // not free
    *count = std::min(*count, HOST_VM_INFO64_COUNT);
    std::memcpy(info, &statistics, *count * sizeof(integer_t));
    return KERN_SUCCESS;
}

// ---- CoreGraphics ----

CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* displays, uint32_t* count)
{
    const machine& m = now();
    const size_t listed = m.displays.size() - m.unpluggedBeforeSecondCall;
    *count = uint32_t(displays ? std::min<size_t>(maxDisplays, listed) : m.displays.size());
    for (uint32_t i = 0; displays && i < *count; ++i)
        displays[i] = m.displays[i].id;
    return displays && m.listFailsOnSecondCall ? kCGErrorFailure : kCGErrorSuccess;
}

CGRect CGDisplayBounds(CGDirectDisplayID display) { return shown(display).bounds; }
size_t CGDisplayPixelsWide(CGDirectDisplayID display) { return shown(display).pixelsWide; }
size_t CGDisplayPixelsHigh(CGDirectDisplayID display) { return shown(display).pixelsHigh; }
CGSize CGDisplayScreenSize(CGDirectDisplayID display) { return shown(display).millimetres; }
boolean_t CGDisplayIsMain(CGDirectDisplayID display) { return shown(display).isMain; }
size_t CGDisplayModeGetWidth(CGDisplayModeRef m) { return of(TAKE(m, cg_display_mode)).mode->first; }
size_t CGDisplayModeGetPixelWidth(CGDisplayModeRef m) { return of(TAKE(m, cg_display_mode)).mode->second; }
void CGDisplayModeRelease(CGDisplayModeRef mode) { release(mode, cg_display_mode, __func__, true); }

CGDisplayModeRef CGDisplayCopyDisplayMode(CGDirectDisplayID display)
{
    return shown(display).mode ? ref<CGDisplayModeRef>(add(value(cg_display_mode, display), true)) : nullptr;
}

io_service_t CGDisplayIOServicePort(CGDirectDisplayID display)  // lent: not the caller's to release
{
    return shown(display).route == no_port ? MACH_PORT_NULL
                                           : io_service_t(add(value(io_display_port, display)));
}

// Only the preferred name is faked: the names dictionary holds at most one locale's name.
CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits options)
{
    const display& d = of(TAKE(ref(framebuffer), io_display_port));
    if (options != kIODisplayOnlyPreferredName || d.route == no_info)
        return nullptr;
    // Without the product name key, the names sit under another key.
    auto info = members({"DisplayVendorID", d.route == named ? kDisplayProductName : "DisplaySerial", 1552});
    const auto names = d.name.empty() ? members({}) : members({"en_US", d.name.c_str()});
    info.push_back(add(cf_dictionary, false, names));
    return ref<CFDictionaryRef>(add(cf_dictionary, true, info));
}

// ---- IOKit registry ----

const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;

CFMutableDictionaryRef IOServiceMatching(const char* name)
{
    return ref<CFMutableDictionaryRef>(add(cf_dictionary, true, members({"IOProviderClass", name})));
}

// Consumes `matching`; hands out the null iterator when nothing matches.
kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t* existing)
{
    const std::string name = TAKE(CFDictionaryGetValue(matching, CFSTR("IOProviderClass")), cf_string).v.bytes;
    CFRelease(matching);
    const auto& registry = now().registry;
    std::vector<size_t> found;
    for (size_t i = 0; i < registry.size(); ++i)
        if (std::count(registry[i].classes.begin(), registry[i].classes.end(), name))
            found.push_back(i);
    *existing = found.empty() ? MACH_PORT_NULL : io_iterator_t(add(io_iterator, true, found));
    return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator)  // the null iterator is empty
{
    if (!iterator)
        return MACH_PORT_NULL;
    entry& it = TAKE(ref(iterator), io_iterator);
    const auto next = size_t(it.v.number++);
    return next < it.items.size() ? io_object_t(add(value(io_service, int64_t(it.items[next])), true))
                                  : MACH_PORT_NULL;
}

kern_return_t IOObjectRelease(io_object_t object)
{
    release(ref(object), any_io, __func__, true);
    return KERN_SUCCESS;
}

kern_return_t IOObjectGetClass(io_object_t object, io_name_t className)
{
    const std::string& name = now().registry.at(size_t(TAKE(ref(object), io_service).v.number)).classes[0];
    std::snprintf(className, sizeof(io_name_t), "%s", name.c_str());
    return name.empty() ? kern_return_t(0xe00002bc) : KERN_SUCCESS;  // kIOReturnError
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits)
{
    return IORegistryEntrySearchCFProperty(entry, kIOServicePlane, key, allocator, 0);
}

// A property of the entry or, searched recursively and upwards (both bits), of its nearest ancestor with one.
CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane, CFStringRef key,
                                          CFAllocatorRef, IOOptionBits options)
{
    const bool upwards = (options & kIORegistryIterateRecursively) && (options & kIORegistryIterateParents);
    const bool servicePlane = std::strcmp(plane, kIOServicePlane) == 0;
    const std::string& name = TAKE(key, cf_string).v.bytes;
    const auto& registry = now().registry;
    for (auto i = size_t(TAKE(ref(entry), io_service).v.number); servicePlane && i < registry.size();
         i = upwards ? size_t(registry[i].parent) : SIZE_MAX)
        if (registry[i].properties.count(name))
            return ref(add(registry[i].properties.at(name), true));
    return nullptr;
}

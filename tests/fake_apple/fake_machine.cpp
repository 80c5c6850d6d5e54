// The fake frameworks behind include/. Every call answers from the installed machine. Every
// CoreFoundation object and IOKit handle is an entry of one table, and a CFTypeRef or io_object_t
// is its index + 1: a release of what the caller does not own, a second release and a use after
// release all show, whatever the kind of object.
#include "fake_machine.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/graphics/IOGraphicsLib.h>
#include <sys/sysctl.h>

#include <QString>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <mutex>
#include <type_traits>

static_assert(sizeof(CFIndex) == 8 && CFIndex(-1) < 0, "CFIndex is a signed long");
static_assert(std::is_enum<CFNumberType>() && std::is_same<std::underlying_type_t<CFNumberType>, CFIndex>(),
              "CF_ENUM(CFIndex, CFNumberType)");
static_assert(std::is_enum<CGError>() && std::is_same<std::underlying_type_t<CGError>, int32_t>(),
              "CF_ENUM(int32_t, CGError)");
static_assert(sizeof(CGDirectDisplayID) == 4 && sizeof(io_object_t) == 4, "32-bit display ids and port names");
static_assert(sizeof(vm_statistics64_data_t) == 152 && alignof(vm_statistics64_data_t) == 8 &&
                  offsetof(vm_statistics64_data_t, total_uncompressed_pages_in_compressor) == 144 &&
                  HOST_VM_INFO64_COUNT == 38,
              "vm_statistics64 as in the macOS 14.2 SDK");

namespace {

using fake_apple::naming;

// The CFTypeIDs, then the kinds of IOKit handle: a bit each, so that a call can accept several.
enum kind : CFTypeID { cf_string = 1, cf_number = 2, cf_data = 4, cf_array = 8, cf_dictionary = 16,
                       cg_display_mode = 32, io_iterator = 64, io_service = 128, io_display_port = 256 };
constexpr CFTypeID any_cf = 63, any_io = io_iterator | io_service | io_display_port;
const char* const kind_names[] = {"CFString", "CFNumber", "CFData", "CFArray", "CFDictionary",
                                  "CGDisplayMode", "io_iterator", "io_service", "display port"};
constexpr kern_return_t kern_failure = 5, kIOReturnError = kern_return_t(0xe00002bc),
                        kIOReturnBadArgument = kern_return_t(0xe00002c2);
constexpr host_t host_port = 0x103;
constexpr mach_msg_type_number_t oldest_vm_info64_count = 24;  // the first layout ends at speculative_count

struct entry {
    CFTypeID kind = 0;   // 0: what a rejected handle resolves to
    bool owned = false;  // handed out by a Create or Copy function: the caller must release it
    bool alive = true;   // false once released, itself or the container that held it
    std::string text;    // a string's text, a data's bytes
    int64_t number = 0;  // a number; a mode's or port's display, a service's registry entry, an iterator's position
    std::vector<size_t> items;  // an array's elements; a dictionary's keys and values in turn; an iterator's entries
};

std::mutex mutex;
using guard = std::lock_guard<std::mutex>;
fake_apple::machine mac;
std::deque<entry> table;  // a deque: entries stay in place while it grows
QStringList errors;

size_t add(CFTypeID kind, bool owned, std::string text = {}, int64_t number = 0, std::vector<size_t> items = {})
{
    table.push_back({kind, owned, true, std::move(text), number, std::move(items)});
    return table.size();
}
size_t member(const std::string& text) { return add(cf_string, false, text); }
template <typename Ref = const void*> Ref ref(size_t handle) { return reinterpret_cast<Ref>(handle); }

QString describe(const entry& e)
{
    return QString(kind_names[__builtin_ctzl(e.kind)]) + ' ' +
           (e.text.empty() ? QString::number(e.number) : QString::fromStdString(e.text));
}

entry& use(size_t handle, CFTypeID kinds, const char* function)
{
    static entry none;
    none = entry();
    entry& e = handle && handle <= table.size() ? table[handle - 1] : none;
    if (e.alive && (e.kind & kinds))
        return e;
    errors << QString("%1: %2").arg(function, !e.kind ? QString("null or foreign handle %1").arg(handle)
                                              : !e.alive ? describe(e) + " used after its release"
                                                         : "given a " + describe(e));
    return none;
}
entry& use(const void* ref, CFTypeID kinds, const char* function) { return use(size_t(ref), kinds, function); }

void kill(entry& e)
{
    e.alive = false;
    if (e.kind & (cf_array | cf_dictionary))
        for (const size_t item : e.items)
            kill(table[item - 1]);
}

void release(entry& e, const char* function)
{
    if (e.kind && !e.owned)
        errors << QString("%1 of a %2 the caller does not own").arg(function, describe(e));
    else if (e.kind)
        kill(e);
}

const fake_apple::display& shown(CGDirectDisplayID id, const char* function)
{
    static const fake_apple::display none{0, {}, false, {}, 0, 0, {}, std::nullopt, naming::no_port};
    for (const auto& d : mac.displays)
        if (d.id == id)
            return d;
    errors << QString("%1: unknown display %2").arg(function).arg(id);
    return none;
}

size_t mode_width(CGDisplayModeRef mode, bool pixels, const char* function)
{
    const entry& e = use(mode, cg_display_mode, function);
    const auto widths = e.kind ? shown(CGDirectDisplayID(e.number), function).mode : std::nullopt;
    return !widths ? 0 : pixels ? widths->second : widths->first;
}

// A registry property of the service or, `upwards`, of its nearest ancestor that has one.
CFTypeRef lookup(io_registry_entry_t service, CFStringRef key, bool upwards, const char* function)
{
    const std::string wanted = use(key, cf_string, function).text;
    const entry& e = use(service, io_service, function);
    for (int i = e.kind ? int(e.number) : -1; i >= 0; i = upwards ? mac.registry[size_t(i)].parent : -1) {
        const auto& properties = mac.registry[size_t(i)].properties;
        const auto p = properties.find(wanted);
        if (p == properties.end())
            continue;
        if (const auto* number = std::get_if<int64_t>(&p->second))
            return ref(add(cf_number, true, {}, *number));
        const auto* bytes = std::get_if<QByteArray>(&p->second);
        return ref(add(bytes ? cf_data : cf_string, true, bytes ? bytes->toStdString() : std::get<std::string>(p->second)));
    }
    return nullptr;
}

template <typename List, typename Item> bool contains(const List& list, const Item& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

void fake_apple::install(const machine& m)
{
    guard g(mutex);
    mac = m;
    table.clear();
    errors.clear();
}

QStringList fake_apple::misuse()
{
    guard g(mutex);
    QStringList all = errors;
    for (const entry& e : table)
        if (e.owned && e.alive)
            all << "never released: " + describe(e);
    return all;
}

// ---- CoreFoundation ----

const CFAllocatorRef kCFAllocatorDefault = nullptr;
CFStringRef __CFStringMakeConstantString(const char* text) { guard g(mutex); return ref<CFStringRef>(member(text)); }
CFTypeID CFGetTypeID(CFTypeRef cf) { guard g(mutex); return use(cf, any_cf, __func__).kind; }
void CFRelease(CFTypeRef cf) { guard g(mutex); release(use(cf, any_cf, __func__), __func__); }
CFTypeID CFStringGetTypeID(void) { return cf_string; }
CFTypeID CFDictionaryGetTypeID(void) { return cf_dictionary; }
CFTypeID CFNumberGetTypeID(void) { return cf_number; }
CFTypeID CFDataGetTypeID(void) { return cf_data; }
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) { return length * 3; }  // UTF-8
CFIndex CFStringGetLength(CFStringRef s) { guard g(mutex); return QString::fromStdString(use(s, cf_string, __func__).text).size(); }
CFIndex CFArrayGetCount(CFArrayRef a) { guard g(mutex); return CFIndex(use(a, cf_array, __func__).items.size()); }
CFIndex CFDictionaryGetCount(CFDictionaryRef d) { guard g(mutex); return CFIndex(use(d, cf_dictionary, __func__).items.size() / 2); }
CFIndex CFDataGetLength(CFDataRef d) { guard g(mutex); return CFIndex(use(d, cf_data, __func__).text.size()); }

Boolean CFStringGetCString(CFStringRef s, char* buffer, CFIndex bufferSize, CFStringEncoding)
{
    guard g(mutex);
    const std::string& text = use(s, cf_string, __func__).text;
    return CFIndex(text.size()) < bufferSize && std::memcpy(buffer, text.c_str(), text.size() + 1);
}

const void* CFArrayGetValueAtIndex(CFArrayRef a, CFIndex idx)
{
    guard g(mutex);
    const auto& items = use(a, cf_array, __func__).items;
    if (idx >= 0 && size_t(idx) < items.size())
        return ref(items[size_t(idx)]);
    errors << QString("%1: index %2 of %3").arg(__func__).arg(idx).arg(items.size());
    return nullptr;
}

const void* CFDictionaryGetValue(CFDictionaryRef d, const void* key)
{
    guard g(mutex);
    const std::string wanted = use(key, cf_string, __func__).text;
    const auto& items = use(d, cf_dictionary, __func__).items;
    for (size_t i = 0; i < items.size(); i += 2)
        if (table[items[i] - 1].text == wanted)
            return ref(items[i + 1]);
    return nullptr;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef d, const void** keys, const void** values)
{
    guard g(mutex);
    const auto& items = use(d, cf_dictionary, __func__).items;
    for (size_t i = 0; i < items.size(); ++i)
        if (const void** to = i % 2 ? values : keys)
            to[i / 2] = ref(items[i]);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value)
{
    guard g(mutex);
    const int64_t wide = use(number, cf_number, __func__).number;
    const auto narrow = int32_t(wide);  // kCFNumberSInt32Type; a lossy conversion answers false
    type == kCFNumberSInt64Type ? std::memcpy(value, &wide, sizeof wide) : std::memcpy(value, &narrow, sizeof narrow);
    return type == kCFNumberSInt64Type || narrow == wide;
}

const UInt8* CFDataGetBytePtr(CFDataRef d)
{
    guard g(mutex);
    const std::string& bytes = use(d, cf_data, __func__).text;
    return bytes.empty() ? nullptr : reinterpret_cast<const UInt8*>(bytes.data());
}

CFArrayRef CFLocaleCopyPreferredLanguages(void)
{
    guard g(mutex);
    std::vector<size_t> languages;
    for (const std::string& language : mac.preferredLanguages.value_or(std::vector<std::string>()))
        languages.push_back(member(language));
    return mac.preferredLanguages ? ref<CFArrayRef>(add(cf_array, true, {}, 0, languages)) : nullptr;
}

// ---- sysctl and Mach ----

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void*, size_t)
{
    guard g(mutex);
    const auto it = mac.sysctls.find(name);
    if (it == mac.sysctls.end())
        return errno = ENOENT, -1;
    const QByteArray value = it->second.value_or(QByteArray(8, '\0'));
    if (oldp && (!it->second || *oldlenp < size_t(value.size())))
        return errno = it->second ? ENOMEM : EIO, -1;
    *oldlenp = size_t(value.size());
    return oldp ? std::memcpy(oldp, value.constData(), *oldlenp), 0 : 0;
}

mach_port_t mach_host_self(void) { return host_port; }

kern_return_t host_page_size(host_t host, vm_size_t* size)
{
    guard g(mutex);
    return host != host_port || !mac.pageSize ? kern_failure : (*size = *mac.pageSize, KERN_SUCCESS);
}

// Fills as much of the newest layout as the caller's count holds, and says how much that was.
kern_return_t host_statistics64(host_t host, host_flavor_t flavor, host_info64_t info, mach_msg_type_number_t* count)
{
    guard g(mutex);
    if (host != host_port || flavor != HOST_VM_INFO64 || *count < oldest_vm_info64_count || !mac.freeAndInactivePages)
        return kern_failure;
    vm_statistics64_data_t statistics = {};
    statistics.free_count = mac.freeAndInactivePages->first;
    statistics.inactive_count = mac.freeAndInactivePages->second;
    statistics.active_count = statistics.wire_count = statistics.speculative_count = 11111;  // not free
    *count = std::min(*count, HOST_VM_INFO64_COUNT);
    std::memcpy(info, &statistics, *count * sizeof(integer_t));
    return KERN_SUCCESS;
}

// ---- CoreGraphics ----

CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* displays, uint32_t* count)
{
    guard g(mutex);
    if (displays && mac.displayListFailsOnSecondCall)
        return kCGErrorFailure;
    const size_t active = mac.displays.size() - (displays ? size_t(mac.displaysGoneBeforeSecondCall) : 0);
    *count = uint32_t(displays ? std::min(size_t(maxDisplays), active) : active);
    for (uint32_t i = 0; displays && i < *count; ++i)
        displays[i] = mac.displays[i].id;
    return kCGErrorSuccess;
}

CGRect CGDisplayBounds(CGDirectDisplayID display) { guard g(mutex); return shown(display, __func__).bounds; }
size_t CGDisplayPixelsWide(CGDirectDisplayID display) { guard g(mutex); return shown(display, __func__).pixelsWide; }
size_t CGDisplayPixelsHigh(CGDirectDisplayID display) { guard g(mutex); return shown(display, __func__).pixelsHigh; }
CGSize CGDisplayScreenSize(CGDirectDisplayID display) { guard g(mutex); return shown(display, __func__).millimetres; }
boolean_t CGDisplayIsMain(CGDirectDisplayID display) { guard g(mutex); return shown(display, __func__).isMain; }
size_t CGDisplayModeGetWidth(CGDisplayModeRef mode) { guard g(mutex); return mode_width(mode, false, __func__); }
size_t CGDisplayModeGetPixelWidth(CGDisplayModeRef mode) { guard g(mutex); return mode_width(mode, true, __func__); }

CGDisplayModeRef CGDisplayCopyDisplayMode(CGDirectDisplayID display)
{
    guard g(mutex);
    return shown(display, __func__).mode ? ref<CGDisplayModeRef>(add(cg_display_mode, true, {}, display)) : nullptr;
}

void CGDisplayModeRelease(CGDisplayModeRef mode)  // NULL is allowed here, unlike CFRelease
{
    guard g(mutex);
    if (mode)
        release(use(mode, cg_display_mode, __func__), __func__);
}

io_service_t CGDisplayIOServicePort(CGDirectDisplayID display)  // lent: not the caller's to release
{
    guard g(mutex);
    return shown(display, __func__).route == naming::no_port ? MACH_PORT_NULL
                                                              : io_service_t(add(io_display_port, false, {}, display));
}

// With kIODisplayOnlyPreferredName the names dictionary holds one locale's name.
CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits options)
{
    guard g(mutex);
    const entry& port = use(framebuffer, io_display_port, __func__);
    if (options != kIODisplayOnlyPreferredName)
        errors << QString("%1: options %2 not faked").arg(__func__).arg(options);
    if (!port.kind || shown(CGDirectDisplayID(port.number), __func__).route == naming::no_info)
        return nullptr;
    const fake_apple::display& d = shown(CGDirectDisplayID(port.number), __func__);
    std::vector<size_t> info = {member("DisplayVendorID"), add(cf_number, false, {}, 1552)};
    std::vector<size_t> names = d.name.empty() ? std::vector<size_t>() : std::vector<size_t>{member("en_US"), member(d.name)};
    if (d.route == naming::named)
        info.insert(info.end(), {member(kDisplayProductName), add(cf_dictionary, false, {}, 0, names)});
    return ref<CFDictionaryRef>(add(cf_dictionary, true, {}, 0, info));
}

// ---- IOKit registry ----

const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;

CFMutableDictionaryRef IOServiceMatching(const char* name)
{
    guard g(mutex);
    return ref<CFMutableDictionaryRef>(add(cf_dictionary, true, {}, 0, {member("IOProviderClass"), member(name)}));
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t* existing)
{
    guard g(mutex);
    entry& dictionary = use(matching, cf_dictionary, __func__);
    const std::string wanted = dictionary.kind ? table[dictionary.items.at(1) - 1].text : "";
    release(dictionary, __func__);
    std::vector<size_t> found;
    for (size_t i = 0; i < mac.registry.size(); ++i)
        if (contains(mac.registry[i].classes, wanted))
            found.push_back(i);
    if (contains(mac.failingLookups, wanted))
        return kIOReturnError;
    *existing = found.empty() ? MACH_PORT_NULL : io_iterator_t(add(io_iterator, true, {}, 0, found));
    return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator)
{
    guard g(mutex);
    if (iterator == MACH_PORT_NULL)  // what a lookup that matched nothing hands out
        return MACH_PORT_NULL;
    entry& it = use(iterator, io_iterator, __func__);
    return size_t(it.number) < it.items.size() ? io_object_t(add(io_service, true, {}, int64_t(it.items[size_t(it.number++)])))
                                               : MACH_PORT_NULL;
}

kern_return_t IOObjectRelease(io_object_t object)
{
    guard g(mutex);
    if (object == MACH_PORT_NULL)  // harmless: the kernel refuses the null name
        return kIOReturnBadArgument;
    return release(use(object, any_io, __func__), __func__), KERN_SUCCESS;
}

kern_return_t IOObjectGetClass(io_object_t object, io_name_t className)
{
    guard g(mutex);
    const entry& service = use(object, io_service, __func__);
    const std::string name = service.kind ? mac.registry[size_t(service.number)].classes[0] : "";
    return name.empty() ? kIOReturnError : (std::snprintf(className, sizeof(io_name_t), "%s", name.c_str()), KERN_SUCCESS);
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef, IOOptionBits)
{
    guard g(mutex);
    return lookup(entry, key, false, __func__);
}

// Ancestors are searched only recursively and upwards, both bits set.
CFTypeRef IORegistryEntrySearchCFProperty(io_registry_entry_t entry, const io_name_t plane, CFStringRef key,
                                          CFAllocatorRef, IOOptionBits options)
{
    guard g(mutex);
    const bool upwards = (options & kIORegistryIterateRecursively) && (options & kIORegistryIterateParents);
    return std::strcmp(plane, kIOServicePlane) == 0 ? lookup(entry, key, upwards, __func__) : nullptr;
}

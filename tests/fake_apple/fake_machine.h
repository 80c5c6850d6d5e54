// A scriptable Mac for the Linux test build of the macOS collector: a test describes the machine
// and installs it, and the fake frameworks in include/ answer from it. Any misuse of the CoreFoundation
// objects and IOKit handles they hand out throws at once; leaks() tells what the collector kept.
#pragma once

#include <CoreGraphics/CoreGraphics.h>

#include <QStringList>

#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace fake_apple {

// The CFTypeIDs, then the kinds of IOKit handle: a bit each, so that a call can accept several.
enum kind : CFTypeID { cf_string = 1, cf_number = 2, cf_data = 4, cf_array = 8, cf_dictionary = 16,
                       cg_display_mode = 32, io_iterator = 64, io_service = 128, io_display_port = 256 };

// A sysctl value or a registry property. A C string is a CFString, or zero-terminated sysctl text;
// a std::string is CFData, or those bytes; an integer is a CFNumber, or a sysctl number as wide as
// its type.
struct value {
    CFTypeID type = 0;
    std::string bytes;
    int64_t number = 0;
    value(kind k = kind(0), int64_t n = 0) : type(k), number(n) {}  // the fake's own objects
    value(const char* text) : type(cf_string), bytes(text) {}
    value(std::string data) : type(cf_data), bytes(std::move(data)) {}
    template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
    value(T n) : type(cf_number), bytes(reinterpret_cast<const char*>(&n), sizeof n), number(int64_t(n)) {}
};
using values = std::map<std::string, value>;

// How far the route from a display to its product name goes: the service port, its info
// dictionary, the dictionary's "DisplayProductName" entry (with no name in it if `name` is empty).
enum naming { no_port, no_info, no_name_key, named };

struct display {
    CGDirectDisplayID id;
    std::string name;
    bool isMain = false;
    naming route = named;
    CGSize millimetres = {600, 340};
    std::optional<std::pair<size_t, size_t>> mode = {{1920, 1920}};  // width in points, in pixels
    CGRect bounds = {{0, 0}, {1920, 1080}};                           // in points
    size_t pixelsWide = 1920, pixelsHigh = 1080;
};

struct registry_entry {
    std::vector<std::string> classes;  // its own class first, then those it also matches
    values properties;
    int parent = -1;  // index into machine::registry
};

struct machine {
    std::vector<display> displays;
    bool listFailsOnSecondCall = false;
    size_t unpluggedBeforeSecondCall = 0;  // displays gone between the count and the list
    values sysctls;                        // a missing name fails with ENOENT
    std::vector<registry_entry> registry;
    vm_size_t pageSize = 16384;  // 0: host_page_size fails
    std::optional<std::pair<natural_t, natural_t>> freeAndInactivePages;  // none: the statistics fail
    std::optional<std::vector<value>> preferredLanguages;                 // none: a null array
};

// Replaces the machine and forgets every object and handle handed out so far.
void install(const machine& m);
// Each object handed out since install() that is still held.
QStringList leaks();

}  // namespace fake_apple

// A scriptable Mac for the Linux test build of the macOS collector: a test describes the machine
// and installs it, the fake frameworks in include/ answer from it, and misuse() then tells what
// the collector did wrong with the CoreFoundation objects and IOKit handles it was given.
#pragma once

#include <CoreGraphics/CoreGraphics.h>

#include <QByteArray>
#include <QStringList>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace fake_apple {

// How far the route from a display to its product name goes: the service port, its info
// dictionary, the dictionary's "DisplayProductName" entry, a name in that.
enum naming { no_port, no_info, no_name_key, named };

struct display {
    CGDirectDisplayID id = 1;
    std::string name;  // the preferred product name; none: an empty names dictionary
    bool isMain = false;
    CGRect bounds = {{0, 0}, {1920, 1080}};  // in points
    size_t pixelsWide = 1920, pixelsHigh = 1080;
    CGSize millimetres = {600, 340};
    std::optional<std::pair<size_t, size_t>> mode = {{1920, 1920}};  // width in points, in pixels
    naming route = named;
};

using property = std::variant<int64_t, QByteArray, std::string>;  // CFNumber, CFData, CFString

struct registry_entry {
    std::vector<std::string> classes;  // its own class first, then those it also matches
    std::map<std::string, property> properties;
    int parent = -1;  // index into machine::registry
};

struct machine {
    std::vector<display> displays;
    bool displayListFailsOnSecondCall = false;
    int displaysGoneBeforeSecondCall = 0;  // unplugged between the count and the list
    // A missing name fails with ENOENT; nullopt: its size reads, its value does not.
    std::map<std::string, std::optional<QByteArray>> sysctls;
    std::vector<registry_entry> registry;
    std::vector<std::string> failingLookups;  // classes whose IOServiceGetMatchingServices fails
    std::optional<vm_size_t> pageSize = 16384;
    std::optional<std::pair<natural_t, natural_t>> freeAndInactivePages;  // none: statistics fail
    std::optional<std::vector<std::string>> preferredLanguages;           // none: a null array
};

// Replaces the machine and forgets every object and handle handed out so far.
void install(const machine& m);
// Each misuse since install(): a release of what the caller does not own or of what it already
// released, a use after release, a null or foreign argument; then each object still held.
QStringList misuse();

// sysctl values as the kernel hands them out: strings zero-terminated, numbers in their width.
inline QByteArray sysctl_value(const char* text) { return QByteArray(text, int(std::strlen(text)) + 1); }
template <typename T>
QByteArray sysctl_value(T number) { return QByteArray(reinterpret_cast<const char*>(&number), sizeof number); }

}  // namespace fake_apple

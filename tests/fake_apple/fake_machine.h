// A scriptable Mac for the Linux test build of the macOS collector: a test describes the machine and installs it as
// fake::installed, and the fake frameworks in include/, declared as in the macOS 14.2 SDK, answer from it. They are
// defined inline in their headers, each function once, with C++ linkage, which the collector cannot tell apart.
//
// Each CoreFoundation object they hand out is a heap object that its release deletes, so that a second release or a
// use after release touches freed memory and an object never released leaks: the AddressSanitizer and LeakSanitizer
// build in CI reports each. A plain build counts the objects handed out and not released yet: a leak leaves the count
// above zero, the release of what the caller was only lent (a CFSTR constant, a member of an array or dictionary, a
// display's IOKit port) below it. IOKit handles are 32 bits, too narrow for a pointer: they index a table, where a
// released one throws at its next use.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace fake {

enum kind : unsigned long { cf_string = 1, cf_number, cf_data, cf_array, cf_dictionary, cg_display_mode, io_object };

// A sysctl value or a registry property, and every object the fakes hand out. A C string is a CFString, or
// zero-terminated sysctl text; a std::string is CFData, or those bytes; an integer is a CFNumber, or a sysctl number
// as wide as its type.
struct value {
    unsigned long type;
    std::string bytes;
    int64_t number = 0;  // also a mode's or port's display, a service's registry index, an iterator's position
    std::vector<value> members = {};  // an array's; a dictionary's keys and values in turn; an iterator's services
    value(kind k, int64_t n = 0, std::vector<value> m = {}) : type(k), number(n), members(std::move(m)) {}
    value(const char* text) : type(cf_string), bytes(text) {}
    value(std::string data) : type(cf_data), bytes(std::move(data)) {}
    template <typename T> value(T n) : type(cf_number), bytes(reinterpret_cast<const char*>(&n), sizeof n), number(n) {}
};
using values = std::map<std::string, value>;

// How far IOKit leads from a display to its name: not at all (no port, as on Apple silicon), to a port without display
// information, to information without product names, or to the names.
enum iokit { no_port, no_info, no_names, named };
struct display;  // in CoreGraphics/CoreGraphics.h, with the framework's own geometry types

struct registry_entry {
    std::vector<std::string> classes;  // its own class first, then those it also matches
    values properties = {};
    int parent = -1;  // index into machine::registry
};

struct machine {
    std::map<uint32_t, display> displays;  // listed by id
    int unplugged = 0;  // the last displays, gone between a count and a list; -1: the window server, failing the list
    values sysctls;     // a missing name fails with ENOENT
    std::vector<registry_entry> registry;
    std::vector<unsigned> vmPages;            // free, active, inactive, wire; none: host_statistics64 fails
    unsigned pageSize = 16384;                // 0: host_page_size fails
    std::optional<value> preferredLanguages;  // an array; none: CFLocaleCopyPreferredLanguages returns NULL
};

// The machine the fakes answer from, defined where its displays' type is complete. Only the test thread sets it, before
// it starts the pool threads that read it.
extern machine installed;
inline const display& shown(uint32_t id);          // the display of that id, or std::out_of_range
inline thread_local int unreleased = 0;            // objects handed out on this thread and not released yet
inline thread_local std::vector<value> ioObjects;  // an IOKit handle is its index + 1; a released one has no kind

// A new object, for the caller to release, and the release of one.
template <typename Ref> Ref create(value v)
{
    ++unreleased;
    return reinterpret_cast<Ref>(new value(std::move(v)));
}
inline value* release(value& v)
{
    --unreleased;
    return &v;
}

inline unsigned createIO(value v, bool owned = true)  // a port that is only lent is not to be released
{
    unreleased += owned;
    ioObjects.push_back(std::move(v));
    return unsigned(ioObjects.size());
}

inline value& as(const void* object) { return *static_cast<value*>(const_cast<void*>(object)); }

inline value& io(unsigned handle)
{
    value& v = ioObjects.at(handle - 1);  // out of range for the null handle too
    return v.type == io_object ? v : throw std::logic_error("an IOKit object used after its release");
}

}  // namespace fake

// A scriptable Mac for the Linux test build of the macOS collector: a test describes the machine,
// installs it, runs the collector against the fake frameworks in include/, then reads the ledger
// of every CoreFoundation and IOKit object the collector obtained and released.
#pragma once

#include <QByteArray>
#include <QStringList>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace fake_apple {

struct display {
    uint32_t id = 1;
    double x = 0, y = 0, width = 1920, height = 1080;  // bounds in points
    size_t pixelsWide = 1920, pixelsHigh = 1080;
    bool hasMode = true;
    size_t modeWidth = 1920, modePixelWidth = 1920;
    double widthMm = 600, heightMm = 340;
    bool hasServicePort = true;
    bool hasInfoDictionary = true;
    bool hasProductName = true;  // the "DisplayProductName" key of the info dictionary
    std::map<std::string, std::string> productNames;  // its locale -> name entries
    bool isMain = false;
};

struct sysctl_entry {
    enum mode { present, failing, failing_on_read } how = present;
    QByteArray bytes;
};
sysctl_entry sysctl_text(const char* text);  // zero-terminated, as the kernel returns strings
sysctl_entry sysctl_u32(uint32_t value);
sysctl_entry sysctl_u64(uint64_t value);

struct cf_data {
    QByteArray bytes;
};
using property = std::variant<int64_t, cf_data, std::string>;  // CFNumber, CFData, CFString

struct registry_entry {
    std::string className;                  // what IOObjectGetClass reports
    std::vector<std::string> superclasses;  // further classes the entry matches
    std::map<std::string, property> properties;
    int parent = -1;  // index into machine::registry; -1 for the root
};

struct machine {
    std::vector<display> displays;
    bool displayListFails = false;
    bool displayListFailsOnSecondCall = false;
    int displaysGoneBeforeSecondCall = 0;  // unplugged between the count and the list

    std::map<std::string, sysctl_entry> sysctls;  // a missing name fails with ENOENT

    std::vector<registry_entry> registry;
    std::vector<std::string> failingMatches;  // classes whose service lookup fails

    std::optional<uint64_t> pageSize = 16384;  // nullopt: host_page_size fails
    std::optional<std::pair<uint32_t, uint32_t>> freeAndInactivePages;  // nullopt: statistics fail

    std::optional<std::vector<std::string>> preferredLanguages;  // nullopt: a null array
};

// Replaces the machine and clears the ledger.
void install(const machine& m);

struct ledger_t {
    int cfCreated = 0;  // objects handed out by Create-rule functions
    int cfCopied = 0;   // ... and by Copy-rule functions
    int cfReleased = 0;
    int cfLive = 0;
    int ioObtained = 0;  // iterators and services handed out by IOKit
    int ioReleased = 0;
    int ioLive = 0;
    QStringList errors;  // misuse: releasing twice, a constant, a borrowed port, a null
    QStringList calls;   // notable arguments, e.g. the options of registry searches
};
ledger_t ledger();

}  // namespace fake_apple

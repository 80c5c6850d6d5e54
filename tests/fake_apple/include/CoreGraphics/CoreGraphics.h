// Linux test build only: the CoreGraphics display services that the macOS collector uses, with the framework's
// signatures and 64-bit type widths, answering from the machine a test installed (fake_machine.h).
#pragma once

#include <IOKit/IOKitLib.h>

typedef double CGFloat;
typedef struct CGPoint { CGFloat x; CGFloat y; } CGPoint;
typedef struct CGSize { CGFloat width; CGFloat height; } CGSize;
typedef struct CGRect { CGPoint origin; CGSize size; } CGRect;

typedef uint32_t CGDirectDisplayID;
enum CGError : int32_t { kCGErrorSuccess = 0 };  // CF_ENUM
typedef struct CGDisplayMode* CGDisplayModeRef;

struct fake::display {
    CGDirectDisplayID id;
    const char* name;  // nullptr: no IOKit port, as on Apple silicon
    bool isMain = false;
    CGSize millimetres = {600, 340};
    size_t modeWidth[2] = {1920, 1920};       // in points, in pixels
    CGRect bounds = {{0, 0}, {1920, 1080}};  // in points
    size_t pixelsWide = 1920, pixelsHigh = 1080;
};

inline const fake::display& fake::shown(uint32_t id)
{
    const auto& all = installed.displays;
    const auto found = std::find_if(all.begin(), all.end(), [id](const display& d) { return d.id == id; });
    return found != all.end() ? *found : throw std::logic_error("no display " + std::to_string(id));
}

inline CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* activeDisplays, uint32_t* displayCount)
{
    const auto& all = fake::installed.displays;
    *displayCount = uint32_t(activeDisplays ? std::min<size_t>(maxDisplays, all.size()) : all.size());
    for (uint32_t i = 0; activeDisplays && i < *displayCount; ++i)
        activeDisplays[i] = all[i].id;
    return kCGErrorSuccess;
}

inline CGRect CGDisplayBounds(CGDirectDisplayID display) { return fake::shown(display).bounds; }

inline size_t CGDisplayPixelsWide(CGDirectDisplayID display) { return fake::shown(display).pixelsWide; }
inline size_t CGDisplayPixelsHigh(CGDirectDisplayID display) { return fake::shown(display).pixelsHigh; }
inline boolean_t CGDisplayIsMain(CGDirectDisplayID display) { return fake::shown(display).isMain; }

inline CGSize CGDisplayScreenSize(CGDirectDisplayID display) { return fake::shown(display).millimetres; }

inline CGDisplayModeRef CGDisplayCopyDisplayMode(CGDirectDisplayID display)
{
    return fake::create<CGDisplayModeRef>({fake::cg_display_mode, display});
}

inline size_t CGDisplayModeGetWidth(CGDisplayModeRef m) { return fake::shown(fake::as(m).number).modeWidth[0]; }
inline size_t CGDisplayModeGetPixelWidth(CGDisplayModeRef m) { return fake::shown(fake::as(m).number).modeWidth[1]; }
inline void CGDisplayModeRelease(CGDisplayModeRef mode) { delete fake::release(fake::as(mode)); }

// Deprecated since macOS 10.9, older than any target Qt 5.15 supports. The port is lent, not given; Apple silicon
// has none.
__attribute__((deprecated)) inline io_service_t CGDisplayIOServicePort(CGDirectDisplayID display)
{
    return fake::shown(display).name ? fake::createIO({fake::io_object, display}, false) : MACH_PORT_NULL;
}

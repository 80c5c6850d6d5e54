// Linux test build only: the CoreGraphics display services that the macOS collector uses, with the framework's
// signatures and 64-bit type widths, answering from the machine a test installed (fake_machine.h).
#pragma once

#include <IOKit/IOKitLib.h>

typedef double CGFloat;
// As the SDK declares them:
// clang-format off
typedef struct CGPoint { CGFloat x; CGFloat y; } CGPoint;
typedef struct CGSize { CGFloat width; CGFloat height; } CGSize;
typedef struct CGRect { CGPoint origin; CGSize size; } CGRect;
// clang-format on
// clang-format on

typedef uint32_t CGDirectDisplayID;
enum CGError : int32_t { kCGErrorSuccess = 0, kCGErrorInvalidConnection = 1002 };  // CF_ENUM
typedef struct CGDisplayMode* CGDisplayModeRef;

struct fake::display {
    iokit io = named;
    std::vector<const char*> names = {};  // by locale, locale and name in turn, the user's preferred last
    bool isMain = false;
    CGSize millimetres = {};                 // none: unknown, as the framework answers
    size_t modeWidth[2] = {1920, 1920};      // in points, in pixels
    CGRect bounds = {{0, 0}, {1920, 1080}};  // in points
    size_t pixelsWide = 1920, pixelsHigh = 1080;
};

inline fake::machine fake::installed;

inline const fake::display& fake::shown(uint32_t id) { return installed.displays.at(id); }

// Without a list, the number of displays; with one, as many of those still there as it holds.
inline CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* activeDisplays, uint32_t* displayCount)
{
    const auto& all = fake::installed.displays;
    const int gone = activeDisplays ? fake::installed.unplugged : 0;  // only a list misses them
    if (gone < 0)
        return kCGErrorInvalidConnection;
    *displayCount = uint32_t(std::min<size_t>(activeDisplays ? maxDisplays : all.size(), all.size() - gone));
    std::transform(all.begin(), std::next(all.begin(), activeDisplays ? *displayCount : 0), activeDisplays,
        [](const auto& display) { return display.first; });
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
__attribute__((deprecated)) inline io_service_t CGDisplayIOServicePort(CGDirectDisplayID id)
{
    return fake::shown(id).io == fake::no_port ? MACH_PORT_NULL : fake::createIO({fake::io_object, id}, false);
}

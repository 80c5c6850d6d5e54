// Linux test build only: the CoreGraphics display services that the macOS collector uses, with
// the framework's signatures and 64-bit type widths. Implemented by ../../fake_machine.cpp.
#pragma once

#include <IOKit/IOKitLib.h>

#include <cstddef>
#include <cstdint>

extern "C" {

typedef double CGFloat;
typedef struct CGPoint { CGFloat x; CGFloat y; } CGPoint;
typedef struct CGSize { CGFloat width; CGFloat height; } CGSize;
typedef struct CGRect { CGPoint origin; CGSize size; } CGRect;

typedef uint32_t CGDirectDisplayID;
typedef enum CGError : int32_t { kCGErrorSuccess = 0, kCGErrorFailure = 1000 } CGError;  // CF_ENUM
typedef struct CGDisplayMode* CGDisplayModeRef;

CGError CGGetActiveDisplayList(uint32_t maxDisplays, CGDirectDisplayID* activeDisplays, uint32_t* displayCount);
CGRect CGDisplayBounds(CGDirectDisplayID display);
size_t CGDisplayPixelsWide(CGDirectDisplayID display);
size_t CGDisplayPixelsHigh(CGDirectDisplayID display);
CGSize CGDisplayScreenSize(CGDirectDisplayID display);
boolean_t CGDisplayIsMain(CGDirectDisplayID display);
CGDisplayModeRef CGDisplayCopyDisplayMode(CGDirectDisplayID display);
size_t CGDisplayModeGetWidth(CGDisplayModeRef mode);
size_t CGDisplayModeGetPixelWidth(CGDisplayModeRef mode);
void CGDisplayModeRelease(CGDisplayModeRef mode);
// Deprecated since macOS 10.9, older than any target Qt 5.15 supports. The port is lent, not given.
io_service_t CGDisplayIOServicePort(CGDirectDisplayID display) __attribute__((deprecated));

}  // extern "C"

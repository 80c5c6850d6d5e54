// Linux test build only: the display information call that the macOS collector uses, answering from the machine a
// test installed (fake_machine.h).
#pragma once

#include <CoreGraphics/CoreGraphics.h>  // the fake's displays

#define kDisplayProductName "DisplayProductName"
enum { kIODisplayOnlyPreferredName = 0x00000200 };

// Only the preferred name is faked: the names dictionary holds one locale's name.
inline CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits)
{
    const fake::value names(fake::cf_dictionary, 0, {"en_US", fake::shown(fake::io(framebuffer).number).name});
    return fake::create<CFDictionaryRef>({fake::cf_dictionary, 0, {kDisplayProductName, names}});
}

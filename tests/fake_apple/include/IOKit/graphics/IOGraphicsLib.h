// Linux test build only: the display information call that the macOS collector uses.
#pragma once

#include <IOKit/IOKitLib.h>

extern "C" {

#define kDisplayProductName "DisplayProductName"
enum { kIODisplayOnlyPreferredName = 0x00000200 };

CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits options);

}  // extern "C"

// Linux test build only: the display information call that the macOS collector uses, answering from the machine a
// test installed (fake_machine.h).
#pragma once

#include <CoreGraphics/CoreGraphics.h>  // the fake's displays

#define kDisplayProductName "DisplayProductName"
enum { kIODisplayOnlyPreferredName = 0x00000200 };

// The product names map each locale to a name: with kIODisplayOnlyPreferredName only the user's preferred one, else
// every localisation, in a dictionary's order, which is none (here the display's own, the preferred last). NULL for a
// port without display information.
inline CFDictionaryRef IODisplayCreateInfoDictionary(io_service_t framebuffer, IOOptionBits options)
{
    const fake::display& d = fake::shown(fake::io(framebuffer).number);
    std::vector<fake::value> names(d.names.begin(), d.names.end()), info;
    if (options & kIODisplayOnlyPreferredName)
        names.erase(names.begin(), names.end() - std::min<size_t>(2, names.size()));
    if (d.io == fake::named)
        info = {kDisplayProductName, {fake::cf_dictionary, 0, names}};
    return d.io == fake::no_info ? nullptr : fake::create<CFDictionaryRef>({fake::cf_dictionary, 0, info});
}

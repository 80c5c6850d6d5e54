// Linux test build only: glibc has no sysctlbyname (and no <sys/sysctl.h> any more); this is the macOS declaration,
// answering from the machine a test installed (fake_machine.h).
#pragma once

#include "fake_machine.h"

#include <cerrno>

inline int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void*, size_t)
{
    const auto& sysctls = fake::installed.sysctls;
    if (!sysctls.count(name))
        return errno = ENOENT, -1;
    const std::string bytes = sysctls.at(name).bytes + std::string(sysctls.at(name).type == fake::cf_string, '\0');
    if (oldp && *oldlenp < bytes.size())
        return errno = ENOMEM, -1;  // too small a buffer for the value
    *oldlenp = bytes.size();
    std::copy_n(bytes.data(), oldp ? bytes.size() : 0, static_cast<char*>(oldp));
    return 0;
}

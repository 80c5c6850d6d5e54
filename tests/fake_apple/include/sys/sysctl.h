// Linux test build only: glibc has no sysctlbyname (and no <sys/sysctl.h> any more); this is the
// macOS declaration, implemented by ../../fake_machine.cpp.
#pragma once

#include <cstddef>

extern "C" int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

// Linux test build only: the Mach types and host calls that the macOS collector uses, with the layouts of the macOS
// 14.2 SDK (arm64), answering from the machine a test installed (fake_machine.h).
#pragma once

#include "fake_machine.h"

typedef unsigned int natural_t;
typedef int integer_t;
typedef int boolean_t;
typedef natural_t mach_port_t;
typedef mach_port_t host_t;
typedef int kern_return_t;
typedef natural_t mach_msg_type_number_t;
typedef uintptr_t vm_size_t;
typedef integer_t host_flavor_t;
typedef integer_t* host_info64_t;

#define MACH_PORT_NULL 0
#define KERN_SUCCESS 0

// Field order as in mach/vm_statistics.h; older kernels fill only a prefix of it.
struct vm_statistics64 {
    natural_t free_count, active_count, inactive_count, wire_count;
    uint64_t zero_fill_count, reactivations, pageins, pageouts, faults, cow_faults, lookups, hits, purges;
    natural_t purgeable_count, speculative_count;
    uint64_t decompressions, compressions, swapins, swapouts;
    natural_t compressor_page_count, throttled_count, external_page_count, internal_page_count;
    uint64_t total_uncompressed_pages_in_compressor;
} __attribute__((aligned(8)));
typedef struct vm_statistics64 vm_statistics64_data_t;

#define HOST_VM_INFO64 4
#define HOST_VM_INFO64_COUNT ((mach_msg_type_number_t)(sizeof(vm_statistics64_data_t) / sizeof(integer_t)))

inline mach_port_t mach_host_self(void) { return 0x103; }

inline kern_return_t host_page_size(host_t host, vm_size_t* out_page_size)  // none is a failure
{
    *out_page_size = fake::installed.pageSize;
    return host == mach_host_self() && *out_page_size != 0 ? KERN_SUCCESS : 5;  // KERN_FAILURE
}

// Fills as much of the newest layout as the caller's count holds, from the oldest layout's 24 numbers (up to
// speculative_count) on, and says how much that was.
inline kern_return_t host_statistics64(
    host_t host, host_flavor_t flavor, host_info64_t out, mach_msg_type_number_t* count)
{
    if (host != mach_host_self() || flavor != HOST_VM_INFO64 || *count < 24 || fake::installed.vmPages.size() != 4)
        return 5;  // KERN_FAILURE
    std::fill_n(out, *count = std::min(*count, HOST_VM_INFO64_COUNT), 0);
    std::memcpy(out, fake::installed.vmPages.data(), 4 * sizeof(natural_t));  // free_count to wire_count
    return KERN_SUCCESS;
}

// The one layout written out field by field; the collector hands the kernel its size.
static_assert(sizeof(vm_statistics64_data_t) == 152 && HOST_VM_INFO64_COUNT == 38, "vm_statistics64 as in the SDK");

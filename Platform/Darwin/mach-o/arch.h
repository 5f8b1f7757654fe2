// The local processor architecture, as the home platform's header of this name reports it.
#pragma once

extern "C" {

using cpu_type_t = int;
using cpu_subtype_t = int;

constexpr cpu_type_t CPU_ARCH_ABI64 = 0x01000000;
constexpr cpu_type_t CPU_TYPE_X86 = 7;
constexpr cpu_type_t CPU_TYPE_X86_64 = CPU_TYPE_X86 | CPU_ARCH_ABI64;
constexpr cpu_type_t CPU_TYPE_ARM = 12;
constexpr cpu_type_t CPU_TYPE_ARM64 = CPU_TYPE_ARM | CPU_ARCH_ABI64;
constexpr cpu_type_t CPU_TYPE_POWERPC = 18;
constexpr cpu_type_t CPU_TYPE_POWERPC64 = CPU_TYPE_POWERPC | CPU_ARCH_ABI64;

struct NXArchInfo {
    const char* name;
    cpu_type_t cputype;
    cpu_subtype_t cpusubtype;
    const char* description;
};

// What this process runs as. Every 64-bit processor that the home platform never had reports itself as
// x86-64, the one whose device class the 64-bit bundles name. Static storage; any thread.
const NXArchInfo* NXGetLocalArchInfo();
}

#include <mach-o/arch.h>

extern "C" const NXArchInfo* NXGetLocalArchInfo() {
    static constexpr NXArchInfo info64{"x86_64", CPU_TYPE_X86_64, 3, "64-bit process"};
    static constexpr NXArchInfo info32{"i386", CPU_TYPE_X86, 3, "32-bit process"};
    return sizeof(void*) == 8 ? &info64 : &info32;
}

# SPDX-License-Identifier: GPL-2.0-or-later
# What makes a fault in the programs harder to use against their users.
if(WIN32)
    target_link_options(quillet_options INTERFACE -Wl,--dynamicbase,--nxcompat,--high-entropy-va)
    include(CheckCXXCompilerFlag)
    check_cxx_compiler_flag(-mguard=cf QUILLET_GUARDS_CONTROL_FLOW)  # clang's has it; GCC for Windows has nothing like it
    if(QUILLET_GUARDS_CONTROL_FLOW)
        target_compile_options(quillet_options INTERFACE -mguard=cf)
        target_link_options(quillet_options INTERFACE -mguard=cf)
    endif()
else()
    target_compile_options(quillet_options INTERFACE -fPIE -fstack-protector-strong)
    target_link_options(quillet_options INTERFACE -Wl,-z,relro,-z,now $<IF:$<BOOL:${QUILLET_STATIC}>,-static-pie,-pie>)
    if(NOT QUILLET_SANITIZE)  # which checks the same, and more closely; -O0 has no room for it
        target_compile_options(quillet_options INTERFACE
                               "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
    endif()
endif()

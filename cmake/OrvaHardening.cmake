# Flags that make a memory error end the process instead of running foreign code: orva_hardening_compile and
# orva_hardening_link, as far as this compiler knows them. For optimised builds: _FORTIFY_SOURCE needs at least -O1, and
# a debug build is better served by the sanitizers.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)  # links programs as position independent if their target property asks for it
set(orva_hardening_compile)
set(orva_hardening_link)
if(ORVA_HARDENING AND NOT ORVA_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    foreach(flag IN ITEMS -fstack-protector-strong -fcf-protection)
        string(MAKE_C_IDENTIFIER orva_has${flag} known)
        check_cxx_compiler_flag(${flag} ${known})
        if(${known})
            list(APPEND orva_hardening_compile ${flag})
        endif()
    endforeach()
    # glibc warns of a level that it, or the compiler, does not support.
    set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
    check_cxx_source_compiles("#include <cstdio>\nint main() { return std::puts(\"\"); }" ORVA_FORTIFY_3)
    unset(CMAKE_REQUIRED_FLAGS)
    list(APPEND orva_hardening_compile -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${ORVA_FORTIFY_3}>,3,2>)
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
        set(orva_hardening_link LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
    endif()
endif()

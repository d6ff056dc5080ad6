# Settings that the targets of this project share. Nothing here is global: a target asks for it by name.

# Compiler settings for our own code: language level, warnings, sanitizers, file names without the machine's path.
function(orva_compile_settings target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON POSITION_INDEPENDENT_CODE ON)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)  # files beyond 2 GiB, and files changed after 2038
        target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} PRIVATE
            -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
            $<$<BOOL:${ORVA_WERROR}>:-Werror>
            -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
            "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${orva_hardening_compile}>")
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
            target_compile_options(${target} PRIVATE -Wno-restrict)  # it sees overlaps in "text" + std::string at -O3
        endif()
        target_link_options(${target} PRIVATE "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${orva_hardening_link}>")
        if(ORVA_BLOCK_SIZE)
            target_compile_definitions(${target} PUBLIC ORVA_BLOCK_SIZE=${ORVA_BLOCK_SIZE})
        endif()
        if(ORVA_SANITIZE)
            target_compile_options(${target} PRIVATE
                -fsanitize=${ORVA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
                $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)  # it takes code that sanitizers add for
                                                                     # uninitialized
            target_link_options(${target} PUBLIC -fsanitize=${ORVA_SANITIZE})
        endif()
    endif()
endfunction()

# For a target whose files take most of their time for large headers of others: compiled as one file they take a fifth
# or less. CMAKE_UNITY_BUILD=OFF compiles them one by one.
function(orva_compile_as_one target)
    if(NOT DEFINED CMAKE_UNITY_BUILD OR CMAKE_UNITY_BUILD)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
    endif()
endfunction()

# Public headers are <orva/NAME.h> in the build tree as in an installed package. The build tree gets links to them, so
# that messages and debuggers show the sources; copies where links are impossible.
function(orva_public_headers)
    foreach(header IN LISTS ARGN)
        get_filename_component(name ${header} NAME)
        file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/orva)
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${PROJECT_BINARY_DIR}/include/orva/${name}
            COPY_ON_ERROR SYMBOLIC)
        install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orva COMPONENT development)
    endforeach()
endfunction()

# The include directories of a target with public headers.
function(orva_public_includes target scope)
    target_include_directories(${target} ${scope}
        $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

# Files installed to `directory`, a path below the prefix, find the shared libraries relative to their own place, so
# that an install tree works under any prefix and can be moved. Packages for a place that the system searches anyway are
# configured with CMAKE_SKIP_INSTALL_RPATH.
function(orva_finds_installed_libraries target directory)
    file(RELATIVE_PATH way /${directory} /${CMAKE_INSTALL_LIBDIR})
    string(REGEX REPLACE "/$" "" path "$<IF:$<PLATFORM_ID:Darwin>,@loader_path,$ORIGIN>/${way}")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${path}")
endfunction()

# Keeps a shared library's copies of the standard library's templates to itself, and keeps the library loaded for ever,
# as a static one keeps the plug-in that it is linked into: threads that have worked with it may go on when the plug-in
# is unloaded, and need the library's code when they end.
function(orva_library_linking target)
    if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
        return()
    endif()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "STATIC_LIBRARY")
        target_link_options(${target} INTERFACE LINKER:-z,nodelete)
    else()
        set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
        target_link_options(${target} PRIVATE LINKER:--version-script=${exports} LINKER:-z,nodelete)
        set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${exports})
    endif()
endfunction()

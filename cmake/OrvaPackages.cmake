# cpack makes one Debian package of each component. They are installed below /usr, so configure as scripts/package does.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The maintainers of orva <maintainers@orva.example>" CACHE STRING "Maintainer: NAME <ADDRESS>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own, in the first line of its description
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/documents.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/control.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/Datasource ${PROJECT_BINARY_DIR}/host)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")  # a version may add names, but removes none before the next
                                                       # SONAME

# One package: orva_package(COMPONENT NAME SECTION SUMMARY TEXT); TEXT follows the common text about orva.
set(CPACK_COMPONENTS_ALL)
macro(orva_package component name section summary text)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}
orva stores rows in blocks of up to 4 MiB, each compressed by itself, with an
index behind them: any range is read by inflating only the blocks it lies in.
Damage is found, named and survived.

${text}")
endmacro()

orva_package(runtime liborva${orva_soversion} libs "block-compressed row files - shared library"
    "This package has what programs that use the library need when they run.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
# The cipher loads libcrypto at first use, so no list of needed libraries names it.
find_program(ORVA_DPKG_QUERY dpkg-query)
mark_as_advanced(ORVA_DPKG_QUERY)
if(ORVA_DPKG_QUERY)
    file(REAL_PATH ${OPENSSL_CRYPTO_LIBRARY} libcrypto)
    get_filename_component(libcrypto ${libcrypto} NAME)
    execute_process(COMMAND ${ORVA_DPKG_QUERY} --search */${libcrypto} OUTPUT_VARIABLE owner ERROR_QUIET)
    string(REGEX MATCH "^[^:,]+" CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${owner}")
endif()

orva_package(development liborva-dev libdevel "block-compressed row files - development files"
    "This package has the headers, what CMake and pkg-config find the library by,
the documents, among them the format of the files, and examples.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)

if(ORVA_BUILD_TOOL)
    orva_package(tool orva utils "block-compressed row files - command line tool"
        "This package has the command orva, which packs rows, reads, appends, joins,
verifies and recovers, with its manual page and completions for shells.")
endif()

if(ORVA_BUILD_PYTHON)
    orva_package(python python3-orva python "block-compressed row files - Python 3 module"
        "This package has the module orva, which reads and writes rows as arrays of
NumPy, and what fsspec and Dask find it by.")
    set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
    foreach(part IN ITEMS MAJOR MINOR)
        get_directory_property(python_${part} DIRECTORY python DEFINITION Python_VERSION_${part})
    endforeach()
    math(EXPR python_next "${python_MINOR} + 1")  # the extension is built for one version of the interpreter
    string(CONCAT CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= ${python_MAJOR}.${python_MINOR}), "
        "python3 (<< ${python_MAJOR}.${python_next}), python3-numpy")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-pandas, python3-fsspec, python3-dask")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
        ${CMAKE_CURRENT_LIST_DIR}/debian/python/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/python/prerm)
endif()

include(CPack)

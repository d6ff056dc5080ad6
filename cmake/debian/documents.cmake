# Runs before the packages are closed: gives each the documents that Debian wants, and puts the command's where Debian's
# programs look for them. cpack runs it once, over the trees of all components.
find_program(gzip gzip REQUIRED)
set(source ${CMAKE_CURRENT_LIST_DIR}/../..)
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)  # of SOURCE_DATE_EPOCH, if set

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(share ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
    set(documents ${share}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    file(MAKE_DIRECTORY ${documents})
    configure_file(${source}/cmake/debian/copyright ${documents}/copyright COPYONLY)
    configure_file(${source}/CHANGELOG.md ${documents}/changelog COPYONLY)
    file(WRITE ${documents}/changelog.Debian
"orva (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * Packaged from its own tree. What is new: changelog.gz.

 -- ${CPACK_PACKAGE_CONTACT}  ${now}
")
    file(GLOB pages ${share}/man/man*/*)
    execute_process(COMMAND ${gzip} -9 --no-name ${documents}/changelog ${documents}/changelog.Debian ${pages}
        COMMAND_ERROR_IS_FATAL ANY)
    if(EXISTS ${share}/zsh/site-functions)
        file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
    endif()
endforeach()

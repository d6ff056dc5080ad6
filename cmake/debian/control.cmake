# Runs once the packages exist. Allows installing library and headers of several architectures together, which this
# cpack has no setting for; and removes the scripts that cpack adds, which run ldconfig a second time beside the
# trigger.
find_program(dpkg_deb dpkg-deb REQUIRED)
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(tree ${package}.tree)
    execute_process(COMMAND ${dpkg_deb} --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
    file(READ ${tree}/DEBIAN/control control)
    if(control MATCHES "Package: lib")
        file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
        string(REPLACE "\nSection:" "\nMulti-Arch: same\nSection:" control "${control}")
        file(WRITE ${tree}/DEBIAN/control "${control}")
    endif()
    execute_process(COMMAND ${dpkg_deb} --root-owner-group --build ${tree} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${tree})
endforeach()

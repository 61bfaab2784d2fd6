# What `cmake --install` puts where, and the Debian package made of it (`make package`).
# The program itself lives in a private folder: users start it through the launcher, which runs
# it from their own working tree so that its relative paths are theirs.
set(OGM_PACKAGE orvia-gonio-manager)
set(OGM_PACKAGING ${CMAKE_SOURCE_DIR}/packaging)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

install(TARGETS OrviaGonioManager RUNTIME DESTINATION lib/${OGM_PACKAGE})
install(TARGETS gnxsim gnxctl RUNTIME DESTINATION bin)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/gnxctl-monitor@.service
    ${CMAKE_SOURCE_DIR}/packaging/systemd/gnxctl-archive.service DESTINATION lib/systemd/system)
install(PROGRAMS ${OGM_PACKAGING}/${OGM_PACKAGE} DESTINATION bin)
install(FILES ${CMAKE_SOURCE_DIR}/Data/format.vtl DESTINATION share/${OGM_PACKAGE})
install(FILES ${OGM_PACKAGING}/${OGM_PACKAGE}.desktop DESTINATION share/applications)
install(FILES ${OGM_PACKAGING}/${OGM_PACKAGE}.svg DESTINATION share/icons/hicolor/scalable/apps)
install(FILES ${OGM_PACKAGING}/org.orvia.gonio_manager.metainfo.xml DESTINATION share/metainfo)
install(FILES ${OGM_PACKAGING}/70-orvia-gonio-manager.rules DESTINATION lib/udev/rules.d)
install(FILES ${OGM_PACKAGING}/copyright ${CMAKE_SOURCE_DIR}/docs/gnxctl.md ${CMAKE_SOURCE_DIR}/docs/mqtt.md
    ${CMAKE_SOURCE_DIR}/docs/archive.md
    ${CMAKE_SOURCE_DIR}/docs/bearings.md ${CMAKE_SOURCE_DIR}/docs/screenshot-bearings.png
    DESTINATION share/doc/${OGM_PACKAGE})

# Manual pages and the changelog, compressed as Debian wants them: best, and without a timestamp.
set(OGM_COMPRESSED)
foreach(source man/orvia-gonio-manager.1 man/OrviaGonioManager.1 man/gnxsim.1 man/gnxctl.1 changelog)
    get_filename_component(name ${source} NAME)
    set(out ${CMAKE_BINARY_DIR}/packaging/${name}.gz)
    add_custom_command(OUTPUT ${out}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
        COMMAND gzip -9 -n -c ${OGM_PACKAGING}/${source} > ${out}
        DEPENDS ${OGM_PACKAGING}/${source} VERBATIM)
    list(APPEND OGM_COMPRESSED ${out})
    if(name STREQUAL "changelog")
        install(FILES ${out} DESTINATION share/doc/${OGM_PACKAGE})
    else()
        install(FILES ${out} DESTINATION share/man/man1)
    endif()
endforeach()
add_custom_target(ogm_packaging_files ALL DEPENDS ${OGM_COMPRESSED})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${OGM_PACKAGE})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "configure and read out a GNX goniometer receiver")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Orvia Gonio Manager developers <gonio@orvia.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${OGM_HOMEPAGE})
string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Orvia Gonio Manager connects to a GNX134 or GNX234 goniometer receiver over\n"
    "its USB serial port: versions and status, setups, clock, favourite platforms,\n"
    "GPS formats, live and stored messages with their direction of arrival,\n"
    "command scripts and firmware upload.\n"
    "\n"
    "gnxctl does the same from a shell, and streams what a receiver hears to an\n"
    "MQTT broker as an unattended station.\n"
    "\n"
    "The receiver emulator gnxsim is included, for training without hardware.")
# Libraries come from the binaries; the platform plugin and the SQLite driver (the map's tiles)
# are loaded at run time, so they are named.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, libqt6sql6-sqlite, libqt6sql6-psql")
set(CPACK_STRIP_FILES ON)
include(CPack)

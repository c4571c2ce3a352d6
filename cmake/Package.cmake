# cpack -G DEB: the programs as packages of Debian, NAME_VERSION_ARCHITECTURE.deb: pelmoscope with
# pelmobus and pmd, and pelmowatch where it is built, which needs nothing of the other.
#
# The tool's package carries the two modules: the tool doesn't start without OpenSSL 1.1.1, and Debian
# 12 has no package of it. They are in the tool's own folder, where no other program looks. Other
# dependencies are the libraries that the binaries are linked with; scripts/package_test.sh checks
# that the lists are complete. Neither package has scripts, users or files of settings: the units are
# samples, which run under a user that exists as long as they do.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelmoscope)
set(CPACK_PACKAGE_CONTACT "the pelmoscope developers <pelmoscope@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tool)
set(libraries "libc6 (>= 2.36), libgcc-s1 (>= 12), libpcap0.8 (>= 1.10), libstdc++6 (>= 12), zlib1g")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME pelmoscope)
set(CPACK_DEBIAN_TOOL_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${libraries}")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "watch a Pelmo message bus from the network
Captures the bus's UDP packets, live or from a saved capture, checks and counts
them, charges each message to its subject and its sender, and prints a table
at each interval. It only listens. Beside it: pelmobus, a client of the bus for
the shell, and pmd, a bus daemon for one machine.")

if(PELMO_WATCH_BUILT)
    list(APPEND CPACK_COMPONENTS_ALL watch)
    set(CPACK_DEBIAN_WATCH_PACKAGE_NAME pelmowatch)
    set(CPACK_DEBIAN_WATCH_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_WATCH_PACKAGE_SECTION net)
    set(CPACK_DEBIAN_WATCH_PACKAGE_DEPENDS
        "${libraries}, libarchive13 (>= 3.6), libmicrohttpd12 (>= 0.9.75), libncursesw6 (>= 6.4), libprometheus-cpp-core1.0, libseccomp2 (>= 2.5), libtinfo6 (>= 6.4)")
    set(CPACK_DEBIAN_WATCH_PACKAGE_SUGGESTS "pelmoscope, prometheus")
    set(CPACK_COMPONENT_WATCH_DESCRIPTION
        "watch a Pelmo message bus from a browser, a terminal or a program
Captures and counts as pelmoscope does, and shows the same intervals as lines of
JSON, as metrics and a live page over HTTP, as a full screen in the terminal,
and as a page of a saved capture. It only listens, and gives up all rights once
its source is open.")
endif()

include(CPack)

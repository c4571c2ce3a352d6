# cpack -G DEB: the programs as a package of Debian, pelmoscope_VERSION_ARCHITECTURE.deb.
#
# It carries the two modules: the tool doesn't start without OpenSSL 1.1.1, and Debian 12 has no
# package of it. They are in the tool's own folder, where no other program looks. Its other
# dependencies are the libraries that the binary is linked with; scripts/package_test.sh checks that
# the list is complete.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelmoscope)
set(CPACK_PACKAGE_CONTACT "the pelmoscope developers <pelmoscope@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "watch a Pelmo message bus from the network")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME pelmoscope)
set(CPACK_DEBIAN_TOOL_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
    "libc6 (>= 2.36), libgcc-s1 (>= 12), libpcap0.8 (>= 1.10), libstdc++6 (>= 12), zlib1g")
if(PELMO_WATCH AND PELMO_WATCH_BUILT)
    string(APPEND CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
        ", libmicrohttpd12, libncursesw6, libprometheus-cpp-core1.0, libtinfo6")
endif()
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "Captures the bus's UDP packets, live or from a saved capture, checks and counts
them, charges each message to its subject and its sender, and prints a table
at each interval. It only listens. Beside it: pelmowatch, which shows the
same for machines, pelmobus, a client of the bus for the shell, and pmd, a bus daemon for one machine.")

include(CPack)

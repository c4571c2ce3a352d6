# cpack -G DEB: the programs and the library as packages of Debian, NAME_VERSION_ARCHITECTURE.deb.
#
# The tool's package carries the two modules: the tool doesn't start without OpenSSL 1.1.1, and Debian
# 12 has no package of it. They are in the tool's own folder, where no other program looks. Other
# dependencies are the libraries that the binaries are linked with; scripts/package_test.sh checks
# that the lists are complete. The programs don't need the library's package: they have it built in. No
# package has users or files of settings: the units are samples, which run under a user that exists as
# long as they do. Only the one for Python has scripts.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelmoscope)
set(CPACK_PACKAGE_CONTACT "the pelmoscope developers <pelmoscope@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL "")
set(runtime "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12), zlib1g")
set(capture "${runtime}, libpcap0.8 (>= 1.10)")

# pelmo_package(COMPONENT NAME SECTION DEPENDS DESCRIPTION): a package of one component.
macro(pelmo_package component name section depends description)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${description}")
endmacro()

pelmo_package(tool pelmoscope net "${capture}"
    "watch a Pelmo message bus from the network
Captures the bus's UDP packets, live or from a saved capture, checks and counts
them, charges each message to its subject and its sender, and prints a table
at each interval. It only listens.")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "pelmobus, pelmowatch, wireshark")

pelmo_package(bus pelmobus net "${runtime}"
    "Pelmo message bus from the shell, and a daemon for one machine
pelmobus sends, listens, asks and answers on a Pelmo message bus, as text or as
lines of JSON. pmd is a bus daemon for the programs of one machine, which can
join them to the bus of a network.")
set(CPACK_DEBIAN_BUS_PACKAGE_SUGGESTS pelmoscope)

if(PELMO_WATCH_BUILT)
    pelmo_package(watch pelmowatch net
        "${capture}, libarchive13 (>= 3.6), libmicrohttpd12 (>= 0.9.75), libncursesw6 (>= 6.4), libprometheus-cpp-core1.0, libseccomp2 (>= 2.5), libtinfo6 (>= 6.4)"
        "watch a Pelmo message bus from a browser, a terminal or a program
Captures and counts as pelmoscope does, and shows the same intervals as lines of
JSON, as metrics and a live page over HTTP, as a full screen in the terminal,
and as a page of a saved capture. It only listens, and gives up all rights once
its source is open.")
    set(CPACK_DEBIAN_WATCH_PACKAGE_SUGGESTS "pelmoscope, prometheus")
endif()

if(PELMO_BRIDGE_BUILT)
    pelmo_package(bridge pelmobridge net "${runtime}, libnats3.4 (>= 3.4)"
        "bridge between a Pelmo message bus and NATS
Carries messages between a Pelmo bus and NATS, at most once as plain subjects
and at least once by streams of JetStream, and requests with their answers.")
    set(CPACK_DEBIAN_BRIDGE_PACKAGE_SUGGESTS "pelmobus, nats-server")
endif()

pelmo_package(library libpelmo0 libs "${runtime}"
    "client library of the Pelmo message bus
Self-describing messages, queues, timers and dispatchers, and transports to a
bus daemon and from process to process.")
# The system's cache of libraries is renewed; packages of programs linked with it depend on it.
file(WRITE ${CMAKE_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
file(WRITE ${CMAKE_BINARY_DIR}/debian/shlibs "libpelmo 0 libpelmo0 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/debian/triggers ${CMAKE_BINARY_DIR}/debian/shlibs)

pelmo_package(dev libpelmo-dev libdevel ""
    "client library of the Pelmo message bus, for development
Headers for C and C++, and files for pkg-config and CMake.")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)  # on the same version of it
set(CPACK_COMPONENT_DEV_DEPENDS library)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS libpelmo-doc)

if(PELMO_REFERENCE_BUILT)
    pelmo_package(doc libpelmo-doc doc ""
        "client library of the Pelmo message bus, documents
The reference of the public calls, for a browser and as manual pages.")
    set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
endif()

# Python's byte code is made and removed by the system's own tools, as for its own packages.
if(PELMO_PYTHON_BUILT)
    pelmo_package(python python3-pelmo python
        "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12), python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}), python3 (<< ${Python3_VERSION_MAJOR}.${PELMO_PYTHON_NEXT})"
        "client library of the Pelmo message bus, for Python
Messages as mappings, sent and received with asyncio or with threads.")
    set(CPACK_COMPONENT_PYTHON_DEPENDS library)  # the same version of it
    file(WRITE ${CMAKE_BINARY_DIR}/debian/postinst
        "#!/bin/sh\nset -e\n[ \"$1\" != configure ] || py3compile -p python3-pelmo\n")
    file(WRITE ${CMAKE_BINARY_DIR}/debian/prerm "#!/bin/sh\nset -e\npy3clean -p python3-pelmo\n")
    file(CHMOD ${CMAKE_BINARY_DIR}/debian/postinst ${CMAKE_BINARY_DIR}/debian/prerm PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
        ${CMAKE_BINARY_DIR}/debian/postinst ${CMAKE_BINARY_DIR}/debian/prerm)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION ON)
endif()

include(CPack)

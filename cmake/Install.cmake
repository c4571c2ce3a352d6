# cmake --install: the tool with its two modules, the programs beside it, manual pages, completions,
# unit samples, the operators' guide and the licence texts of third parties; and the library with its
# headers, its files for pkg-config and CMake, and its reference. Each component goes into a package
# (Package.cmake): "tool", "bus", "watch" and "bridge" are programs, "library" is what a program needs at run
# time, "dev" what it is built with, "doc" the reference, "python" the package
# for Python.
#
# The modules must be beside the program that loads them, and no other program should find them, so
# program and modules go to a folder of their own, and bin/ gets a link. The set-up puts the modules
# into the build's bin folder.

set(PELMO_TOOL_DIR lib/pelmoscope)
file(RELATIVE_PATH tool_from_bin /${CMAKE_INSTALL_BINDIR} /${PELMO_TOOL_DIR}/pelmoscope)

install(TARGETS pelmoscope RUNTIME DESTINATION ${PELMO_TOOL_DIR} COMPONENT tool)
install(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libcrypto.so.1.1
              ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libssl.so.1.1
        DESTINATION ${PELMO_TOOL_DIR} COMPONENT tool)
install(CODE "
    set(bin \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    file(MAKE_DIRECTORY \"\${bin}\")
    file(CREATE_LINK \"${tool_from_bin}\" \"\${bin}/pelmoscope\" SYMBOLIC)
    message(STATUS \"Installing: \${bin}/pelmoscope -> ${tool_from_bin}\")"
    COMPONENT tool)
install(TARGETS pelmobus pmd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT bus)

# What is laid with programs, whatever they are: pages and completions; the guide, and who made what, in
# the documents of their package.
function(pelmo_install_texts component package)
    set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
    install(FILES docs/OPERATING.md docs/WIRE.md CHANGELOG.md DESTINATION ${documents}
        COMPONENT ${component})
    install(FILES docs/THIRD_PARTY.md DESTINATION ${documents} RENAME copyright COMPONENT ${component})
    foreach(program IN LISTS ARGN)
        install(FILES docs/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
        install(FILES completions/${program}.bash
                DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program}
                COMPONENT ${component})
        install(FILES completions/_${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
                COMPONENT ${component})
    endforeach()
endfunction()

pelmo_install_texts(tool pelmoscope pelmoscope)
pelmo_install_texts(bus pelmobus pelmobus pmd)
install(FILES share/wireshark/pelmo.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmo/wireshark
    COMPONENT tool)
install(FILES docs/pelmoscope.service docs/licenses/OpenSSL-1.1.1.txt
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelmoscope COMPONENT tool)
install(FILES docs/pmd.service docs/pelmo-messages.schema.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelmobus COMPONENT bus)

# pelmowatch, where it is built: beside the texts what other programs read, the schemas and what
# Prometheus and its dashboards take. The licences are of what is compiled into it.
if(PELMO_WATCH_BUILT)
    install(TARGETS pelmowatch RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT watch)
    pelmo_install_texts(watch pelmowatch pelmowatch)
    install(FILES docs/pelmowatch.schema.json docs/pelmowatch-report.schema.json
                  docs/pelmowatch-compare.schema.json docs/pelmowatch-source.schema.json
                  docs/pelmo-messages.schema.json
            DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmowatch COMPONENT watch)
    install(DIRECTORY docs/prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmowatch COMPONENT watch)
    install(FILES docs/pelmowatch.service docs/licenses/uPlot.txt
                  docs/licenses/RapidJSON.txt
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelmowatch COMPONENT watch)
endif()

if(PELMO_BRIDGE_BUILT)
    install(TARGETS pelmobridge RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT bridge)
    pelmo_install_texts(bridge pelmobridge pelmobridge)
    install(FILES docs/BRIDGE.md docs/pelmobridge.service DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelmobridge
            COMPONENT bridge)
endif()

foreach(header IN LISTS PELMO_PUBLIC_HEADERS)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES lib/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmo/${folder}
            COMPONENT dev)
endforeach()
install(TARGETS pelmo EXPORT pelmo
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)

install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libpelmo-dev COMPONENT dev)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Pelmo)
install(EXPORT pelmo NAMESPACE Pelmo:: FILE PelmoConfig.cmake DESTINATION ${package_dir}
        COMPONENT dev)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/PelmoConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/PelmoConfigVersion.cmake DESTINATION ${package_dir}
        COMPONENT dev)

# The prefix is derived from the file's own place, since it is chosen at the install.
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/pelmo.pc.in ${CMAKE_BINARY_DIR}/pelmo.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pelmo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

set(components library dev)
set(packages libpelmo0 libpelmo-dev)
if(PELMO_REFERENCE_BUILT)
    install(DIRECTORY ${PELMO_REFERENCE_DIR}/html DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libpelmo-doc
            COMPONENT doc)
    install(DIRECTORY ${PELMO_REFERENCE_DIR}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT doc)
    list(APPEND components doc)
    list(APPEND packages libpelmo-doc)
endif()
if(PELMO_PYTHON_BUILT)
    # Where the system's interpreter looks under /usr.
    set(PELMO_PYTHON_DIR lib/python3/dist-packages CACHE STRING "the folder of Python packages")
    install(TARGETS pelmo_python LIBRARY DESTINATION ${PELMO_PYTHON_DIR}/pelmo COMPONENT python)
    install(DIRECTORY python/pelmo DESTINATION ${PELMO_PYTHON_DIR} COMPONENT python
            FILES_MATCHING PATTERN "*.py" PATTERN "*.pyi" PATTERN "py.typed"
            PATTERN "__pycache__" EXCLUDE)
    install(DIRECTORY examples/python/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-pelmo/examples
            COMPONENT python USE_SOURCE_PERMISSIONS)
    install(FILES docs/PYTHON.md docs/licenses/pybind11.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-pelmo COMPONENT python)
    list(APPEND components python)
    list(APPEND packages python3-pelmo)
endif()
foreach(component package IN ZIP_LISTS components packages)
    install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
    install(FILES docs/THIRD_PARTY.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
            RENAME copyright COMPONENT ${component})
endforeach()

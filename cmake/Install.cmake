# cmake --install: the tool with its two modules, the programs beside it, manual pages, completions,
# unit samples, the operators' guide and the licence texts of third parties; and the library with its
# headers and its files for pkg-config and CMake. The component "tool" goes into the package
# (Package.cmake), "library" is all else.
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

set(programs_of_bin pelmobus pmd)
if(PELMO_WATCH AND PELMO_WATCH_BUILT)
    list(APPEND programs_of_bin pelmowatch)
    install(FILES docs/pelmowatch.schema.json docs/pelmowatch-report.schema.json
            DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmowatch
            COMPONENT tool)
    install(DIRECTORY docs/prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmowatch COMPONENT tool)
    install(FILES docs/pelmowatch.service DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tool)
endif()
install(TARGETS ${programs_of_bin} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)

foreach(program IN ITEMS pelmoscope ${programs_of_bin})
    install(FILES docs/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    install(FILES completions/${program}.bash
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program}
            COMPONENT tool)
    install(FILES completions/_${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
            COMPONENT tool)
endforeach()
install(FILES docs/OPERATING.md docs/pelmoscope.service docs/pmd.service CHANGELOG.md docs/THIRD_PARTY.md
              docs/licenses/OpenSSL-1.1.1.txt docs/licenses/uPlot.txt
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tool)

foreach(header IN LISTS PELMO_PUBLIC_HEADERS)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES lib/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmo/${folder}
            COMPONENT library)
endforeach()
install(TARGETS pelmo EXPORT pelmo
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT library)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Pelmo)
install(EXPORT pelmo NAMESPACE Pelmo:: FILE PelmoConfig.cmake DESTINATION ${package_dir}
        COMPONENT library)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/PelmoConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/PelmoConfigVersion.cmake DESTINATION ${package_dir}
        COMPONENT library)

# The prefix is derived from the file's own place, since it is chosen at the install.
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/pelmo.pc.in ${CMAKE_BINARY_DIR}/pelmo.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pelmo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT library)

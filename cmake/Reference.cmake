# The target "reference": the public calls as pages for a browser and as manual pages in section 3, where
# Doxygen is found. Any warning of Doxygen's ends it with an error.

option(PELMO_REFERENCE "make the reference of the library, where Doxygen is found" OFF)
find_program(PELMO_DOXYGEN doxygen)
set(PELMO_REFERENCE_BUILT OFF)
if(NOT PELMO_REFERENCE OR NOT PELMO_DOXYGEN)
    return()
endif()
set(PELMO_REFERENCE_BUILT ON)

set(PELMO_REFERENCE_DIR ${CMAKE_BINARY_DIR}/reference)
list(TRANSFORM PELMO_PUBLIC_HEADERS PREPEND ${CMAKE_SOURCE_DIR}/lib/ OUTPUT_VARIABLE headers)
set(PELMO_REFERENCE_FRONT ${CMAKE_SOURCE_DIR}/docs/LIBRARY.md)
list(JOIN headers " " PELMO_REFERENCE_INPUT)
set(PELMO_REFERENCE_INPUT "${PELMO_REFERENCE_INPUT} ${PELMO_REFERENCE_FRONT}")
configure_file(docs/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
add_custom_command(OUTPUT ${PELMO_REFERENCE_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PELMO_REFERENCE_DIR}
    COMMAND ${PELMO_DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/doxygen_manuals.py
            ${PELMO_REFERENCE_DIR}/man/man3 ${PELMO_REFERENCE_DIR}/man3
    DEPENDS ${headers} ${PELMO_REFERENCE_FRONT} ${CMAKE_BINARY_DIR}/Doxyfile
            ${CMAKE_SOURCE_DIR}/scripts/doxygen_filter.py ${CMAKE_SOURCE_DIR}/scripts/doxygen_manuals.py
    VERBATIM)
add_custom_target(reference ALL DEPENDS ${PELMO_REFERENCE_DIR}/html/index.html)

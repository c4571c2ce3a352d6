# What all targets of the tree share: the warnings, and a function that makes a library of a folder.

add_library(pelmo_options INTERFACE)
target_compile_options(pelmo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${PELMO_WERROR}>:-Werror>)

# The compiler only checks the sources: it makes no objects, and the link and archive steps are left
# out.
option(PELMO_SYNTAX_ONLY "check the sources without building anything" OFF)
if(PELMO_SYNTAX_ONLY)
    target_compile_options(pelmo_options INTERFACE -fsyntax-only)
    set(CMAKE_CXX_ARCHIVE_CREATE "${CMAKE_COMMAND} -E true")
    set(CMAKE_CXX_ARCHIVE_FINISH "${CMAKE_COMMAND} -E true")
    set(CMAKE_CXX_CREATE_SHARED_LIBRARY "${CMAKE_COMMAND} -E true")
    set(CMAKE_CXX_CREATE_SHARED_MODULE "${CMAKE_COMMAND} -E true")
    set(CMAKE_CXX_LINK_EXECUTABLE "${CMAKE_COMMAND} -E true")
endif()

# Most of what a source takes to compile is reading the standard library's headers. They can be read once for
# all folders. A source still includes what it uses: most configurations go without this, since g++ 12 then
# forgets that these headers aren't ours, and warns of faults in them that aren't there.
option(PELMO_PRECOMPILE "read the standard headers once for all sources" OFF)
set(PELMO_STANDARD_HEADERS <algorithm> <array> <atomic> <charconv> <cmath> <cstdio> <cstdlib> <cstring> <memory>
    <new> <optional> <span> <string> <string_view> <utility> <vector>)
function(pelmo_precompile name)
    if(PELMO_PRECOMPILE AND name STREQUAL pelmo_base)
        target_precompile_headers(pelmo_base PRIVATE ${PELMO_STANDARD_HEADERS})
    elseif(PELMO_PRECOMPILE)
        target_precompile_headers(${name} REUSE_FROM pelmo_base)
    endif()
endfunction()

# pelmo_library(NAME [libraries it stands on ...]): the sources of this folder and its
# rooms, as a static library.
function(pelmo_library name)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
    list(FILTER sources EXCLUDE REGEX "/main\\.cc$")
    if(NOT sources)
        # A folder with headers only still gets a target that others can link.
        add_library(${name} INTERFACE)
        target_link_libraries(${name} INTERFACE ${ARGN})
        return()
    endif()
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC ${ARGN} PRIVATE pelmo_options)
    pelmo_precompile(${name})
endfunction()

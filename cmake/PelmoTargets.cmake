# What every target of the tree shares: the warnings, and one way to say "a library per folder".

add_library(pelmo_options INTERFACE)
target_compile_options(pelmo_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${PELMO_WERROR}>:-Werror>)

# pelmo_library(NAME [libraries it stands on ...]): the sources of this folder, as a static library.
function(pelmo_library name)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
    list(FILTER sources EXCLUDE REGEX "/main\\.cc$")
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC ${ARGN} PRIVATE pelmo_options)
endfunction()

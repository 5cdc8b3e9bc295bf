# Compiler settings shared by every target, and the two ways a target is linked:
# as the library (everything of the host stays undefined) or as a host executable
# (which supplies those symbols to the library at run time).

include(${CMAKE_CURRENT_LIST_DIR}/KxHostExecutable.cmake)

add_library(kx_warnings INTERFACE)
target_compile_options(kx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  # g++ 12 sees overlapping copies in every inlined concatenation of strings.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

if(KX_SANITIZE)
  # Its sanitizer code hides from g++ that the parts of a regular expression are initialised.
  target_compile_options(kx_warnings INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_compile_options(-fsanitize=${KX_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KX_SANITIZE})
endif()

# Names the sources of one room of the library.
function(kx_room_sources)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(kxtranscode PRIVATE ${ARGN})
endfunction()

# Headers of SQLite and libav* are used, their libraries are not linked: the symbols
# come from the host executable when they are first called.
function(kx_configure_library target)
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    PRIVATE ${PROJECT_SOURCE_DIR})
  target_include_directories(${target} SYSTEM PRIVATE
    ${SQLITE_INCLUDE_DIRS} ${LIBAV_INCLUDE_DIRS})
  target_compile_options(${target} PRIVATE -fsemantic-interposition)
  target_link_libraries(${target} PRIVATE
    $<BUILD_INTERFACE:kx_warnings> $<BUILD_INTERFACE:Boost::filesystem>)
  target_link_options(${target} PRIVATE
    LINKER:-z,lazy LINKER:--as-needed LINKER:--unresolved-symbols=ignore-all)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()

# A host executable of this project.
function(kx_own_executable target)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${target} PRIVATE kx_warnings)
  kx_host_executable(${target})
endfunction()

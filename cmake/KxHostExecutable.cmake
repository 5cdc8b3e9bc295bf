# For this project and, installed, for every program that loads the library.

# A host executable: the host layer goes in whole and is exported to the library, and SQLite
# and libav* are linked even where the executable itself never calls them.
function(kx_host_executable target)
  target_link_libraries(${target} PRIVATE
    kxtranscode::kxtranscode
    "-Wl,--whole-archive" kxtranscode::kxhost "-Wl,--no-whole-archive"
    PkgConfig::SQLITE PkgConfig::LIBAV Threads::Threads)
  # As an option, because flags between libraries are reordered away from them.
  target_link_options(${target} PRIVATE
    -rdynamic LINKER:--no-as-needed)
endfunction()

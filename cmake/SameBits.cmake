# The same sources give the same bits, wherever they are built. Whoever takes the repository into a build of
# his own has flags of his own. tests/packaging/same_bits.py builds twice.

# No file names the folder that it was compiled in. A debugger finds the sources by that name, and llvm-cov.
if(NOT VEMO_SANITIZE)
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>")
endif()

# Archives without times and users, however binutils was configured.
foreach(step CREATE APPEND)
  string(REGEX REPLACE "^(<CMAKE_AR> [a-z]+) " "\\1D " CMAKE_CXX_ARCHIVE_${step} "${CMAKE_CXX_ARCHIVE_${step}}")
endforeach()
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")

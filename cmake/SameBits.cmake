# Reproducible builds: the same sources give the same bits, wherever they are built. A project that includes this one
# sets its own flags. tests/packaging/same-bits builds twice and compares.

# No file names the folder that it was compiled in. Debug builds keep it for the debugger, sanitized ones for llvm-cov.
if(NOT VEMO_SANITIZE)
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>")
endif()

# Static libraries without times and users, however binutils was configured.
foreach(step CREATE APPEND)
  string(REGEX REPLACE "^(<CMAKE_AR> [a-z]+) " "\\1D " CMAKE_CXX_ARCHIVE_${step} "${CMAKE_CXX_ARCHIVE_${step}}")
endforeach()
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")

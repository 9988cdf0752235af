# What makes a mistake in memory harder to abuse, for everything that is built here. Whoever takes the
# repository into a build of his own has flags of his own. tests/packaging/hardening.py looks at the files.

# Position independent, so that addresses differ from start to start.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong)
# The library's checked calls need an optimising compiler; the sanitizers check more, and do not know them.
if(NOT VEMO_SANITIZE)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
endif()

# Jumps and returns are checked where the processor can.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection HAS_CF_PROTECTION)
check_cxx_compiler_flag(-mbranch-protection=standard HAS_BRANCH_PROTECTION)
if(HAS_CF_PROTECTION)
  add_compile_options(-fcf-protection)
elseif(HAS_BRANCH_PROTECTION)
  add_compile_options(-mbranch-protection=standard)
endif()

# What the loader fills in is read-only from then on, and no stack is executable.
add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)

# Hardening for everything that is built here: it makes memory errors harder to exploit. A project that includes this
# one sets its own flags. tests/packaging/hardening.py checks the built files.

# Position independent, so that addresses differ at each start.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong)
# The C library's checked calls need optimisation. The sanitizers check more, and do not support them.
if(NOT VEMO_SANITIZE)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
endif()

# Checks jumps and returns on processors that can.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection HAS_CF_PROTECTION)
check_cxx_compiler_flag(-mbranch-protection=standard HAS_BRANCH_PROTECTION)
if(HAS_CF_PROTECTION)
  add_compile_options(-fcf-protection)
elseif(HAS_BRANCH_PROTECTION)
  add_compile_options(-mbranch-protection=standard)
endif()

# The loader's tables are read-only once they are filled, and no stack is executable.
add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)

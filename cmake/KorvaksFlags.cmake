# Compiler and linker flags of the project, in one place.
#
#   korvaks_warnings   warnings as errors, for everything we write
#   korvaks_raises     for code that raises pass through: nothing throws there
#   korvaks_library    what lib/ is compiled with: that, and hidden symbols

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_SKIP_BUILD_RPATH OFF)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

set(KORVAKS_SANITIZE "" CACHE STRING "sanitizers to build with, as for -fsanitize")

add_compile_definitions(_GNU_SOURCE)
add_compile_options(-fno-omit-frame-pointer)
if(KORVAKS_SANITIZE)
  add_compile_options(-fsanitize=${KORVAKS_SANITIZE} -fno-sanitize-recover=all -O1)
  add_link_options(-fsanitize=${KORVAKS_SANITIZE})
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection)
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  # Not for sanitizers: their runtimes define functions of other libraries (of XDR among them) only to call the true
  # ones, and the linker would take the library that holds those for unneeded.
  add_link_options(-Wl,--as-needed)
endif()
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)

add_library(korvaks_warnings INTERFACE)
target_compile_options(korvaks_warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)

# A compiler that is not told so refers to the C++ runtime for the case that a call throws. What is left of it without
# optimisation is linked in: to load that library takes a fifth of the system calls of a tool's start.
add_library(korvaks_raises INTERFACE)
target_compile_options(korvaks_raises INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
if(NOT KORVAKS_SANITIZE)
  target_link_options(korvaks_raises INTERFACE -static-libstdc++ -static-libgcc)
endif()

add_library(korvaks_library INTERFACE)
# Calls inside the library are bound to the library's own functions, so they may be inlined; calls
# out of it are bound at start, so they need no table of jumps.
target_compile_options(korvaks_library INTERFACE -fvisibility=hidden -fno-semantic-interposition -fno-plt)
# The library has threads and handlers of its own, so it is never unloaded.
target_link_options(korvaks_library INTERFACE -Wl,-Bsymbolic-functions -Wl,-z,nodelete)
# Sanitizer runtimes are bound when the program starts; everything else must be bound at the link.
if(NOT KORVAKS_SANITIZE)
  target_link_options(korvaks_library INTERFACE -Wl,-z,defs)
endif()
target_link_libraries(korvaks_library INTERFACE korvaks_raises korvaks_warnings)

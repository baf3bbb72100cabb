# find_package(korvaks): the target korvaks::korvaks. What the library itself links is no business of its users.
include(${CMAKE_CURRENT_LIST_DIR}/korvaksTargets.cmake)

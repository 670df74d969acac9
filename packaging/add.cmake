# The preset `package` names this file, so that what only packages need is no option of the build.
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL add_subdirectory packaging)

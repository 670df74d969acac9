# The preset `package` names this file, so that what only packages need is no option of the build.
# They come last, since they are made of what the others install. A deferred call may include a
# file, but not add a folder.
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL include packaging/packages.cmake)

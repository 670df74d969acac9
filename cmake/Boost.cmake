# Header-only Boost: Interprocess and DateTime.
find_package(Boost QUIET)
if(NOT Boost_FOUND OR Boost_VERSION VERSION_LESS 1.81)
  message(FATAL_ERROR
    "orvane needs Boost 1.81 or newer (found: ${Boost_VERSION}): with an older one, a process that is "
    "killed inside a queue's lock hangs its peer for ever. On Debian 12 install libboost1.81-dev, on "
    "newer systems libboost-dev.")
endif()

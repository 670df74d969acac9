# Header-only Boost: Interprocess and DateTime. Sets ORVANE_BOOST_MISSING to what is wrong, if anything
# is. The installed package asks the same question, in this same file.
cmake_policy(SET CMP0093 NEW)  # Boost_VERSION is 1.81.0 and not 108100
find_package(Boost QUIET)
set(ORVANE_BOOST_MISSING "")
if(NOT Boost_FOUND OR Boost_VERSION VERSION_LESS 1.81)
  string(CONCAT ORVANE_BOOST_MISSING
    "orvane needs Boost 1.81 or newer (found: ${Boost_VERSION}): with an older one, a process that is "
    "killed inside a queue's lock hangs its peer for ever. On Debian 12 install libboost1.81-dev, on "
    "newer systems libboost-dev.")
endif()

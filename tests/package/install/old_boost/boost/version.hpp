// All that CMake reads of a Boost: its version, here an old one.
#define BOOST_VERSION 107400
#define BOOST_LIB_VERSION "1_74"

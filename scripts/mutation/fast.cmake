# Makes the build for ./dev mutants faster: each file is compiled a hundred times, so what all of them
# include of others is compiled once. Nothing of this project is in here: that is what gets broken.
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL orvane_precompile)

function(orvane_precompile)
  set(standard <algorithm> <chrono> <filesystem> <fstream> <functional> <locale> <memory> <optional>
    <sstream> <string> <string_view> <vector>)
  foreach(target orvane orvane_lease orvaned_core)
    target_precompile_headers(${target} PRIVATE ${standard})
  endforeach()
  foreach(target orvane orvaned_core)
    target_precompile_headers(${target} PRIVATE <boost/interprocess/ipc/message_queue.hpp>
      <boost/date_time/posix_time/posix_time_types.hpp>)
  endforeach()
endfunction()

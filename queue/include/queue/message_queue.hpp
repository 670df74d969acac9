#pragma once

// Boost's message queue, with its waits bounded as far as they can be.
//
// The queue's settings are macros, and every binary of this project must see the same ones, so the
// queue is included from here only, and the macros come from the build (queue/CMakeLists.txt).
//   - A lock held by a stopped process is given up after 2 s instead of never.
//   - Attaching to a queue that its creator never finished is given up after 5 s instead of 300.
//   - A failed wait on a condition variable throws (assertion_failed.cpp) instead of spinning.
// What no setting bounds: a wait for a peer that was stopped inside its copy, and any wait on a
// queue on which a process was killed while it waited. So a server only polls, and after an unclean
// end nobody uses that queue again.
#if !defined(BOOST_ENABLE_ASSERT_HANDLER) ||                       \
    !defined(BOOST_INTERPROCESS_ENABLE_TIMEOUT_WHEN_LOCKING) ||    \
    BOOST_INTERPROCESS_TIMEOUT_WHEN_LOCKING_DURATION_MS != 2000 || \
    BOOST_INTERPROCESS_MANAGED_OPEN_OR_CREATE_INITIALIZE_TIMEOUT_SEC != 5
#error "link the orvane_queue target: its definitions bound the queue's waits"
#endif

#include <boost/version.hpp>
#if BOOST_VERSION < 108100
#error "Boost 1.81 or newer is needed: before it, a peer killed inside a queue's lock hangs us"
#endif

#include <boost/interprocess/ipc/message_queue.hpp>

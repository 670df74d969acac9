#pragma once

// Boost's message queue, with limits for its waits where Boost allows them. It is for servers, and
// for programs that look at a queue; a producer only needs ShmWriter.
//
// The settings are macros, and every binary that uses a queue must see the same ones. They come
// from the build: the CMake target orvane::queue, or `pkg-config --cflags orvane-queue`.
//   - A wait for a lock that a stopped process holds fails after 2 s; by default it never ends.
//   - Attaching to a queue that its creator never finished fails after 5 s; by default after 300.
//   - A failed wait on a condition variable throws (assertion_failed.hpp) and does not spin.
// Two waits have no limit: the wait for a peer that was stopped while it copies a message, and the
// wait on a queue in which a process was killed while it waited. So a server polls with
// try_receive() and try_send(), and after an unclean end no process uses that queue again.
#if !defined(BOOST_ENABLE_ASSERT_HANDLER) ||                       \
    !defined(BOOST_INTERPROCESS_ENABLE_TIMEOUT_WHEN_LOCKING) ||    \
    BOOST_INTERPROCESS_TIMEOUT_WHEN_LOCKING_DURATION_MS != 2000 || \
    BOOST_INTERPROCESS_MANAGED_OPEN_OR_CREATE_INITIALIZE_TIMEOUT_SEC != 5
#error "link orvane::queue, or use `pkg-config --cflags orvane-queue`: these macros bound the waits"
#endif

#include <boost/version.hpp>
#if BOOST_VERSION < 108100
#error "Boost 1.81 or newer is needed: before it, a peer killed inside a queue's lock hangs us"
#endif

#include "queue/assertion_failed.hpp"

#include <boost/interprocess/ipc/message_queue.hpp>

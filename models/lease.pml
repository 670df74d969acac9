/* The protocol of a lease (include/orvane/lease_protocol.hpp) and what a producer concludes from it.
 *
 * A producer asks for a ring, and once more for queues where the server does not know rings. Then
 * it sends one stream of BATCHES batches, waits for the answer to the last one, closes the writer
 * and waits for the receipt. If the lease ends too early, it asks once more, from the beginning.
 * Each connection has a server of its own (the worker), which any server of any release may be. It,
 * the producer and the machine's whole server may die at any moment; a supervisor that lives tells
 * the producer of a dead worker, and a new server completes what a dead one left as cut off.
 *
 * Time limits are left out while both sides live: so a wait that only they would end is a wait for
 * ever. Proved: nobody waits for ever; the producer counts a stream as stored, by the answer to the
 * last batch or by the receipt, only if it is stored whole; the end of each connection is noticed
 * by its other side; a server without rings serves a producer that would like one.
 *
 * Left out: the bytes of packets, files and limits, several streams on one lease, more receipts than
 * are kept, a server that is stopped and lives (the time limits' task), and the hand-over itself.
 *
 * The environment's DEFECT puts one defect in; see scripts/check-models.
 */
c_decl {
  \#include <stdlib.h>
}

#define BATCHES 2
#define CONNECTIONS 4 /* two for each of two tries */
#define ROOM 1        /* batches that may wait for an answer */

#define DEFECT_END_NOT_SEEN_BY_PRODUCER 1
#define DEFECT_END_NOT_SEEN_BY_SERVER 2
#define DEFECT_RECEIPT_BEFORE_STORED 3
#define DEFECT_END_COUNTED_AS_STORED 4
#define DEFECT_LAST_PACKETS_IGNORED 5 /* those that came before the end of the connection */
#define DEFECT_NOT_ASKED_AGAIN 6
#define DEFECT_ANSWERED_BEFORE_STORED 7
byte defect;

mtype = { ring, queue };                         /* requests */
mtype = { granted, refused, receipt, failed };   /* replies */
mtype = { nothing, open, whole, cutOff };        /* what is in the store */

/* A connection keeps what was sent when an end of it is closed. */
typedef Connection {
  bool producersEnd; /* is open */
  bool serversEnd;
  byte sent;     /* batches */
  byte answered; /* batches; errors are remembered in `error` */
  bool error;
  mtype stored; /* of the stream that came over this connection */
}
Connection connections[CONNECTIONS];
chan requests[CONNECTIONS] = [1] of { mtype };
chan replies[CONNECTIONS] = [2] of { mtype };

bool serverLives = true; /* somebody listens at the socket */
bool serverHasRings;
bool somethingDied; /* of the server */
bool producerDead;
bool producerDone;
bool hadLease;
bool workerDone[CONNECTIONS];
bool workerKilled[CONNECTIONS];

inline say(c, reply) {
  if
  :: connections[c].producersEnd -> replies[c]!reply
  :: else /* nobody hears it */
  fi
}

/* The worker writes the stream's end to the store, then says so, then answers. */
inline takeLastBatch(c) {
  if
  :: defect == DEFECT_RECEIPT_BEFORE_STORED -> atomic { say(c, receipt) }
  :: defect == DEFECT_ANSWERED_BEFORE_STORED -> connections[c].answered++
  :: else
  fi;
  connections[c].stored = whole;
  if
  :: defect != DEFECT_RECEIPT_BEFORE_STORED -> atomic { say(c, receipt) }
  :: else
  fi;
  if
  :: defect != DEFECT_ANSWERED_BEFORE_STORED -> connections[c].answered++
  :: else
  fi
}

inline failBatch(c) {
  atomic {
    connections[c].error = true;
    connections[c].stored = cutOff;
    say(c, failed);
    connections[c].answered++
  }
}

proctype Worker(byte c; bool hasRings) provided (!workerKilled[c]) {
  mtype request;
  if
  :: requests[c]?request
  :: atomic { !connections[c].producersEnd && empty(requests[c]) -> goto leave }
  fi;
  if
  :: request == ring && !hasRings -> atomic { say(c, refused); goto leave }
  :: else -> atomic { say(c, granted) }
  fi;
  do
  :: connections[c].answered < connections[c].sent && connections[c].error ->
     connections[c].answered++
  :: connections[c].answered < connections[c].sent && !connections[c].error ->
     if
     :: failBatch(c)
     :: connections[c].answered + 1 == BATCHES -> takeLastBatch(c)
     :: connections[c].answered + 1 < BATCHES ->
        connections[c].stored = open;
        connections[c].answered++
     fi
  :: !connections[c].producersEnd && defect != DEFECT_END_NOT_SEEN_BY_SERVER &&
     connections[c].answered == connections[c].sent -> break
  od;
  if
  :: connections[c].stored == open -> connections[c].stored = cutOff
  :: else
  fi;
leave:
  atomic { connections[c].serversEnd = false; workerDone[c] = true }
}

#define IS_LOST(c) (!connections[c].serversEnd && defect != DEFECT_END_NOT_SEEN_BY_PRODUCER)

/* The next packet, or `nothing` at the end of the connection. */
inline hear(c, reply) {
  if
  :: replies[c]?reply
  :: atomic {
       IS_LOST(c) && (empty(replies[c]) || defect == DEFECT_LAST_PACKETS_IGNORED) ->
         reply = nothing;
         assert(empty(replies[c]))
     }
  fi
}

inline connect() {
  atomic {
    c = next;
    next++;
    connections[c].producersEnd = true;
    connections[c].serversEnd = true;
    run Worker(c, serverHasRings)
  }
}

proctype Producer() provided (!producerDead) {
  byte next, c, tries;
  mtype request, reply;
  do
  :: tries == 2 || !serverLives -> break
  :: atomic { tries < 2 && serverLives -> tries++; request = ring; connect() };
     requests[c]!request;
     hear(c, reply);
     if
     :: reply == refused && defect != DEFECT_NOT_ASKED_AGAIN ->
        connections[c].producersEnd = false;
        request = queue;
        if
        :: atomic { serverLives -> connect() };
           requests[c]!request;
           hear(c, reply)
        :: !serverLives -> break
        fi
     :: else
     fi;
     if
     :: reply == granted -> hadLease = true
     :: else -> goto lost
     fi;
     do
     :: connections[c].sent == BATCHES -> break
     :: connections[c].sent < BATCHES && connections[c].error -> goto lost
     :: connections[c].sent < BATCHES && IS_LOST(c) -> goto lost
     :: connections[c].sent < BATCHES && connections[c].sent - connections[c].answered < ROOM ->
        connections[c].sent++
     od;
     if
     :: request == queue /* its writer cannot know the last answer */
     :: request == ring && connections[c].answered == BATCHES ->
        assert(connections[c].error || connections[c].stored == whole)
     :: request == ring && connections[c].answered < BATCHES && IS_LOST(c)
     fi;
     hear(c, reply);
     if
     :: reply == receipt || (reply == nothing && defect == DEFECT_END_COUNTED_AS_STORED) ->
        assert(connections[c].stored == whole);
        break
     :: else
     fi;
  lost:
     atomic { connections[c].producersEnd = false; request = 0; reply = 0 }
  od;
  atomic { connections[c].producersEnd = false; producerDone = true }
}

/* At the end of a killed worker the kernel closes its end. The supervisor speaks for it first, if it
 * is alive. */
inline kill(c) {
  workerKilled[c] = true;
  connections[c].serversEnd = false
}

inline recover(c) {
  if
  :: connections[c].stored == open && workerKilled[c] -> connections[c].stored = cutOff
  :: else
  fi
}

proctype Killer() {
  byte c;
  bool producerSpared, serverSpared;
  do
  :: atomic {
       !producerSpared && !producerDone ->
         producerSpared = true;
         producerDead = true;
         c = 0;
         do
         :: c < CONNECTIONS -> connections[c].producersEnd = false; c++
         :: else -> break
         od;
         c = 0
     }
  :: atomic {
       !serverSpared ->
         serverSpared = true;
         somethingDied = true;
         serverLives = false;
         c = 0;
         do
         :: c < CONNECTIONS ->
            if
            :: connections[c].serversEnd -> kill(c)
            :: else
            fi;
            c++
         :: else -> break
         od;
         c = 0
     };
     atomic { /* a new server, of any release */
       if
       :: serverHasRings = true
       :: serverHasRings = false
       fi;
       c = 0;
       do
       :: c < CONNECTIONS -> recover(c); c++
       :: else -> break
       od;
       c = 0;
       serverLives = true
     }
  :: atomic { /* one worker; the supervisor lives */
       !serverSpared ->
         serverSpared = true;
         somethingDied = true;
         if
         :: c = 0
         :: c = 1
         :: c = 2
         :: c = 3
         fi;
         if
         :: connections[c].serversEnd -> kill(c); say(c, failed); recover(c)
         :: else
         fi;
         c = 0
     }
  :: break
  od
}

/* When nothing can go on, nobody waits, and all is closed. */
proctype Observer() {
  byte c;
  timeout;
  atomic {
    assert(producerDone || producerDead);
    assert(hadLease || producerDead || somethingDied);
    do
    :: c < CONNECTIONS ->
       assert(!connections[c].producersEnd && !connections[c].serversEnd);
       assert(connections[c].stored != open);
       c++
    :: else -> break
    od
  }
}

init {
  byte c;
  atomic {
    c_code { now.defect = getenv("DEFECT") ? atoi(getenv("DEFECT")) : 0; };
    do
    :: c < CONNECTIONS -> connections[c].stored = nothing; c++
    :: else -> break
    od;
    if
    :: serverHasRings = true
    :: serverHasRings = false
    fi;
    run Producer();
    run Killer();
    run Observer()
  }
}

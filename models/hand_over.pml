/* The hand-over of src/ring/hand_over.hpp on x86: each side's stores wait in a buffer, in order,
 * until they reach memory, at the latest at a fence. Spin tries every order of all steps.
 *
 * A producer sends FRAMES frames of one or two lines through a ring of RING lines. A frame's data
 * is its number in each of its lines. Either side may die at any moment.
 *
 * The time limit of a nap ends it only if the other side is dead: so a wake-up that is lost while
 * both live, and that only the limit would mend, is a side that waits for ever.
 *
 * Proved for this size: nobody waits for ever; no frame is lost, torn or seen twice; the head never passes
 * the tail; a sleeping producer is woken only at its `want`, except that a server which was slow to
 * wake it from one nap may wake it early from the next one; after a death the other side ends, and
 * the server has taken all that was published.
 *
 * Left out: what a hostile side writes, answers, counters that overflow, signals that end a nap
 * early, the 50 us of looking (one look stands for them), and processors with weaker order: the
 * simulator in hand_over.cpp has those.
 *
 * The environment's DEFECT puts one defect in; see scripts/check-models.
 */
c_decl {
  \#include <stdlib.h>
}

#define RING 3
#define FRAMES 3
#define AT_ONCE 2 /* lines that the producer waits for when the ring is full */
#define SIZE_OF(frame) ((frame) == 1 -> 1 : 2)
#define IS_ODD(nap) ((nap) % 2 == 1)

#define DEFECT_PUBLISH_WITHOUT_FENCE 1
#define DEFECT_RELEASE_WITHOUT_FENCE 2
#define DEFECT_PRODUCER_SLEEPS_WITHOUT_FENCE 3
#define DEFECT_SERVER_SLEEPS_WITHOUT_FENCE 4
#define DEFECT_PUBLISHED_BEFORE_FILLED 5 /* what a compiler may do with a relaxed store */
#define DEFECT_RELEASED_BEFORE_READ 6
#define DEFECT_NAP_WITHOUT_LIMIT 7
#define DEFECT_WOKEN_WITHOUT_SLEEPER 8
#define DEFECT_WANT_COMPARED_THE_WRONG_WAY 9
byte defect;

#define PRODUCER 0
#define SERVER 1

/* The memory that both see. */
#define TAIL 0
#define HEAD 1
#define PRODUCERS_NAP 2
#define SERVERS_NAP 3
#define WANT 4
#define DATA 5
byte memory[DATA + RING];

chan buffers[2] = [4] of { byte, byte }; /* address, value */

bool asleep[2]; /* in the futex call */
bool killed[2]; /* makes no further step */
bool dead[2];   /* its connection is closed, all its stores are in memory */
bool ended[2];
byte wanted; /* the head for which the producer waits */
byte taken;  /* frames */

inline store(side, address, value) {
  buffers[side]!address, value
}

inline fence(side, missing) {
  if
  :: defect == missing
  :: defect != missing && empty(buffers[side])
  fi
}

/* FUTEX_WAIT: compares and falls asleep in one step. It is no fence. */
inline sleep(side, other, address, seen) {
  if
  :: atomic { memory[address] == seen -> asleep[side] = true };
     atomic {
       !asleep[side] || (dead[other] && defect != DEFECT_NAP_WITHOUT_LIMIT);
       asleep[side] = false
     }
  :: memory[address] != seen
  fi
}

/* FUTEX_WAKE, and what Waker remembers of it. */
inline wake(other, nap, remembered) {
  if
  :: nap != remembered ->
     atomic {
       if
       :: asleep[other] || defect == DEFECT_WOKEN_WITHOUT_SLEEPER -> remembered = nap
       :: else
       fi;
       assert(other == SERVER || !asleep[other] || memory[HEAD] >= wanted ||
              memory[PRODUCERS_NAP] != nap);
       asleep[other] = false
     }
  :: nap == remembered
  fi
}

proctype Buffer(byte side) {
  byte address, value;
end:
  do
  :: atomic {
       buffers[side]?address, value;
       memory[address] = value;
       address = 0;
       value = 0
     }
  od
}

inline lookAtHead() {
  atomic {
    assert(memory[HEAD] >= head);
    assert(memory[HEAD] <= tail);
    head = memory[HEAD]
  }
}

inline awaitHead(position) {
  wanted = position;
  lookAtHead();
  do
  :: head >= wanted -> break
  :: head < wanted && dead[SERVER] -> goto leave
  :: head < wanted && !dead[SERVER] ->
     atomic {
       store(PRODUCER, WANT, wanted);
       store(PRODUCER, PRODUCERS_NAP, naps + 1)
     };
     fence(PRODUCER, DEFECT_PRODUCER_SLEEPS_WITHOUT_FENCE);
     lookAtHead();
     if
     :: head < wanted -> sleep(PRODUCER, SERVER, HEAD, head)
     :: else
     fi;
     atomic {
       naps = naps + 2;
       store(PRODUCER, PRODUCERS_NAP, naps)
     };
     lookAtHead()
  od
}

proctype Producer() provided (!killed[PRODUCER]) {
  byte tail, head; /* as last seen */
  byte naps, nap, remembered;
  byte frame = 1;
    do
    :: frame <= FRAMES ->
       if
       :: tail + SIZE_OF(frame) - head > RING -> awaitHead(tail + AT_ONCE - RING)
       :: else
       fi;
       if
       :: defect == DEFECT_PUBLISHED_BEFORE_FILLED -> store(PRODUCER, TAIL, tail + SIZE_OF(frame))
       :: else
       fi;
       atomic {
         store(PRODUCER, DATA + tail % RING, frame);
         if
         :: SIZE_OF(frame) == 2 -> store(PRODUCER, DATA + (tail + 1) % RING, frame)
         :: else
         fi;
         tail = tail + SIZE_OF(frame);
         frame++;
         store(PRODUCER, TAIL, tail)
       };
       fence(PRODUCER, DEFECT_PUBLISH_WITHOUT_FENCE);
       nap = memory[SERVERS_NAP];
       if
       :: IS_ODD(nap) -> wake(SERVER, nap, remembered)
       :: else
       fi;
       nap = 0
    :: else -> break
    od;
    awaitHead(tail);
  leave:
    ended[PRODUCER] = true
}

inline lookAtTail() {
  atomic {
    assert(memory[TAIL] >= tail);
    assert(memory[TAIL] <= head + RING);
    tail = memory[TAIL]
  }
}

inline wakeProducer() {
  fence(SERVER, DEFECT_RELEASE_WITHOUT_FENCE);
  nap = memory[PRODUCERS_NAP];
  if
  :: IS_ODD(nap) ->
     want = memory[WANT];
     if
     :: (defect != DEFECT_WANT_COMPARED_THE_WRONG_WAY && head >= want) ||
        (defect == DEFECT_WANT_COMPARED_THE_WRONG_WAY && want >= head) ->
        wake(PRODUCER, nap, remembered)
     :: else
     fi;
     want = 0
  :: else
  fi;
  nap = 0
}

proctype Server() provided (!killed[SERVER]) {
  byte tail, head; /* the tail as last seen */
  byte naps, nap, remembered, want;
  bool last;
    do
    :: taken == FRAMES -> break
    :: taken < FRAMES ->
       last = dead[PRODUCER]; /* before the look: what it published is in memory then */
       lookAtTail();
       if
       :: head < tail ->
          if
          :: defect == DEFECT_RELEASED_BEFORE_READ -> store(SERVER, HEAD, head + SIZE_OF(taken + 1))
          :: else
          fi;
          atomic {
            taken++;
            assert(memory[DATA + head % RING] == taken);
            assert(memory[DATA + (head + SIZE_OF(taken) - 1) % RING] == taken);
            head = head + SIZE_OF(taken);
            store(SERVER, HEAD, head)
          };
          wakeProducer()
       :: head == tail && last -> break
       :: head == tail && !last ->
          store(SERVER, SERVERS_NAP, naps + 1);
          fence(SERVER, DEFECT_SERVER_SLEEPS_WITHOUT_FENCE);
          lookAtTail();
          if
          :: head == tail -> sleep(SERVER, PRODUCER, TAIL, tail)
          :: else
          fi;
          atomic {
            naps = naps + 2;
            store(SERVER, SERVERS_NAP, naps)
          }
       fi
    od;
    atomic {
      assert(head == memory[TAIL]);
      assert(taken == FRAMES || dead[PRODUCER]);
      ended[SERVER] = true
    }
}

/* Kills none of the sides, one or both, at any moment. What a side has stored still reaches memory,
 * and then the other side can see that it is dead. */
proctype Killer() {
  byte side;
  do
  :: atomic { !ended[PRODUCER] && !killed[PRODUCER] -> side = PRODUCER; killed[side] = true };
     atomic { empty(buffers[side]) -> dead[side] = true; asleep[side] = false; side = 0 }
  :: atomic { !ended[SERVER] && !killed[SERVER] -> side = SERVER; killed[side] = true };
     atomic { empty(buffers[side]) -> dead[side] = true; asleep[side] = false; side = 0 }
  :: break
  od
}

/* When nothing can go on, nobody waits. */
proctype Observer() {
  timeout;
  assert(ended[PRODUCER] || dead[PRODUCER]);
  assert(ended[SERVER] || dead[SERVER])
}

init {
  atomic {
    c_code { now.defect = getenv("DEFECT") ? atoi(getenv("DEFECT")) : 0; };
    run Buffer(PRODUCER);
    run Buffer(SERVER);
    run Producer();
    run Server();
    run Killer();
    run Observer()
  }
}

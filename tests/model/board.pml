/* The agent, a LOCALI reader child, the kernel behind the queue, and clients that hang up and come
 * back: the protocol of protocols/lipc_board.h, one step for each access to the shared memory. All
 * requests have one name (task name and tag), so that nothing but the identity tells them apart.
 *
 * Searched: no answer is lost, given twice, or given to another connection, wherever the child dies
 * and whenever the agent takes the link down; and the child never writes while the agent has sent
 * a part of what it keeps for that connection.
 *
 * With FLUSH the agent also keeps something for the connection on socket 0. With QUIET the child
 * lives and the link stays up: every request must have its answer when nothing moves any more.
 *
 * With one of these defined the search must find a fault:
 *   BY_NAME     the agent releases the first request of the name of which a record tells
 *   NO_WRITING  what the child was writing when it died counts as unanswered
 *   NO_WRITER   the child does not ask who is writing to the connection
 *   NO_WORD     the agent closes entries without a word before
 */

#ifndef REQUESTS
#define REQUESTS 3  /* asked in all */
#endif
#ifndef RECORDS
#define RECORDS 3   /* of requests in flight; free ones are taken from the front on */
#endif
#ifndef ENTRIES
#define ENTRIES 2   /* on the board: the last record is beyond */
#endif
#define SOCKETS 2   /* the child has inherited the connection on socket 0, not the one on 1 */
#ifndef SERIALS
#define SERIALS 5   /* of connections: 1 and 2 at first, then as clients come back */
#endif
#define NONE 255

mtype = { Free, Waiting, Claimed, Writing, Written };
mtype = { Nobody, ByChild, ByAgent };

/* The board. */
mtype word[ENTRIES] = Free;
byte entrySerial[ENTRIES];
byte entrySocket[ENTRIES];
byte entryConnection[ENTRIES];
byte used;
bool agentDecides;
mtype writer[SOCKETS] = Nobody;

/* What the system keeps: the queue in both directions, the pipe (entry, handed over?) and the
 * pair (identity, whose answer). A question or an answer is named by its request. */
chan questions = [REQUESTS] of { byte };
chan answers = [REQUESTS] of { byte };
chan pipe = [REQUESTS] of { byte, bool, byte };
chan pair = [REQUESTS] of { byte, byte, byte };
bool alive = true; /* the child */

/* Connections. */
byte connectionOf[SOCKETS]; /* serial; 0: nobody is connected */
byte lastConnection;
bool open[SERIALS];
bool owes[SERIALS];         /* the client waits for an answer: it does not use the tag again */

/* For the judgement: of each request its connection and how often it was answered. */
byte askedOn[REQUESTS];
byte answered[REQUESTS];
byte asked;
bool withinMessage; /* the agent has sent a part of a message to the connection on socket 0 */
bool over;

/* The client on a connection gets an answer, or nobody does: the connection is closed. */
inline Give(request, connection) {
  if
  :: open[connection] ->
     assert(askedOn[request] == connection);
     answered[request]++;
     assert(answered[request] == 1);
     owes[connection] = false
  :: else
  fi
}

#define MayAsk(socket) (connectionOf[socket] != 0 && !owes[connectionOf[socket]])

active proctype Kernel() {
  byte request;
end:
  do
  :: atomic { questions ? request -> answers ! request }
  od
}

#ifndef QUIET
active proctype Death() {
  alive = false
}
#endif

active proctype Child() provided (alive) {
  byte request, slot, first, serial, socket, connection, at;
  bool done;
end:
  do
  :: answers ? request;
     done = false;
Claim:
     /* BoardClaim */
     first = NONE;
     slot = 0;
     at = used;
     do
     :: slot < at ->
        if
        :: word[slot] == Waiting ->
           d_step {
             if
             :: first == NONE || entrySerial[slot] < serial ->
                first = slot;
                serial = entrySerial[slot]
             :: else
             fi
           }
        :: else
        fi;
        slot++
     :: else -> break
     od;
     if
     :: first != NONE && agentDecides -> first = NONE
     :: else
     fi;
     if
     :: first != NONE ->
        atomic {
          if
          :: word[first] == Waiting -> word[first] = Claimed
          :: else -> goto Claim
          fi
        };
        serial = entrySerial[first];
        socket = entrySocket[first];
        connection = entryConnection[first];
        if
        :: socket == 0 && connection == 1 ->
           /* BoardBeginWrite */
#ifndef NO_WRITER
           atomic {
             if
             :: writer[socket] == Nobody -> writer[socket] = ByChild
             :: else -> goto Handover
             fi
           };
#endif
           atomic {
             if
             :: word[first] == Claimed ->
                word[first] = Writing
             :: else ->
                writer[socket] = Nobody;
                goto Handover
             fi
           };
           if
           :: atomic { /* send */
                assert(!(open[connection] && withinMessage));
                Give(request, connection);
                done = true
              }
           :: skip /* the client takes nothing now */
           fi;
           /* BoardEndWrite */
           if
           :: done -> word[first] = Written
           :: else -> word[first] = Claimed
           fi;
           writer[socket] = Nobody
        :: else
        fi
     :: else ->
        serial = 0
     fi;
Handover:
     if
     :: !done -> pair ! first, serial, request
     :: else
     fi;
     pipe ! first, !done, request;
     d_step { first = 0; slot = 0; serial = 0; socket = 0; connection = 0; at = 0; done = false; request = 0 }
  od
}

/* What is no longer needed must not make states differ. */
#define Tidy slot = 0; best = 0; serial = 0; request = 0; socket = 0; i = 0; handed = false

active proctype Agent() {
  /* The records of requests in flight. */
  bool inUse[RECORDS];
  byte recordSerial[RECORDS];
  byte recordConnection[RECORDS]; /* 0: it has been closed */
  byte recordRequest[RECORDS];
  byte lastSerial, inFlight;
  byte slot, best, serial, request, socket, i;
  bool handed, broken;

  d_step {
    connectionOf[0] = 1;
    connectionOf[1] = 2;
    open[1] = true;
    open[2] = true;
    lastConnection = 2
  }
  do
  :: broken -> break

  /* A request comes. */
  :: atomic {
       asked < REQUESTS && (MayAsk(0) || MayAsk(1)) ->
       if
       :: MayAsk(0) -> socket = 0
       :: MayAsk(1) -> socket = 1
       fi;
       slot = 0;
       do
       :: inUse[slot] -> slot++
       :: else -> break
       od;
       inUse[slot] = true;
       lastSerial++;
       inFlight++;
       recordSerial[slot] = lastSerial;
       recordConnection[slot] = connectionOf[socket];
       recordRequest[slot] = asked;
       askedOn[asked] = connectionOf[socket];
       owes[connectionOf[socket]] = true;
       asked++
     };
     if
     :: !withinMessage || socket != 0 ->
        atomic {
          if
          :: writer[socket] == ByAgent -> writer[socket] = Nobody
          :: else
          fi
        }
     :: else
     fi;
     if
     :: inFlight == 1 -> agentDecides = false
     :: else
     fi;
     /* BoardAdd */
     broken = (slot >= ENTRIES);
     if
     :: !broken ->
        atomic {
          if
          :: word[slot] == Waiting -> word[slot] = Free
          :: word[slot] == Free -> skip
          :: else -> broken = true
          fi
        }
     :: else
     fi;
     if
     :: broken -> agentDecides = true
     :: else ->
        entrySerial[slot] = recordSerial[slot];
        entrySocket[slot] = socket;
        entryConnection[slot] = recordConnection[slot];
        word[slot] = Waiting;
        if
        :: slot >= used -> used = slot + 1
        :: else
        fi
     fi;
     atomic {
       broken = false;
       questions ! recordRequest[slot];
       Tidy
     }

  /* A client hangs up, and another comes. */
  :: atomic {
       lastConnection < SERIALS - 1 ->
       if
       :: socket = 0
       :: socket = 1
       fi;
       open[connectionOf[socket]] = false;
       if
       :: socket == 0 -> withinMessage = false
       :: else
       fi;
       i = 0;
       do
       :: i < RECORDS ->
          if
          :: inUse[i] && recordConnection[i] == connectionOf[socket] -> recordConnection[i] = 0
          :: else
          fi;
          i++
       :: else -> break
       od;
       lastConnection++;
       connectionOf[socket] = lastConnection;
       open[lastConnection] = true;
       Tidy
     }

#ifdef QUIET
  :: lastConnection < SERIALS - 1 -> lastConnection = SERIALS - 1 /* they stay */
#endif

#ifdef FLUSH
  /* What is kept for a slow client goes out, in parts. */
  :: atomic {
       !withinMessage && writer[0] != ByChild ->
       writer[0] = ByAgent;
       withinMessage = true
     }
  :: withinMessage -> withinMessage = false
#endif

  /* The child tells of an answer. */
  :: pipe ? slot, handed, request ->
     if
     :: handed -> pair ? slot, serial, request
     :: else
     fi;
     if
     :: slot != NONE -> /* BoardRemove */
        serial = entrySerial[slot];
        word[slot] = Free;
#ifdef BY_NAME
        d_step {
          slot = 0;
          do
          :: slot < RECORDS && !inUse[slot] -> slot++
          :: else -> break
          od;
          if
          :: slot < RECORDS -> serial = recordSerial[slot]
          :: else -> slot = 0
          fi
        };
#endif
        best = slot
     :: else -> /* by name: the first that the child has no answer to */
Search:
        best = NONE;
        i = 0;
        do
        :: i < RECORDS ->
           if
           :: inUse[i] && (best == NONE || recordSerial[i] < recordSerial[best]) ->
              if
              :: i >= ENTRIES -> best = i
              :: else ->
                 if
                 :: entrySerial[i] != recordSerial[i] || word[i] == Waiting || word[i] == Free ->
                    best = i
                 :: else
                 fi
              fi
           :: else
           fi;
           i++
        :: else -> break
        od;
        if
        :: best != NONE ->
           serial = recordSerial[best];
           if
           :: best < ENTRIES ->
              atomic { /* BoardWithdraw */
                if
                :: entrySerial[best] == serial && word[best] == Waiting -> word[best] = Free
                :: entrySerial[best] == serial && word[best] != Free -> goto Search
                :: else
                fi
              }
           :: else
           fi
        :: else
        fi
     fi;
     d_step {
       if
       :: best != NONE && inUse[best] && recordSerial[best] == serial ->
          inUse[best] = false;
          inFlight--;
          if
          :: handed -> Give(request, recordConnection[best])
          :: else
          fi
       :: else
       fi;
       Tidy
     }

  /* The pipe has come to its end, or the link is taken down for another reason. */
  :: !alive && empty(pipe) -> broken = true
#ifdef QUIET
  :: timeout -> assert(inFlight == 0); broken = true
#else
  :: broken = true
#endif
  od;

  /* The parting: every entry is closed. */
#ifndef NO_WORD
  agentDecides = true;
#endif
  slot = 0;
  do
  :: slot < used ->
Close:
     atomic { /* BoardClose */
       if
       :: word[slot] == Free -> goto Next
       :: word[slot] == Writing -> goto Wait
       :: word[slot] == Written -> word[slot] = Free; goto Answered
       :: else -> word[slot] = Free; goto Next
       fi
     };
Wait:
     if
     :: word[slot] != Writing -> goto Close
     :: !alive ->
        if
        :: word[slot] != Writing -> goto Close /* looked at once more */
        :: else
        fi
     fi;
#ifndef NO_WRITING
     atomic {
       open[entryConnection[slot]] = false;
       i = 0;
       do
       :: i < RECORDS ->
          if
          :: inUse[i] && recordConnection[i] == entryConnection[slot] -> recordConnection[i] = 0
          :: else
          fi;
          i++
       :: else -> break
       od
     };
#else
     goto Next;
#endif
Answered:
     skip;
     d_step {
       if
       :: inUse[slot] && recordSerial[slot] == entrySerial[slot] -> inUse[slot] = false
       :: else
       fi
     };
Next:
     slot++
  :: else -> break
  od;
  /* What has been handed over. */
  do
  :: pair ? slot, serial, request ->
     d_step {
       if
       :: slot != NONE && inUse[slot] && recordSerial[slot] == serial ->
          inUse[slot] = false;
          Give(request, recordConnection[slot])
       :: else
       fi
     }
  :: empty(pair) -> break
  od;
  alive = false;
  /* All others get the code of the failure; and nobody is left without an answer. */
  d_step {
    i = 0;
    do
    :: i < RECORDS ->
       if
       :: inUse[i] -> Give(recordRequest[i], recordConnection[i])
       :: else
       fi;
       i++
    :: else -> break
    od;
    i = 0;
    do
    :: i < asked ->
       assert(!open[askedOn[i]] || answered[i] == 1);
       i++
    :: else -> break
    od
  };
  over = true
}

#ifndef QUIET
/* Whatever happens, the agent comes to its end. */
active proctype Watch() {
  timeout -> assert(over)
}
#endif

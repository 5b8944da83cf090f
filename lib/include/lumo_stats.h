/* The statistics page of a running agent: its layout, and how to read it.
 *
 * With LUMO_STATS=1 the agent keeps counters in a file beside its socket, "tavrin.ID.stats". Who
 * reads them asks the agent nothing: they can be read while it is full, stopped or stuck.
 *
 *     lumo_stats *stats;
 *     lumo_stats_agent agent;
 *     if (lumo_stats_open(NULL, &stats) == LUMO_OK) {
 *       if (lumo_stats_read_agent(stats, &agent, sizeof agent) == LUMO_OK)
 *         printf("%llu requests\n", (unsigned long long)agent.requests);
 *       lumo_stats_close(stats);
 *     }
 *
 * The file
 *
 *   A header, one row for the agent, rows for client connections, rows for links. The header tells
 *   where each part begins, how long a row is and how many there are. Host byte order; every field
 *   is aligned to its size. Numbers that only grow (counters) are 64 bits wide.
 *
 * How it grows
 *
 *   New fields come at the end of a row, or in reserved places, which are 0 until then; the header
 *   and the rows get longer, `layout` stays. A reader takes of each row what it knows, at the
 * offsets below, and finds 0 where an older agent has nothing. A `layout` that it does not know is
 * not to be read. The calls below keep to that.
 *
 * One row, whole
 *
 *   The first field of a row is its sequence number: odd while the agent writes. Who reads the
 *   same even number before and after has the row of one moment.
 *
 * Units
 *
 *   Times of day are microseconds since 1970-01-01 00:00 UTC, as the agent's clock had it when it
 *   started, and the monotonic clock from there. Durations are microseconds. Sizes are bytes. Texts
 *   are ended by a NUL.
 *
 * Header, at 0, 128 bytes
 *
 *   offset  type      field            meaning
 *        0  char[8]   magic            "LUMOSTAT"
 *        8  uint32    layout           1
 *       12  uint32    header_size      bytes of this header
 *       16  int32     pid              of the agent
 *       20  int32     exchange_id      communication identifier
 *       24  int64     start_time       time of day when the page was made
 *       32  int64     start_clock      CLOCK_MONOTONIC at the same moment
 *       40  uint64    process_start    when the process began: field 22 of /proc/PID/stat
 *       48  uint32    agent_at         offset of the agent's row
 *       52  uint32    agent_size       its length
 *       56  uint32    clients_at       offset of the first client row
 *       60  uint32    client_size      length of one
 *       64  uint32    client_count     how many there are; the row's number is the descriptor
 *       68  uint32    links_at         offset of the first link row
 *       72  uint32    link_size        length of one
 *       76  uint32    link_count       how many there are
 *       80  uint32    ended            1: the agent has ended orderly and removed the page
 *       84  uint32[11] reserved
 *
 * Agent, 1280 bytes
 *
 *   offset  type       field            meaning
 *        0  uint32     sequence
 *        4  uint32     log_level        lines of at most this level are written
 *        8  char[56]   version
 *       64  char[448]  options          of the command line, cut when they are longer
 *      512  uint32     clients          connections now
 *      516  uint32     clients_most     most at one time
 *      520  uint32     clients_ceiling  so many fit
 *      524  uint32     parked           connections that are not read until there is room
 *      528  uint32     in_flight        requests sent to nodes and not answered
 *      532  uint32     waiting          requests that wait for a link
 *      536  int32      default_link     row of the default link; -1: none
 *      540  uint32     links            links now, those without a row as well
 *      544  uint64     accepted         connections taken
 *      552  uint64     refused          connections that could not be taken
 *      560  uint64[8]  closed           connections closed, by lumo_stats_reason
 *      624  uint64     requests         for nodes, read from clients
 *      632  uint64     management       management commands read from clients
 *      640  uint64     node_answers     answers of nodes that belonged to a request
 *      648  uint64     agent_answers    answers to requests for nodes that the agent made itself
 *      656  uint64     bytes_in         of requests and commands read
 *      664  uint64     bytes_out        of answers given, those that clients have not taken yet too
 *      672  uint64     passes           of the loop
 *      680  uint64     ticks            of the 2-second timer
 *      688  int64      last_pass        CLOCK_MONOTONIC when the latest pass began to serve
 *      696  uint64     longest_pass     most time between two waits; its end is taken from a clock
 *                                       that moves some milliseconds at a time
 *      704  uint64     log_lost         lines that nobody took
 *      712  uint64     default_moves    times that another link became the default
 *      720  uint64[2]  reserved
 *      736  [32]       codes            agent_answers by code, 16 bytes each: int32 code,
 *                                       uint32 used (1: counts this code), uint64 count;
 *                                       the last takes codes for which no place was left
 *     1248  uint64[4]  reserved
 *
 * Client connection, 64 bytes
 *
 *   offset  type      field            meaning
 *        0  uint32    sequence
 *        4  uint32    used             0: no connection has this descriptor
 *        8  int32     named_pid        process id in its latest request; 0: none yet
 *       12  int32     system_pid       process id that the system names
 *       16  int64     since            time of day
 *       24  uint64    requests         read, management commands too
 *       32  uint64    answers          given
 *       40  uint32    in_flight        requests sent to nodes and not answered
 *       44  uint32    waiting          requests that wait for a link
 *       48  uint32    unsent           bytes of answers that it has not taken
 *       52  uint32    parked           1: it is not read until there is room
 *       56  int32     last_code        CodErr of its latest answer
 *       60  uint32    serial           tells it from others that had the descriptor
 *
 * Link, 3200 bytes
 *
 *   offset  type       field            meaning
 *        0  uint32     sequence
 *        4  uint32     used             0: no link has this row
 *        8  char[16]   name             of the node
 *       24  char[16]   protocol
 *       40  char[64]   address          from the node table, as far as it fits
 *      104  uint32     state            lumo_stats_link_state
 *      108  uint32     serial           tells it from others that had the row
 *      112  int64      since            time of day of the latest change of state
 *      120  uint64     connects_tried
 *      128  uint64     connects_made
 *      136  uint64     connects_failed
 *      144  int64      failed_at        time of day of the latest failed connect; 0: none
 *      152  int32      failed_code      and the agent's code for it
 *      156  int32      failed_errno     and the system's
 *      160  uint64     requests         sent
 *      168  uint64     answers          that belonged to a request
 *      176  uint64     unasked          answers to nothing that the agent had sent
 *      184  uint64     bytes_out        of requests sent, those the node has not taken yet too
 *      192  uint64     bytes_in         of answers
 *      200  uint64     watchdogs        times that it was taken down because nothing had come
 *      208  uint32     in_flight        requests not answered
 *      212  uint32     waiting          requests that wait for it
 *      216  uint64     unsent           bytes that the node has not taken
 *      224  uint64     failed_requests  requests answered by the agent because the link failed
 *      232  uint64     latency_sum      of all answers, from the request leaving
 *      240  uint64     latency_count    answers in the histogram
 *      248  uint64     reserved
 *      256  uint64[368] latency         answers by time, see lumo_stats_bucket
 *
 * What changes with each request is put into the agent's row once a pass of the loop, into those of
 * links and clients at once. Requests are stamped with the clock of the pass in which they left,
 * answers with that of the pass in which they came; the clock is read once a pass. Of answers that
 * the reader of a LOCALI link gives to a client itself, neither size nor code is known.
 */
#ifndef LUMO_STATS_H
#define LUMO_STATS_H

#include "lumo.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LUMO_STATS_MAGIC "LUMOSTAT"
#define LUMO_STATS_LAYOUT 1
#define LUMO_STATS_CODES 32
#define LUMO_STATS_REASONS 8
#define LUMO_STATS_BUCKETS 368

/* Why a client connection was closed. Others than these may come. */
typedef enum lumo_stats_reason {
  LUMO_STATS_HUNG_UP = 0,     /* by the client */
  LUMO_STATS_RECEIVE = 1,     /* receiving failed */
  LUMO_STATS_BAD_MESSAGE = 2, /* what it sent is no message */
  LUMO_STATS_SEND = 3,        /* sending failed */
  LUMO_STATS_NOT_READING = 4, /* it left 1 MiB of answers unread */
  LUMO_STATS_OTHER = 5,       /* its descriptor was found bad, or memory ran out */
  LUMO_STATS_STOPPING = 6     /* the agent ends */
} lumo_stats_reason;

typedef enum lumo_stats_link_state {
  LUMO_STATS_DISCONNECTED = 0,
  LUMO_STATS_CONNECTED = 1,
  LUMO_STATS_CONNECTING = 2
} lumo_stats_link_state;

typedef struct lumo_stats_header {
  char magic[8];
  uint32_t layout, header_size;
  int32_t pid, exchange_id;
  int64_t start_time, start_clock;
  uint64_t process_start;
  uint32_t agent_at, agent_size;
  uint32_t clients_at, client_size, client_count;
  uint32_t links_at, link_size, link_count;
  uint32_t ended;
  uint32_t reserved[11];
} lumo_stats_header;

typedef struct lumo_stats_code {
  int32_t code;
  uint32_t used;
  uint64_t count;
} lumo_stats_code;

typedef struct lumo_stats_agent {
  uint32_t sequence, log_level;
  char version[56], options[448];
  uint32_t clients, clients_most, clients_ceiling, parked, in_flight, waiting;
  int32_t default_link;
  uint32_t links;
  uint64_t accepted, refused, closed[LUMO_STATS_REASONS];
  uint64_t requests, management, node_answers, agent_answers, bytes_in, bytes_out;
  uint64_t passes, ticks;
  int64_t last_pass;
  uint64_t longest_pass, log_lost, default_moves, reserved[2];
  lumo_stats_code codes[LUMO_STATS_CODES];
  uint64_t reserved_too[4];
} lumo_stats_agent;

typedef struct lumo_stats_client {
  uint32_t sequence, used;
  int32_t named_pid, system_pid;
  int64_t since;
  uint64_t requests, answers;
  uint32_t in_flight, waiting, unsent, parked;
  int32_t last_code;
  uint32_t serial;
} lumo_stats_client;

typedef struct lumo_stats_link {
  uint32_t sequence, used;
  char name[16], protocol[16], address[64];
  uint32_t state, serial;
  int64_t since;
  uint64_t connects_tried, connects_made, connects_failed;
  int64_t failed_at;
  int32_t failed_code, failed_errno;
  uint64_t requests, answers, unasked, bytes_out, bytes_in, watchdogs;
  uint32_t in_flight, waiting;
  uint64_t unsent, failed_requests, latency_sum, latency_count, reserved;
  uint64_t latency[LUMO_STATS_BUCKETS];
} lumo_stats_link;

/* The latency histogram: 16 places of 1 microsecond, then 16 of equal width for each power of two,
 * up to 65 seconds; the last place takes all that is longer. The middle of a place is at most
 * 3.2 % away from any whole microsecond in it, up to a minute. */
static inline uint32_t lumo_stats_bucket(uint64_t microseconds) {
  uint32_t power = 4;
  if (microseconds < 16) return microseconds & 15;
  if (microseconds >= UINT64_C(1) << 26) return LUMO_STATS_BUCKETS - 1;
#if defined(__GNUC__)
  power = (63 - __builtin_clzll(microseconds)) & 63;
#else
  while (microseconds >> (power + 1) != 0) ++power;
#endif
  return (power - 3) * 16 + ((microseconds >> (power - 4)) & 15);
}
/* The smallest number of microseconds of a place; that of the next place for the one after it. */
static inline uint64_t lumo_stats_bucket_floor(uint32_t bucket) {
  if (bucket < 16) return bucket;
  return (UINT64_C(16) + bucket % 16) << (bucket / 16 - 1);
}

/* What a page was read with; one thread at a time. */
typedef struct lumo_stats lumo_stats;

/* The page of the agent with this exchange id: lumo_socket_path with ".stats" behind it. */
LUMO_API lumo_status lumo_stats_path(int exchange_id, char* path, size_t size);

/* Opens the page at `path`; null or empty: at lumo_stats_path(0).
 * stats: required; to be closed with lumo_stats_close. LUMO_OK; LUMO_NO_AGENT: there is no page, or
 * it may not be read, errno says why; LUMO_BAD_GREETING: it is none, or of an unknown layout;
 * LUMO_NO_MEMORY. */
LUMO_API lumo_status lumo_stats_open(const char* path, lumo_stats** stats);
LUMO_API void lumo_stats_close(lumo_stats* stats);

/* 1 while the process that writes the page lives, stopped or not; 0 when the page was left behind,
 * or its agent has ended. To be asked in the agent's process id namespace. */
LUMO_API int lumo_stats_alive(const lumo_stats* stats);

/* Copies of the parts: at most `size` bytes, the size that the caller's header gives the record;
 * what the page does not have is 0. LUMO_OK; LUMO_TIMEOUT: the row was never seen at rest, as when
 * the agent was stopped in the middle of writing: the copy may be of several moments;
 * LUMO_BAD_ARGUMENT: a null pointer, or no such row; LUMO_SYSTEM: it cannot be read any more. Rows
 * of links and clients that are not in use have `used` 0. */
LUMO_API lumo_status lumo_stats_read_header(const lumo_stats* stats, lumo_stats_header* header,
                                            size_t size);
LUMO_API lumo_status lumo_stats_read_agent(const lumo_stats* stats, lumo_stats_agent* agent,
                                           size_t size);
LUMO_API lumo_status lumo_stats_read_client(const lumo_stats* stats, uint32_t row,
                                            lumo_stats_client* client, size_t size);
LUMO_API lumo_status lumo_stats_read_link(const lumo_stats* stats, uint32_t row,
                                          lumo_stats_link* link, size_t size);

/* "hung up" and the like; "unknown reason" for any other number. Never null. */
LUMO_API const char* lumo_stats_reason_text(int reason);

/* The latency below which this share (0 to 1) of the counted answers stays, in microseconds: the
 * middle of its place. `latency`: LUMO_STATS_BUCKETS counts, perhaps the differences of two
 * readings. 0 when there is none. */
LUMO_API double lumo_stats_percentile(const uint64_t* latency, double share);

#ifdef __cplusplus
}
#endif

#endif

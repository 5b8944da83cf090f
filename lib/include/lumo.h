/* liblumo: requests and management commands through the network agent of this machine.
 *
 * C11 and C++20. `lumo.hpp` beside this file wraps it for C++.
 *
 *     lumo_connection *agent;
 *     lumo_answer *answer;
 *     if (lumo_open(NULL, 5000, &agent) == LUMO_OK) {
 *       lumo_status end = lumo_ask_text(agent, "SRV1", "SELECT 1", 5000, &answer);
 *       if (end == LUMO_OK) puts(lumo_answer_string(answer, LUMO_ROWS, NULL));
 *       lumo_answer_free(answer);
 *       lumo_close(agent);
 *     }
 *
 * What every call keeps to:
 *
 * - Time. `deadline_ms` is the longest time in milliseconds that the call takes: 0 does only what
 *   can be done without waiting, -1 (any negative number) waits for ever. Signals do not cut a wait
 *   short.
 * - Results. Every call that can fail returns a lumo_status. Nothing aborts, prints, raises SIGPIPE
 *   or lets an exception out. Output parameters are always written: on failure with NULL or 0, or
 *   as told at the call.
 * - errno. With LUMO_NO_AGENT and LUMO_SYSTEM it holds the system's reason; with LUMO_ERROR of a
 *   management call that which the agent told (EPERM: not permitted), or 0. Requests have the
 *   agent's in lumo_answer_sys_error. After anything else errno tells nothing.
 * - Pointers. Required ones are marked; a null one gives LUMO_BAD_ARGUMENT. Texts are ended by a
 *   NUL.
 * - Threads. All calls may come from any thread at any time, also on one connection: several
 *   threads may ask, send and receive on it together, and none waits for another's answer.
 *   Exceptions: lumo_close (nobody else may be using the connection), and an answer or a request
 *   structure belongs to one thread at a time.
 * - fork. Parent and child may both go on with the same lumo_connection. The child's first call on
 *   it leaves the parent's socket to the parent and makes a connection of the child's own; requests
 *   that the parent has sent stay the parent's (LUMO_FORKED in the child). The child does not
 *   inherit answers that the parent waits for. Sockets are closed on exec.
 * - The agent's end. A lost connection is made again by the next call that sends; what was in
 *   flight ends as LUMO_UNSURE. Nothing is sent twice.
 * - Two copies of this library in one process (say, one static in a plug-in) do not know of each
 *   other's tags: use one.
 * - The agent probes its clients by process id, so both must be in one process id namespace.
 */
#ifndef LUMO_H
#define LUMO_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "lumo_version.h"

#if defined(__GNUC__)
#define LUMO_API __attribute__((visibility("default")))
#else
#define LUMO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version of the library that runs, "MAJOR.MINOR.PATCH"; LUMO_VERSION is that of this header.
 * The same MAJOR means that what was compiled with an older header goes on working. */
LUMO_API const char* lumo_version(void);

/* ------------------------------------------------------------------------------ How calls end */

/* What a call returns. Not to be mixed up with the agent's codes (lumo_code). */
typedef enum lumo_status {
  /* The four ends of a request. Each request that was sent comes to exactly one of them. */
  LUMO_OK = 0,      /* done: the node answered with code 0, or the agent a management command */
  LUMO_ERROR = 1,   /* the agent answered with an error: lumo_answer_code and what goes with it */
  LUMO_UNSURE = 2,  /* it is not known whether the node carried it out: lumo_answer_reason */
  LUMO_REFUSED = 3, /* the node answered with a code that is not 0 (lumo_answer_code is the node's
                       own); of a management command's call: the agent said no (its `result`) */

  /* Nothing was sent, or nothing has changed. */
  LUMO_TIMEOUT = 4,      /* the deadline passed; a request in flight is still in flight */
  LUMO_NO_AGENT = 5,     /* no agent answers at the socket; errno says why */
  LUMO_BAD_GREETING = 6, /* something answers there, but not as an agent does */
  LUMO_BAD_ARGUMENT = 7, /* a required pointer is null, or a value is out of its range */
  LUMO_TOO_LONG = 8,     /* a name is too long, or the request for one message (8188 bytes) */
  LUMO_NO_TAG = 9,       /* all 65534 tags of the process are in use */
  LUMO_NO_TICKET = 10,   /* no such request: never sent, ended, given up, or another connection's */
  LUMO_NOTHING_SENT = 11, /* lumo_receive_any: no request is in flight that it could wait for */
  LUMO_FORKED = 12,       /* the request was sent by the parent process */
  LUMO_NO_MEMORY = 13,
  LUMO_SYSTEM = 14,    /* a system call failed; errno says why */
  LUMO_BAD_ANSWER = 15 /* a management answer does not have the form that its command has */
} lumo_status;

/* "LUMO_TIMEOUT" and the like; "LUMO_STATUS_UNKNOWN" for any other number. Never null. */
LUMO_API const char* lumo_status_name(int status);
/* The same in words, one clause without a full stop. Never null. */
LUMO_API const char* lumo_status_text(int status);

/* Why a request ended as LUMO_UNSURE. */
typedef enum lumo_reason {
  LUMO_REASON_NONE = 0,            /* it did not */
  LUMO_REASON_CONNECTION_LOST = 1, /* the connection to the agent was lost after it was sent */
  LUMO_REASON_AGENT_STOPPED = 2,   /* the agent took the link down on purpose, as when it ends */
  LUMO_REASON_DEADLINE = 3,        /* lumo_ask only: the deadline passed after it was sent */
  LUMO_REASON_BAD_ANSWER = 4, /* what came over the connection is no message; it was given up */
  LUMO_REASON_NO_MEMORY = 5   /* lumo_ask only: there was no memory to take the answer */
} lumo_reason;

/* In words. Never null. */
LUMO_API const char* lumo_reason_text(int reason);

/* The codes that the agent itself answers with (lumo_answer_code after LUMO_ERROR). Nodes have
 * codes of their own, which may be the same numbers: lumo_answer_from_agent tells whose it is. */
typedef enum lumo_code {
  LUMO_CODE_LOCAL_SOCKET = -1, /* a socket to the local kernel could not be created */
  LUMO_CODE_SUCCESS = 0,
  LUMO_CODE_CIRCLE_FAILED = 1001,   /* no node of the circle could be connected, or a connection is
                                       still being made; from an agent started with -ERR1001 */
  LUMO_CODE_SOCKET = 4001,          /* a socket could not be created */
  LUMO_CODE_OPTION = 4002,          /* a descriptor mode or a socket option could not be set */
  LUMO_CODE_BAD_DESCRIPTOR = 4005,  /* the link's descriptor was found bad */
  LUMO_CODE_CONNECT = 4006,         /* the connection to the node failed, or as 1001 */
  LUMO_CODE_SEND = 4007,            /* sending to the node failed */
  LUMO_CODE_RECEIVE = 4008,         /* receiving failed, or the node's packet was malformed */
  LUMO_CODE_PEER_CLOSED = 4009,     /* the node closed the connection */
  LUMO_CODE_UNKNOWN_NODE = 4050,    /* the node table has no such node, or it was deleted */
  LUMO_CODE_DESCRIPTOR = 4052,      /* the agent has no descriptor left for the link */
  LUMO_CODE_READER_GONE = 4053,     /* the reader of the local link has gone */
  LUMO_CODE_CONNECT_TIMEOUT = 4058, /* the connection was not made within the connect time-out */
  LUMO_CODE_RECEIVE_TIMEOUT = 4065, /* the node sent nothing within the send time-out */
  LUMO_CODE_UNSUPPORTED = 4066,     /* the node's protocol is known but not carried */
  LUMO_CODE_SECURE_REFUSED = 4156,  /* the node refused the secure connection */
  LUMO_CODE_NOT_RECORDED = 4200,    /* the agent had no memory to record the request */
  LUMO_CODE_NOT_PERMITTED = 4201    /* the client may not change nodes, or not in this name */
} lumo_code;

typedef enum lumo_advice {
  LUMO_ADVICE_NONE = 0,  /* success, or no code of the agent */
  LUMO_ADVICE_RETRY = 1, /* the node has not got the request: send it again, later or elsewhere */
  LUMO_ADVICE_FIX_TABLE =
      2,                  /* the node has not got it, nor will it before the node table changes */
  LUMO_ADVICE_UNSURE = 3, /* the node may have carried it out: look before it is sent again */
  LUMO_ADVICE_ASK_PERMISSION = 4 /* nothing was carried out, nor will be before it is permitted */
} lumo_advice;

/* "LUMO_CODE_UNKNOWN_NODE" and the like; null when the agent has no such code. */
LUMO_API const char* lumo_code_name(int32_t code);
/* The code in words, one clause without a full stop; null when the agent has no such code. */
LUMO_API const char* lumo_code_text(int32_t code);
/* What to do about it. `sys_error` is lumo_answer_sys_error: with LUMO_CODE_CONNECT and
 * LUMO_CODE_CIRCLE_FAILED a request that waited for a connection (non-zero) differs by it from one
 * that may have gone out over the link that broke (0). */
LUMO_API lumo_advice lumo_code_advice(int32_t code, int32_t sys_error);
/* The advice in words. Never null. */
LUMO_API const char* lumo_advice_text(int advice);
/* The known codes in ascending order, for tables: the one at `index` (from 0) into `*code`
 * (required); LUMO_BAD_ARGUMENT behind the last one. LUMO_CODE_SUCCESS is among them. */
LUMO_API lumo_status lumo_code_at(size_t index, int32_t* code);

/* --------------------------------------------------------------------------------- Connections */

typedef struct lumo_connection lumo_connection;

/* The path of an agent's socket, "tavrin.N" with the exchange id N: `exchange_id`, or when that is
 * 0 the environment variable NET_MBX, or 20562 when that is no number or 0. The directory is
 * TAVRIN_TMP when that is set (/tmp/tavrin when it is longer than 227 characters). When it is not
 * set, it is that of the packaged service, /run/lumo/agent, or /tmp/tavrin: the first in which such
 * a file is; when there is none, the first that exists.
 * path: required, `size` bytes; LUMO_TOO_LONG (and an empty text) when it does not fit. */
LUMO_API lumo_status lumo_socket_path(int exchange_id, char* path, size_t size);
/* The places that lumo_socket_path looks at, to be told when no agent answers: the one at `index`
 * (from 0), as above; LUMO_BAD_ARGUMENT (and an empty text) behind the last one. */
LUMO_API lumo_status lumo_socket_place(int exchange_id, size_t index, char* path, size_t size);

/* Connects to the agent whose socket is at `path`, or, when `path` is null or empty, at
 * lumo_socket_path(0), and checks its greeting. The path is kept for reconnecting.
 * connection: required; to be closed with lumo_close.
 * LUMO_OK, LUMO_NO_AGENT, LUMO_BAD_GREETING, LUMO_TIMEOUT, LUMO_TOO_LONG (the path),
 * LUMO_NO_MEMORY, LUMO_SYSTEM. */
LUMO_API lumo_status lumo_open(const char* path, int deadline_ms, lumo_connection** connection);

/* Closes and frees; null does nothing. Requests in flight are given up: the agent drops their
 * answers. In a child process only the child's own copy goes; the parent's connection stays. */
LUMO_API void lumo_close(lumo_connection* connection);

/* Makes the connection again if it is known to be lost (or the parent's), as every call that sends
 * does by itself. */
LUMO_API lumo_status lumo_reconnect(lumo_connection* connection, int deadline_ms);

/* Process id of the agent, from the latest greeting; 0 for a null connection. */
LUMO_API int32_t lumo_agent_pid(const lumo_connection* connection);
/* The path that the connection was made with; it lives as long as the connection. Null for null. */
LUMO_API const char* lumo_connection_path(const lumo_connection* connection);
/* Number of requests sent over this connection whose end no call has handed out yet, and that were
 * not given up. */
LUMO_API size_t lumo_in_flight(const lumo_connection* connection);
/* The descriptor to wait for in an event loop, or -1 while there is no connection. Only wait for it
 * to be readable. It changes when the connection is made again, so ask after every send. An answer
 * may already have been read: call lumo_receive_any with a deadline of 0 until it returns
 * LUMO_TIMEOUT or LUMO_NOTHING_SENT before waiting. */
LUMO_API int lumo_descriptor(const lumo_connection* connection);

/* ------------------------------------------------------------------------------------ Requests */

/* What the counted strings of a message hold by convention; the other two have none. */
typedef enum lumo_string {
  LUMO_TEXT = 0, /* of a request: the statement */
  LUMO_ROWS = 3  /* of an answer: the rows, or the words of the node that refused; of a management
                    answer: the item */
} lumo_string;

typedef struct lumo_bytes {
  const void* data; /* may be null when size is 0 */
  size_t size;      /* at most 8080 */
} lumo_bytes;

/* What a request carries. Make it with lumo_request_make, then set what is needed. Everything is
 * copied before a call returns. Fields without a remark are passed through to the node and back;
 * they mean something to applications and nodes only. The library itself fills in the message's
 * length, the process id and the tag. */
typedef struct lumo_request {
  size_t struct_size;    /* sizeof(lumo_request) of the caller */
  const char* node;      /* at most 8 characters, case does not matter; null or "": default node */
  const char* command;   /* at most 4 characters; null: none. "DBCA" is a management command */
  lumo_bytes strings[4]; /* by lumo_string. All four with their counts and pads have room for 8088
                            bytes: a string of n bytes takes n + 2, one more when n is odd */
  int32_t row_id, row_count;
  uint32_t prz_exe;
  uint16_t prior, num_chan, ln_buf_row;
  uint16_t dbc_api_code; /* number of a management command */
  uint8_t spare[4];      /* four bytes of the control block without a name */
  uint8_t trailer[48];   /* bytes 0 to 7, 12, 13 and 46 are overwritten on the way */
} lumo_request;

static inline lumo_request lumo_request_make(void) {
  lumo_request request;
  memset(&request, 0, sizeof request);
  request.struct_size = sizeof request;
  return request;
}

/* Names one request that was sent, for this process; never 0 and never used twice. */
typedef uint64_t lumo_ticket;

typedef struct lumo_answer lumo_answer;

/* Sends a request and returns without waiting for its answer. Any number may be in flight (65534 in
 * the process); answers come in the order in which the nodes give them. Takes the deadline to
 * connect, when needed, and until the agent takes the request.
 * connection, request, ticket: required. LUMO_OK: it is sent, *ticket names it, and it has to be
 * brought to its end with lumo_receive, lumo_receive_any or lumo_abandon. With any other status
 * nothing was sent: LUMO_TIMEOUT, LUMO_NO_AGENT, LUMO_BAD_GREETING, LUMO_BAD_ARGUMENT,
 * LUMO_TOO_LONG, LUMO_NO_TAG, LUMO_NO_MEMORY, LUMO_SYSTEM. */
LUMO_API lumo_status lumo_send(lumo_connection* connection, const lumo_request* request,
                               int deadline_ms, lumo_ticket* ticket);

/* Waits for the end of one request. Ends it with LUMO_OK, LUMO_ERROR, LUMO_UNSURE or LUMO_REFUSED,
 * each with an answer in *answer (required; to be freed with lumo_answer_free). Else *answer is
 * null: after
 * LUMO_TIMEOUT and LUMO_NO_MEMORY the request is still in flight; LUMO_NO_TICKET also while another
 * thread waits for the same request; LUMO_FORKED, LUMO_BAD_ARGUMENT. */
LUMO_API lumo_status lumo_receive(lumo_connection* connection, lumo_ticket ticket, int deadline_ms,
                                  lumo_answer** answer);

/* Waits for the end of any request of this connection that no other call waits for, the one whose
 * end came first. As lumo_receive; *ticket (required) says which one it was, 0 when none. At once
 * LUMO_NOTHING_SENT when there is none in flight. */
LUMO_API lumo_status lumo_receive_any(lumo_connection* connection, int deadline_ms,
                                      lumo_ticket* ticket, lumo_answer** answer);

/* Gives a request up: its answer will be dropped when it comes, and its tag is not used again
 * before that. The node is not told. LUMO_OK, LUMO_NO_TICKET (also while another thread waits for
 * it), LUMO_FORKED, LUMO_BAD_ARGUMENT. */
LUMO_API lumo_status lumo_abandon(lumo_connection* connection, lumo_ticket ticket);

/* Sends and waits. LUMO_OK, LUMO_ERROR, LUMO_UNSURE, LUMO_REFUSED: as lumo_receive, with an answer;
 * when the deadline passes after the request was sent, it is given up and ends as LUMO_UNSURE with
 * LUMO_REASON_DEADLINE. Else *answer is null and nothing was sent, as lumo_send. */
LUMO_API lumo_status lumo_ask(lumo_connection* connection, const lumo_request* request,
                              int deadline_ms, lumo_answer** answer);

/* lumo_ask with only a node (null or "": the default) and LUMO_TEXT, `text` (required). */
LUMO_API lumo_status lumo_ask_text(lumo_connection* connection, const char* node, const char* text,
                                   int deadline_ms, lumo_answer** answer);

/* ------------------------------------------------------------------------------------- Answers */

/* All take null and then return 0 or null. What they point to lives as long as the answer. */

LUMO_API void lumo_answer_free(lumo_answer* answer); /* null does nothing */

/* How the request ended: LUMO_OK, LUMO_ERROR, LUMO_UNSURE or LUMO_REFUSED. */
LUMO_API lumo_status lumo_answer_status(const lumo_answer* answer);
/* With LUMO_UNSURE: why. */
LUMO_API lumo_reason lumo_answer_reason(const lumo_answer* answer);
/* 1 when the agent itself gave the answer, 0 when the node did or there is none. */
LUMO_API int lumo_answer_from_agent(const lumo_answer* answer);
/* 0 success, else a code of the agent (after LUMO_ERROR: lumo_code) or of the node (after
 * LUMO_REFUSED). */
LUMO_API int32_t lumo_answer_code(const lumo_answer* answer);
/* The system's error number (as errno) that goes with the code, or 0. */
LUMO_API int32_t lumo_answer_sys_error(const lumo_answer* answer);
/* lumo_code_name of an error of the agent; else null. */
LUMO_API const char* lumo_answer_name(const lumo_answer* answer);
/* How the request ended, in words of one line: an error of the agent with the system's error, why
 * it is unsure, "the node refused: WORDS (code N)" with what the node has put into LUMO_ROWS, to
 * its first NUL and with blanks for control characters. Null only for a null answer. */
LUMO_API const char* lumo_answer_words(const lumo_answer* answer);
/* lumo_code_advice of an error of the agent; LUMO_ADVICE_UNSURE after LUMO_UNSURE; else
 * LUMO_ADVICE_NONE. */
LUMO_API lumo_advice lumo_answer_advice(const lumo_answer* answer);

/* Counted string 0 to 3 (lumo_string); its size into *size (may be null). A NUL that is not counted
 * follows. Null when there is no such string. */
LUMO_API const char* lumo_answer_string(const lumo_answer* answer, int index, size_t* size);

/* The fields of the control block as they came; lumo_answer_command has 4 bytes and
 * lumo_answer_node 8 bytes, cut at the first blank or NUL. */
LUMO_API const char* lumo_answer_command(const lumo_answer* answer);
LUMO_API const char* lumo_answer_node(const lumo_answer* answer);
LUMO_API int32_t lumo_answer_row_id(const lumo_answer* answer);
LUMO_API int32_t lumo_answer_row_count(const lumo_answer* answer);
LUMO_API uint32_t lumo_answer_prz_exe(const lumo_answer* answer);
LUMO_API uint16_t lumo_answer_prior(const lumo_answer* answer);
LUMO_API uint16_t lumo_answer_num_chan(const lumo_answer* answer);
LUMO_API uint16_t lumo_answer_ln_buf_row(const lumo_answer* answer);
LUMO_API uint16_t lumo_answer_dbc_api_code(const lumo_answer* answer);
LUMO_API const uint8_t* lumo_answer_spare(const lumo_answer* answer);   /* 4 bytes */
LUMO_API const uint8_t* lumo_answer_trailer(const lumo_answer* answer); /* 48 bytes */
/* The tag (AstInd) that the request had; with the process id it names the request in traces. */
LUMO_API uint16_t lumo_answer_tag(const lumo_answer* answer);

/* ---------------------------------------------------------------------------------- Management */

/* The agent's own commands, 100 to 129. They are answered at once, whatever state the nodes are in,
 * and change the agent's memory only, never the node table file.
 *
 * Nodes are numbered from 0 in the order of the table, added ones last. Names have at most 8
 * characters; case does not matter. A node table line is "NAME PROTOCOL ADDRESS", as in the file.
 *
 * Each takes a deadline and, last, `result` (may be null) for the number that the agent answered.
 * LUMO_OK: done. LUMO_REFUSED: the agent answered no; *result says why. LUMO_UNSURE: no answer came
 * after the command was sent (the agent may have carried it out). LUMO_ERROR: the agent refused to
 * look at it, errno says why (EPERM: LUMO_CODE_NOT_PERMITTED). Else as lumo_send. *result is 0 when
 * there is none. */

typedef enum lumo_result {
  LUMO_RESULT_DONE = 0,
  LUMO_RESULT_NOT_ADDED = 1,     /* 119: the line makes no node */
  LUMO_RESULT_PATH_TOO_LONG = 3, /* 116 */
  LUMO_RESULT_HELD_BY_CALLER = 4,
  LUMO_RESULT_HELD_BY_OTHER = 5,
  LUMO_RESULT_NO_SUCH_NODE = 17,
  LUMO_RESULT_PENDING = 33,    /* 123 to 125: the node's link is up; it goes when the link does */
  LUMO_RESULT_NO_NODETAB = 129 /* 116: there is no node table file */
} lumo_result;

/* In words. Never null. */
LUMO_API const char* lumo_result_text(int32_t result);

#define LUMO_NODE_NAME_SIZE 9 /* with its NUL */

/* Any command by its number: `argument` is the integer, `text` (null when size is 0) the text as it
 * goes out, NULs included. LUMO_OK for every answer, whatever its result. The item of the answer is
 * string 3 of *answer (answer may be null; free it with lumo_answer_free; null when none came). */
LUMO_API lumo_status lumo_manage(lumo_connection* connection, uint16_t command, int32_t argument,
                                 lumo_bytes text, int deadline_ms, int32_t* result,
                                 lumo_answer** answer);

/* 100: does nothing; *result 1. Tells that the agent serves. */
LUMO_API lumo_status lumo_probe(lumo_connection* connection, int deadline_ms, int32_t* result);

/* 102: *result is the number of nodes. */
LUMO_API lumo_status lumo_count_nodes(lumo_connection* connection, int deadline_ms,
                                      int32_t* result);

/* 103: the default node's name without its blanks. name: required. LUMO_REFUSED and an empty name
 * (*result 0) when there is no default. */
LUMO_API lumo_status lumo_default_name(lumo_connection* connection, int deadline_ms,
                                       char name[LUMO_NODE_NAME_SIZE], int32_t* result);

/* 104: *result is the default node's number; the number of nodes when there is no default. */
LUMO_API lumo_status lumo_default_index(lumo_connection* connection, int deadline_ms,
                                        int32_t* result);

/* 105: the name of node `index`. name: required. LUMO_REFUSED, empty (*result 0): no such node. */
LUMO_API lumo_status lumo_node_name(lumo_connection* connection, int32_t index, int deadline_ms,
                                    char name[LUMO_NODE_NAME_SIZE], int32_t* result);

/* 106: makes node `index` the default. LUMO_REFUSED (*result 0): no such node. */
LUMO_API lumo_status lumo_set_default(lumo_connection* connection, int32_t index, int deadline_ms,
                                      int32_t* result);

/* 116: the path of the node table file. path: required, `size` bytes (260 are always enough).
 * LUMO_REFUSED: LUMO_RESULT_NO_NODETAB, LUMO_RESULT_PATH_TOO_LONG. LUMO_TOO_LONG: path is too
 * small. On failure it is empty. */
LUMO_API lumo_status lumo_nodetab_path(lumo_connection* connection, int deadline_ms, char* path,
                                       size_t size, int32_t* result);

/* 117, 118, 129: an advisory lock of the node table, for programs that agree to use it; the other
 * commands do not look at it. `owner` is any number that the caller chooses.
 * lock: LUMO_REFUSED (LUMO_RESULT_HELD_BY_OTHER) however old the other's lock is; the owner may
 * renew it. unlock: LUMO_REFUSED when another owner took it less than a minute ago.
 * status: always LUMO_OK, *result 0 free, LUMO_RESULT_HELD_BY_CALLER, LUMO_RESULT_HELD_BY_OTHER; a
 * lock older than 59 seconds is given back by it. */
LUMO_API lumo_status lumo_lock_nodetab(lumo_connection* connection, int32_t owner, int deadline_ms,
                                       int32_t* result);
LUMO_API lumo_status lumo_unlock_nodetab(lumo_connection* connection, int32_t owner,
                                         int deadline_ms, int32_t* result);
LUMO_API lumo_status lumo_nodetab_status(lumo_connection* connection, int32_t owner,
                                         int deadline_ms, int32_t* result);

/* 119: adds a node. line: required. LUMO_REFUSED: LUMO_RESULT_NOT_ADDED. */
LUMO_API lumo_status lumo_add_node(lumo_connection* connection, const char* line, int deadline_ms,
                                   int32_t* result);

/* A node's description. The layout is fixed. */
typedef struct lumo_node {
  uint32_t protocol;        /* 2 LOCALS, 3 LOCALI, 4 TCPIP, 0 any other; 1 and 5 are reserved */
  uint32_t port;            /* TCPIP; else a number without meaning */
  char name[16];            /* upper case */
  char address[120];        /* TCPIP: IPv4 address, dotted; else empty */
  uint16_t receive_timeout; /* TCPIP: alive packets every 20 times as many seconds, 0 none */
  uint16_t send_timeout;    /* TCPIP: seconds without a packet until the link breaks, 0 never */
  uint16_t connect_timeout; /* TCPIP: seconds, 0 for ever */
  uint16_t reserved[13];    /* 0 */
} lumo_node;

/* "TCPIP" and the like; "other" for 0 and unknown numbers. Never null. */
LUMO_API const char* lumo_protocol_name(uint32_t protocol);

/* 120, 121, 122: describes a node by name (required), by number, or the default. node: required;
 * all zero on failure. LUMO_REFUSED: LUMO_RESULT_NO_SUCH_NODE. */
LUMO_API lumo_status lumo_get_node(lumo_connection* connection, const char* name, int deadline_ms,
                                   lumo_node* node, int32_t* result);
LUMO_API lumo_status lumo_get_node_at(lumo_connection* connection, int32_t index, int deadline_ms,
                                      lumo_node* node, int32_t* result);
LUMO_API lumo_status lumo_get_default_node(lumo_connection* connection, int deadline_ms,
                                           lumo_node* node, int32_t* result);

/* 123, 124, 125: deletes a node by name (required), by number, or the default. LUMO_OK with *result
 * LUMO_RESULT_PENDING: its link is up, and it goes when the link is next taken down. LUMO_REFUSED:
 * LUMO_RESULT_NO_SUCH_NODE. */
LUMO_API lumo_status lumo_delete_node(lumo_connection* connection, const char* name,
                                      int deadline_ms, int32_t* result);
LUMO_API lumo_status lumo_delete_node_at(lumo_connection* connection, int32_t index,
                                         int deadline_ms, int32_t* result);
LUMO_API lumo_status lumo_delete_default_node(lumo_connection* connection, int deadline_ms,
                                              int32_t* result);

/* 126, 127, 128: gives a node by name (required), by number, or the default a new definition. line:
 * required. While the node's link is up, the line (its first 299 characters) waits until the link
 * is taken down. LUMO_OK does not tell that the line makes a node: ask with lumo_get_node.
 * LUMO_REFUSED: LUMO_RESULT_NO_SUCH_NODE. */
LUMO_API lumo_status lumo_set_node(lumo_connection* connection, const char* name, const char* line,
                                   int deadline_ms, int32_t* result);
LUMO_API lumo_status lumo_set_node_at(lumo_connection* connection, int32_t index, const char* line,
                                      int deadline_ms, int32_t* result);
LUMO_API lumo_status lumo_set_default_node(lumo_connection* connection, const char* line,
                                           int deadline_ms, int32_t* result);

#ifdef __cplusplus
}
#endif

#endif

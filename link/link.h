// The node table, the circle of links, the default link and the way of a request over a link.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "core/dbc.h"
#include "link/record.h"

struct Protocol;

constexpr std::size_t kNodetabPathSize = 260;  // the buffer that SearchForNodetab may fill
constexpr int kNodetabLineSize = 1024;         // longer lines are read as several

// Node table
std::FILE* SearchForNodetab(const char* file, int line, char* foundPath);  // see link.cpp
std::FILE* OpenNodetabFile(const char* file, int line);
// As fgets, but a signal does not end it; false: there is no line.
bool ReadNodetabLine(char (&line)[kNodetabLineSize], std::FILE* stream);
Link* ParseNodetabString(const char* file, int line, char* text, int addToList);
int InitLinkQueueFromNodetab(const char* file, int line);

// The text after leading white space, or null when the line holds no node (comment or empty).
char* NodeOfNodetabLine(char* line);

// Default link and reconnection
int DisconnectLink(const char* file, int line, Link* link, int tavrinErr, int sysErr);
int TryConnectDefaultLinkToNextServer(const char* file, int line, Link* failedLink, int tavrinErr);

// Connects a disconnected link, with errno 0 before: 0, or what the driver returned, with its
// errno. When the link is up at once, the requests that wait for it go out (4007: they did not).
// While the agent is stopping nothing is connected (4006, ECANCELED).
int ConnectTheLink(const char* file, int line, Link* link);

// The failure of this link moves the default link: it is the default, one of the two modes is on,
// and there is another link.
bool ReconnectionFollows(const Link* link);

// Requests out, answers in
int SendMsgToLink(const char* file, int line, Link* link, ClientMessage* msg);
int SendAllSavedMsgToTheLink(const char* file, int line, Link* link);
int HandleNetworkMsg(const char* file, int line, ClientMessage* msg);
MsgInfo* MarkTheMsgAsReceived(const char* file, int line, int taskName, std::uint16_t astInd);
// The same where the request is known already; null: there is none.
MsgInfo* MarkTheMsgAsReceived(const char* file, int line, int taskName, std::uint16_t astInd,
                              MsgInfo* info);
int ReturnAnswerFromNetworkToClient(const char* file, int line, ClientMessage* msg);

// Moves the requests that wait for `from` and name no node to `to`.
void MoveDefaultRequests(const Link* from, Link* to);

// Answers the requests that wait for the link.
void AnswerSavedRequests(const Link* link, int tavrinErr, int sysErr);

// Answers the requests that wait for a link that is down with nothing under way.
void AnswerStrandedRequests();

// Takes over a link that has been unlinked: its waiting requests are answered with 4050, 0, all
// pointers to it forgotten; the memory is freed by the next FreeRetiredLinks, at the top of a
// pass, so that walks in progress stay valid.
void RetireLink(Link* link);
void FreeRetiredLinks();

// The links are a circle of one.
bool OnlyOneLink();

// Where the connection circle begins and ends; null when there is no link.
Link* CircleEntry();

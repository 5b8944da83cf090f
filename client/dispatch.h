// Requests of clients: each is answered at once, sent over its link, or kept until the link is up.
#pragma once

// Serves one request of a readable connection; 0, or -1 when it could not be handled.
int HandleMessageFromClientQueue(const char* file, int line, int socket);

// Sends what has been joined (link/joint.h). Requests that are left over are served once more.
void SendTogether();

// The socket files by which the programs of one machine find each other: one per exchange number,
// all in one directory.
#pragma once
#include <sys/socket.h>
#include <sys/un.h>

// The directory of the socket files: TAVRIN_TMP, when that is short enough.
const char* MailboxDirectory();

constexpr int kMailboxPathMax = 255;  // of the longest directory with any exchange number

// A socket address that may be longer than the system takes: connect and bind then refuse it.
struct MailboxAddress {
  MailboxAddress() = default;
  MailboxAddress(const MailboxAddress&) = delete;  // Path points into Bytes
  MailboxAddress& operator=(const MailboxAddress&) = delete;

  alignas(sockaddr_un) char Bytes[sizeof(sa_family_t) + kMailboxPathMax + 1];
  socklen_t Length;
  const char* Path;
};

// The address of the socket file of an exchange number.
void MakeMailboxAddress(MailboxAddress* address, int mbx);

#include "core/mailbox.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kDefaultDirectory[] = "/tmp/tavrin";
constexpr std::size_t kDirectoryMax = kMailboxPathMax - 28;
static_assert(kDirectoryMax + sizeof "/tavrin.-2147483648" <= kMailboxPathMax + 1);

}  // namespace

const char* MailboxDirectory() {
  const char* const directory = std::getenv("TAVRIN_TMP");
  return directory && std::strlen(directory) <= kDirectoryMax ? directory : kDefaultDirectory;
}

void MakeMailboxAddress(MailboxAddress* address, int mbx) {
  const sa_family_t family = AF_UNIX;
  char* const path = address->Bytes + offsetof(sockaddr_un, sun_path);
  std::memset(address->Bytes, 0, sizeof address->Bytes);
  std::memcpy(address->Bytes + offsetof(sockaddr_un, sun_family), &family, sizeof family);
  const int length =
      std::snprintf(path, kMailboxPathMax + 1, "%s/tavrin.%d", MailboxDirectory(), mbx);
  address->Path = path;
  address->Length = static_cast<socklen_t>(length) + 3;
}

// A local kernel's message queue and semaphore, as the measuring programs use them.
#pragma once
#include <cstddef>
#include <cstdint>

#include "bench/frame.h"

namespace bench {

constexpr long kRequestType = 1;
// Offsets in a frame count from its length word, which a queue's message has not.
constexpr std::size_t InBody(std::size_t offset) { return offset - kLengthWord; }

struct QueueMessage {
  long Type;
  char Body[kLargestFrame];
};

struct MessageQueue {
  int Id, Semaphore;
};

// Opens what a kernel has made under this key.
MessageQueue OpenQueue(int key);

// Each repeats an interrupted call; what cannot go on ends the program.
void Send(const MessageQueue& queue, const QueueMessage& message, std::size_t size);
bool SendIfRoom(const MessageQueue& queue, const QueueMessage& message, std::size_t size);
std::size_t Receive(const MessageQueue& queue, QueueMessage* message, long type);
void ChangeSemaphore(const MessageQueue& queue, short by);

}  // namespace bench

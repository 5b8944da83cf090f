// Memory that runs out when a test says so.
#pragma once

// While it lives, the allocation calls of the agent's modules (malloc, calloc, realloc) fail after
// `successes` more have succeeded.
class FailingAllocations {
 public:
  explicit FailingAllocations(int successes = 0);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
};

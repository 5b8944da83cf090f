// A node behind System V objects: the local kernel of a LOCALI link.
#pragma once
#include <sys/types.h>

#include <deque>
#include <string>

#include "tests/endurance/node.h"
#include "tests/support/kernel.h"

namespace endurance {

class QueueNode : public Node {
 public:
  explicit QueueNode(const NodeSetting& setting);
  void SetAgent(pid_t agent) { agent_ = agent; }
  std::string Line() const override { return kernel_.Line(Name()); }
  void Step(Time now) override;
  bool Idle() const override;
  int AgentDescriptors() const override { return Connected() ? 2 : 0; }  // a pipe and a pair
  int AgentChildren() const override { return Connected() ? 1 : 0; }
  // At rest: takes down the link, for which the agent keeps records of answers that it has handed
  // on, as many as it once needed at a time.
  void EndSpares();

 private:
  struct Unsent {
    long Type;
    std::string Body;
  };

  bool Connected() const override { return reader_ > 0; }
  void Transmit(const lumo::Message& message) override;
  void Break(Time now) override;
  void OpenQueue();
  bool TakeOne();
  void Sort(const std::string& body);
  void Flush();
  bool Put(long type, const std::string& body);
  void DropAnswersToNobody();
  bool ReaderIsQuiet() const;
  void EndReader(const std::string& fault);
  void RemoveQueue(Time now);
  void KillReaderWhenQuiet(Time now);

  test::IpcKernel kernel_;
  int queue_ = -1, semaphore_ = -1;
  pid_t reader_ = -1;  // of the present connection
  pid_t gone_ = -1;    // of the one before
  pid_t agent_ = -1;
  bool killing_ = false, dropping_ = false;
  Time killUntil_;
  std::deque<Unsent> unsent_;
};

}  // namespace endurance
